// Replacing a row's values.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Replaces the whole row by validated data and saves. True. ValueError for an unknown table or refused data, IndexError
// for no such row. The row is out of the indexes while its new values are validated. An error before the save undoes
// the update; an error of the save leaves it in memory.
Ref update(PyObject* self, PyObject* table_name, PyObject* row_id, PyObject* new_data);

}  // namespace jdb::store
