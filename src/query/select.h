// Reading rows.
#pragma once

#include "host/ref.h"

namespace jdb::query {

// A list of the rows that have every condition's value, as dictionaries. A single condition on an indexed column is
// answered from the index, everything else by a scan; the two differ in the order of a dictionary's keys and in what a
// negative limit means. ValueError for an unknown table.
Ref select(PyObject* self, PyObject* table_name, PyObject* conditions, PyObject* columns, PyObject* limit);

// One row as a dictionary. ValueError for an unknown table or a deleted row, IndexError for no such row.
Ref get_row(PyObject* self, PyObject* table_name, PyObject* row_id);

}  // namespace jdb::query
