// Reading rows.
#pragma once

#include "host/ref.h"

namespace jdb::query {

// The rows that hold every condition's value, as dictionaries. A single condition on an indexed column is answered
// from the index, all else by a scan; the two differ in the order of keys and in what a negative limit means.
Ref select(PyObject* self, PyObject* table_name, PyObject* conditions, PyObject* columns, PyObject* limit);

// One row as a dictionary. IndexError for no such row, ValueError for a deleted one.
Ref get_row(PyObject* self, PyObject* table_name, PyObject* row_id);

}  // namespace jdb::query
