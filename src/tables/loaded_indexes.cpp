// The mark and the rebuilding. The new indexes are complete before the table gets them and loses its mark.
#include "tables/loaded_indexes.h"

#include <vector>

#include "tables/fields.h"
#include "tables/rows.h"

namespace jdb {
namespace {

// The object's own dictionary, an empty Ref where it has none (another class may stand in for Table).
Ref own_dict(PyObject* object) {
    PyObject** dict = _PyObject_GetDictPtr(object);
    return dict == nullptr || *dict == nullptr ? Ref{} : Ref::borrow(*dict);
}

struct IndexedColumn {
    Py_ssize_t position;
    Ref index;
};

bool is_hashable(PyObject* value) {
    if (PyObject_Hash(value) != -1) return true;
    if (PyErr_ExceptionMatches(PyExc_TypeError) == 0) throw PythonError{};
    PyErr_Clear();
    return false;
}

void list_row(PyObject* index, PyObject* value, PyObject* row_id) {
    const Ref first = new_list(row_id);
    const Ref ids = set_default(index, value, first);
    if (ids != first) append(ids, row_id);
}

// An empty index for each column that is to have one, in column order.
Ref empty_indexes(PyObject* columns, PyObject* as_read) {
    Ref indexes = new_dict();
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_field(column, names::name);
        const Ref unique = get_field(column, names::unique);
        if (!truth(unique) && !(PyDict_Check(as_read) && contains(as_read, name))) continue;
        const Ref index = new_dict();
        set_item(indexes, name, index);
    }
    return indexes;
}

// The columns whose values are listed; of several with one name, each.
std::vector<IndexedColumn> indexed_columns(PyObject* columns, PyObject* indexes) {
    std::vector<IndexedColumn> indexed;
    Py_ssize_t position = 0;
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_field(column, names::name);
        Ref index = find_item(indexes, name);
        if (index) indexed.push_back({position, std::move(index)});
        ++position;
    }
    return indexed;
}

Ref rebuild(PyObject* table, PyObject* as_read) {
    const Ref columns = get_field(table, names::columns);
    Ref indexes = empty_indexes(columns, as_read);
    const std::vector<IndexedColumn> indexed = indexed_columns(columns, indexes);
    if (indexed.empty()) return indexes;
    Py_ssize_t id = 0;
    const Ref rows = get_field(table, names::rows);
    for (const Ref& row : Iteration(rows)) {
        if (PyList_CheckExact(static_cast<PyObject*>(row)) && !is_deleted(row)) {
            const Ref row_id = integer(id);
            for (const IndexedColumn& column : indexed) {
                if (column.position >= PyList_GET_SIZE(static_cast<PyObject*>(row))) continue;
                const Ref value = get_item(row, column.position);
                if (is_hashable(value)) list_row(column.index, value, row_id);
            }
        }
        ++id;
    }
    return indexes;
}

}  // namespace

void mark_indexes_as_read(PyObject* table) {
    const Ref dict = own_dict(table);
    if (!dict) return;
    const Ref indexes = find_item(dict, names::indexes);
    if (indexes) set_item(dict, names::indexes_as_read, indexes);
}

void settle_indexes(PyObject* table) {
    static Stamp known_settled;
    const Stamp stamp = stamp_of(table);
    if (stamp.type != 0 && stamp == known_settled) return;
    const Ref dict = own_dict(table);
    if (!dict) return;
    const Ref as_read = find_item(dict, names::indexes_as_read);
    if (!as_read) {
        known_settled = stamp;
        return;
    }
    const Ref current = get_field(table, names::indexes);
    if (current == as_read) {
        const Ref indexes = rebuild(table, as_read);
        set_attribute(table, names::indexes, indexes);
    }
    if (contains(dict, names::indexes_as_read)) check(PyDict_DelItem(dict, names::indexes_as_read));
}

}  // namespace jdb
