// Deleting rows: their places stay, so that ids never move.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Puts a row of None in the row's place, takes it out of the indexes, saves. True; IndexError for no such row.
Ref delete_row(PyObject* self, PyObject* table_name, PyObject* row_id);

// Does so with every row, and saves once.
Ref clear_table(PyObject* self, PyObject* table_name);

}  // namespace jdb::store
