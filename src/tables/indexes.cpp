// Marking, rebuilding, building and looking up indexes. A rebuilt table gets its new indexes when they are complete,
// and then loses the mark. An index built by name is in place from the start.
#include "tables/indexes.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "cpython310/compare.h"
#include "cpython310/own_fields.h"
#include "host/collector.h"
#include "tables/known_table.h"
#include "tables/rows.h"
#include "tables/walk.h"

namespace jdb {
namespace {

// ---- Rebuilding ----

struct IndexedColumn {
    Py_ssize_t position;
    Ref index;
};

bool is_hashable(PyObject* value) {
    if (python(PyObject_Hash, value) != -1) return true;
    if (PyErr_ExceptionMatches(PyExc_TypeError) == 0) throw PythonError{};
    python(PyErr_Clear);
    return false;
}

void add_empty(PyObject* indexes, PyObject* name) {
    const Ref index = new_dict();
    set_default(indexes, name, index);
}

// An empty index for each column that is to have one: those that are marked, in their order, then unique columns that
// lack one.
Ref empty_indexes(PyObject* columns, PyObject* marked) {
    const Ref wanted = new_dict();  // a set of names in their order: name to None
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        const Ref unique = get_attribute(column, names::unique);
        if (truth(unique) || (PyDict_Check(marked) && contains(marked, name))) set_item(wanted, name, Py_None);
    }
    Ref indexes = new_dict();
    if (PyDict_Check(marked)) {
        for (const Ref& name : Iteration(marked)) {
            if (contains(wanted, name)) add_empty(indexes, name);
        }
    }
    for (const Ref& name : Iteration(wanted)) add_empty(indexes, name);
    return indexes;
}

// The columns whose values are listed: all that have an index, also where several share a name.
std::vector<IndexedColumn> indexed_columns(PyObject* columns, PyObject* indexes) {
    std::vector<IndexedColumn> indexed;
    Py_ssize_t position = 0;
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        Ref index = find_item(indexes, name);
        if (index) indexed.push_back({position, std::move(index)});
        ++position;
    }
    return indexed;
}

void list_values(const std::vector<IndexedColumn>& indexed, PyObject* row, PyObject* row_id) {
    for (const IndexedColumn& column : indexed) {
        if (!is_wide_enough(row, column.position + 1)) continue;
        const Ref value = get_item(row, column.position);
        if (!is_hashable(value)) continue;
        const Ref first = new_list(row_id);
        const Ref ids = set_default(column.index, value, first);
        if (ids != first) append(ids, row_id);
    }
}

bool has_plain_values(const std::vector<IndexedColumn>& indexed, PyObject* row) {
    return std::all_of(indexed.begin(), indexed.end(), [&](const IndexedColumn& column) {
        return !is_wide_enough(row, column.position + 1) || has_plain_type(PyList_GET_ITEM(row, column.position));
    });
}

void list_row(const std::vector<IndexedColumn>& indexed, PyObject* row, Py_ssize_t id) {
    if (is_deleted(row)) return;
    const Ref row_id = integer(id);
    list_values(indexed, row, row_id);
}

// Rows of plain values are listed in stretches that run no Python code, and therefore with the collector paused, which
// would go through the new lists time and again. A rebuild of 100,000 rows then takes a quarter to a third of the time.
Ref rebuild(PyObject* table, PyObject* marked) {
    const Ref columns = get_attribute(table, names::columns);
    Ref indexes = empty_indexes(columns, marked);
    const std::vector<IndexedColumn> indexed = indexed_columns(columns, indexes);
    if (indexed.empty()) return indexes;

    bool plain = true;  // all keys listed so far are
    const auto list_plain_rows = [&](PyObject* rows, Py_ssize_t id, Py_ssize_t end) {
        const CollectorPaused paused;
        for (; plain && id < end; ++id) {
            PyObject* row = PyList_GET_ITEM(rows, id);
            if (!PyList_CheckExact(row) || !has_plain_values(indexed, row)) break;
            list_row(indexed, row, id);
        }
        return id;
    };
    const auto list_any_row = [&](PyObject* row, Py_ssize_t id) {
        plain = plain && (!PyList_CheckExact(row) || has_plain_values(indexed, row));
        if (PyList_CheckExact(row)) list_row(indexed, row, id);
        return false;
    };
    const Ref rows = get_attribute(table, names::rows);
    walk_rows(rows, list_plain_rows, list_any_row);
    return indexes;
}

// ---- Building one index ----

// The position of the last column of that name, -1 when there is none.
Py_ssize_t last_position(PyObject* columns, PyObject* column_name) {
    Py_ssize_t found = -1;
    Py_ssize_t position = 0;
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        if (equal(name, column_name)) found = position;
        ++position;
    }
    return found;
}

void list_value(PyObject* table, PyObject* column_name, PyObject* value, Py_ssize_t row_id) {
    const Ref indexes = get_attribute(table, names::indexes);
    const Ref index = get_item(indexes, column_name);
    if (!contains(index, value)) {
        const Ref ids = new_list();
        set_item(index, value, ids);
    }
    const Ref ids = get_item(index, value);
    const Ref id = integer(row_id);
    append(ids, id);
}

}  // namespace

void mark_indexes(PyObject* table) {
    PyObject* own = own_dict(table);
    if (own == nullptr) return;
    const Ref dict = Ref::borrow(own);
    const Ref indexes = find_item(dict, names::indexes);
    if (indexes) set_item(dict, names::indexes_to_rebuild, indexes);
}

Ref settle_indexes(PyObject* table) {
    make_pending_marks();
    const KnownTable* known = KnownTable::of(table);
    if (known != nullptr && known->has_settled_indexes()) return Ref::borrow(known->indexes());
    Ref current = get_attribute(table, names::indexes);
    PyObject* own = own_dict(table);
    if (own == nullptr) return current;
    const Ref dict = Ref::borrow(own);
    const Ref marked = find_item(dict, names::indexes_to_rebuild);
    if (!marked) return current;
    if (current == marked) {
        current = rebuild(table, marked);
        set_attribute(table, names::indexes, current);
    }
    if (contains(dict, names::indexes_to_rebuild)) check(python(PyDict_DelItem, dict, names::indexes_to_rebuild));
    return current;
}

void build_index(PyObject* table, PyObject* column_name) {
    const Ref indexes = get_attribute(table, names::indexes);
    const Ref empty = new_dict();
    set_item(indexes, column_name, empty);
    // The columns' names are read at the first row that needs them: a table without rows may have anything as columns.
    std::optional<Py_ssize_t> position;
    Py_ssize_t row_id = -1;
    const Ref rows = get_attribute(table, names::rows);
    for (const Ref& row : Iteration(rows)) {
        ++row_id;
        if (is_deleted(row)) continue;
        if (!position) {
            const Ref columns = get_attribute(table, names::columns);
            position = last_position(columns, column_name);
        }
        const Ref value = *position < 0 ? Ref::none() : get_item(row, *position);
        list_value(table, column_name, value, row_id);
    }
}

Ref find_unique_value(PyObject* table, PyObject* data) {
    const Ref nothing_listed = new_dict();
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref unique = get_attribute(column, names::unique);
        if (!truth(unique)) continue;
        const Ref name = get_attribute(column, names::name);
        const Ref value = find_item(data, name);
        if (!value) continue;
        const Ref indexes = get_attribute(table, names::indexes);
        const Ref index = get(indexes, name, nothing_listed);
        const Ref ids = item_if_key(index, value);
        if (ids) return get_item(ids, Py_ssize_t{0});
    }
    return {};
}

}  // namespace jdb
