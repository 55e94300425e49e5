// The two roads of select, and get_row. They read only; an error drops what was found so far.
#include "query/select.h"

#include "records/database.h"
#include "records/loaded_indexes.h"
#include "records/rows.h"

namespace jdb::query {
namespace {

bool is_limited(PyObject* limit) { return limit != Py_None && truth(limit); }

// A limit beyond a machine word cuts off as much as the nearest one within.
Py_ssize_t clamped(PyObject* limit) { return PyNumber_AsSsize_t(limit, nullptr); }

struct Condition {
    Ref name;
    Ref value;
};

// `results[:limit]`
Ref cut(const Ref& results, PyObject* limit) {
    if (!is_limited(limit)) return results;
    Py_ssize_t end = clamped(limit);
    if (end < 0) end += length(results);
    return Ref::steal(PyList_GetSlice(results, 0, end));
}

Ref select_listed(PyObject* self, PyObject* table, PyObject* index, PyObject* value, PyObject* columns) {
    Ref results = new_list();
    if (!contains(index, value)) return results;
    const Ref ids = get_item(index, value);
    for (const Ref& id : Iteration(ids)) {
        const Ref rows = get_attribute(table, names::rows);
        const Ref row = get_item(rows, id);
        if (is_deleted(row)) continue;
        const Ref row_dict = call_method(self, names::row_to_dict, {table, row, columns});
        append(results, row_dict);
    }
    return results;
}

bool holds(PyObject* row_dict, PyObject* conditions) {
    if (conditions == Py_None) return true;
    const Ref items = Ref::steal(PyDict_Items(conditions));
    for (const Ref& item : Iteration(items)) {
        const Ref name = get_item(item, Py_ssize_t{0});
        const Ref value = get_item(item, Py_ssize_t{1});
        const Ref stored = get(row_dict, name);
        if (unequal(stored, value)) return false;
    }
    return true;
}

Ref select_scanned(PyObject* self, PyObject* table, PyObject* conditions, PyObject* columns, PyObject* limit) {
    Ref results = new_list();
    const Ref rows = get_attribute(table, names::rows);
    for (const Ref& row : Iteration(rows)) {
        if (is_deleted(row)) continue;
        const Ref row_dict = call_method(self, names::row_to_dict, {table, row});
        if (!holds(row_dict, conditions)) continue;
        const Ref projected = call_method(self, names::project_row, {row_dict, columns});
        append(results, projected);
        if (is_limited(limit) && length(results) >= clamped(limit)) break;
    }
    return results;
}

}  // namespace

Ref select(PyObject* self, PyObject* table_name, PyObject* conditions, PyObject* columns, PyObject* limit) {
    const Ref table = require_table(self, table_name);
    if (conditions != Py_None && PyDict_GET_SIZE(conditions) == 1) {
        settle_indexes(table);
        const Ref items = Ref::steal(PyDict_Items(conditions));
        const Ref only = get_item(items, Py_ssize_t{0});
        const Ref name = get_item(only, Py_ssize_t{0});
        const Ref value = get_item(only, Py_ssize_t{1});
        const Ref indexes = get_attribute(table, names::indexes);
        if (contains(indexes, name)) {
            const Ref index = get_item(indexes, name);
            return cut(select_listed(self, table, index, value, columns), limit);
        }
    }
    return select_scanned(self, table, conditions, columns, limit);
}

Ref get_row(PyObject* self, PyObject* table_name, PyObject* row_id) {
    const Ref table = require_table(self, table_name);
    Py_ssize_t position = 0;
    const Ref rows = get_attribute(table, names::rows);
    if (!has_row(rows, row_id, position)) {
        const Ref id_text = text_of(row_id);
        raise(PyExc_IndexError, "Row index (%U) out of range", static_cast<PyObject*>(id_text));
    }
    const Ref row = get_item(rows, position);
    if (is_deleted(row)) raise(PyExc_ValueError, "Row has been deleted");
    Ref row_dict = call_method(self, names::row_to_dict, {table, row});
    if (!PyDict_Check(row_dict) && row_dict != Py_None) {
        raise(PyExc_TypeError, "Expected %s, got %.200s", "dict", Py_TYPE(row_dict)->tp_name);
    }
    return row_dict;
}

}  // namespace jdb::query
