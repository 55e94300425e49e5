// Deleting rows. A row of None takes the place of a deleted one, so that ids never move.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Takes the row out of the indexes, puts a row of None in its place, saves. True. ValueError for an unknown table,
// IndexError for no such row. An error before the save undoes the deletion; an error of the save leaves it in memory.
Ref delete_row(PyObject* self, PyObject* table_name, PyObject* row_id);

// Deletes every row, then saves once. True. ValueError for an unknown table. Rows deleted before an error stay deleted.
Ref clear_table(PyObject* self, PyObject* table_name);

}  // namespace jdb::store
