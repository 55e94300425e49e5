// Adding a row.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Validates the data, appends the row, lists it in the indexes, saves. The new row's id. A failing index addition takes
// the row back; a failing save leaves it in memory.
Ref insert(PyObject* self, PyObject* table_name, PyObject* data);

}  // namespace jdb::store
