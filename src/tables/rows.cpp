// Python code may put any object in the place of a row or of the list of rows. What is not exactly a list is walked by
// the iterator protocol.
#include "tables/rows.h"

#include <cassert>

namespace jdb {

bool holds_only_none(PyObject* row) {
    if (PyList_CheckExact(row)) {
        // No Python code runs in here, so the row can't change.
        const Py_ssize_t size = PyList_GET_SIZE(row);
        for (Py_ssize_t i = 0; i < size; ++i) {
            if (PyList_GET_ITEM(row, i) != Py_None) return false;
        }
        return true;
    }
    for (const Ref& value : Iteration(row)) {
        if (value != Py_None) return false;
    }
    return true;
}

Ref make_row(PyObject* table, PyObject* values) {
    Ref row = new_list();
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        const Ref value = get_item(values, name);
        append(row, value);
    }
    return row;
}

Ref make_tombstone(PyObject* columns) {
    const Py_ssize_t size = length(columns);
    Ref row = Ref::steal(python(PyList_New, size));
    for (Py_ssize_t i = 0; i < size; ++i) {
        PyList_SET_ITEM(static_cast<PyObject*>(row), i, Ref::none().release());
    }
    return row;
}

bool has_row(PyObject* rows, PyObject* row_id, Py_ssize_t& position) {
    assert(PyLong_CheckExact(row_id));
    int overflow = 0;
    const long long id = PyLong_AsLongLongAndOverflow(row_id, &overflow);
    if (id < 0 || overflow != 0) return false;
    if (id >= length(rows)) return false;
    position = static_cast<Py_ssize_t>(id);
    return true;
}

}  // namespace jdb
