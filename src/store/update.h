// Replacing a row's values.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Replaces the whole row by validated data and saves. True; IndexError when there is no such row. The row's old values
// are out of the indexes while the new ones are validated; any failure before the save puts all back.
Ref update(PyObject* self, PyObject* table_name, PyObject* row_id, PyObject* new_data);

}  // namespace jdb::store
