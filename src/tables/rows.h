// Rows as a table holds them: lists of values in column order, addressed by their position, a deleted one all None.
#pragma once

#include "host/object.h"

namespace jdb {

// Whether every value of the row is None, by asking each; so is an empty row's.
bool holds_only_none(PyObject* row);

// Whether the row counts as deleted. Most rows tell by their first value.
inline bool is_deleted(PyObject* row) {
    const bool first_tells = PyList_CheckExact(row) && PyList_GET_SIZE(row) > 0 && PyList_GET_ITEM(row, 0) != Py_None;
    return !first_tells && holds_only_none(row);
}

// Whether the row is a list that holds a value for each of that many columns, which can then be read by position.
inline bool is_wide_enough(PyObject* row, Py_ssize_t columns) {
    return PyList_CheckExact(row) && PyList_GET_SIZE(row) >= columns;
}

// A new row of the values that a dictionary gives for the table's columns, in column order; KeyError when one is
// missing.
Ref make_row(PyObject* table, PyObject* values);

// A new row of None, one for each of the columns.
Ref make_tombstone(PyObject* columns);

// Whether the id, exactly an int of any size, is a position in `rows`. Then `position` is set to it.
bool has_row(PyObject* rows, PyObject* row_id, Py_ssize_t& position);

}  // namespace jdb
