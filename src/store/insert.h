// Adding a row.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Validates the data, appends the row, lists it in the indexes, saves. The new row's id. ValueError for an unknown
// table or refused data. An error before the save undoes the insertion; an error of the save leaves the row in memory.
Ref insert(PyObject* self, PyObject* table_name, PyObject* data);

}  // namespace jdb::store
