// Rows as a table has them: lists of values in column order. A row's id is its position; a deleted row is all None.
#pragma once

#include "host/object.h"

namespace jdb {

// Whether every value of the row is None; true for an empty row.
bool holds_only_none(PyObject* row);

// Whether the row's first value shows that it isn't deleted.
inline bool is_certainly_kept(PyObject* row) {
    return PyList_CheckExact(row) && PyList_GET_SIZE(row) > 0 && PyList_GET_ITEM(row, 0) != Py_None;
}

// Whether the row counts as deleted.
inline bool is_deleted(PyObject* row) { return !is_certainly_kept(row) && holds_only_none(row); }

// Whether the row is exactly a list with a value for each of that many columns, to be read by position.
inline bool is_wide_enough(PyObject* row, Py_ssize_t columns) {
    return PyList_CheckExact(row) && PyList_GET_SIZE(row) >= columns;
}

// A new row of the values that a mapping has for the table's columns, in column order. KeyError when one is missing.
Ref make_row(PyObject* table, PyObject* values);

// A new row with None for each of the columns.
Ref make_tombstone(PyObject* columns);

// Whether the id, exactly an int of any size, is the position of a row; if so, `position` is set to it.
bool has_row(PyObject* rows, PyObject* row_id, Py_ssize_t& position);

}  // namespace jdb
