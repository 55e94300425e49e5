// Conversions between rows and dictionaries. Only dict_to_row_id changes anything: it rebuilds marked indexes.
#include "query/convert.h"

#include <algorithm>
#include <cassert>
#include <optional>
#include <utility>
#include <vector>

#include "host/collector.h"
#include "tables/indexes.h"
#include "tables/known_table.h"
#include "tables/rows.h"
#include "tables/walk.h"

namespace jdb::query {
namespace {

struct Wanted {
    Ref key;
    Ref value;
    std::optional<Py_ssize_t> position;  // of its column, -1 for none; found at the first row that needs it
};

Py_ssize_t first_position(PyObject* table, PyObject* key) {
    Py_ssize_t position = 0;
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        if (equal(name, key)) return position;
        ++position;
    }
    return -1;
}

bool matches(PyObject* table, PyObject* row, std::vector<Wanted>& entries) {
    for (Wanted& wanted : entries) {
        if (!wanted.position) wanted.position = first_position(table, wanted.key);
        if (*wanted.position < 0) return false;
        const Ref stored = get_item(row, *wanted.position);
        if (unequal(stored, wanted.value)) return false;
    }
    return true;
}

// The filter of the fast path. It has the entries before the first whose key is not exactly a str or names no column:
// a row that misses one of these is not looked at further on the slow path either.
RowFilter filter_of(const KnownTable& known, const std::vector<Wanted>& entries) {
    std::vector<Condition> conditions;
    Py_ssize_t width = 0;
    for (const Wanted& wanted : entries) {
        const Py_ssize_t position =
            PyUnicode_CheckExact(static_cast<PyObject*>(wanted.key)) ? known.first(wanted.key) : -1;
        if (position < 0) break;
        width = std::max(width, position + 1);
        conditions.push_back({position, wanted.value});
    }
    return {std::move(conditions), width};
}

Ref find_by_scan(PyObject* table, PyObject* rows, std::vector<Wanted>& entries) {
    const KnownTable* known = KnownTable::of(table);
    std::optional<RowFilter> filter;
    if (known != nullptr) filter = filter_of(*known, entries);
    Ref found;
    walk_rows(
        rows,
        [&](PyObject* list, Py_ssize_t start, Py_ssize_t end) {
            return filter ? filter->skip(list, start, end).position : start;
        },
        [&](PyObject* row, Py_ssize_t row_id) {
            if (is_deleted(row) || !matches(table, row, entries)) return false;
            found = integer(row_id);
            return true;
        });
    return found ? found : Ref::none();
}

// The fast path of row_to_dict for all columns; an empty Ref where it is closed, as Python code could run.
Ref plain_row_to_dict(PyObject* table, PyObject* row) {
    KnownTable* known = KnownTable::of(table);
    if (known == nullptr || !is_wide_enough(row, known->column_count())) return {};
    const CollectorPaused paused;
    return known->row_dicts().make(row);
}

}  // namespace

Ref row_to_dict(PyObject* /*self*/, PyObject* table, PyObject* row, PyObject* columns) {
    assert(PyList_CheckExact(row));
    if (columns == Py_None) {
        Ref row_dict = plain_row_to_dict(table, row);
        if (row_dict) return row_dict;
    }
    Ref row_dict = new_dict();
    Py_ssize_t position = -1;
    const Ref table_columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(table_columns)) {
        ++position;
        if (columns != Py_None) {
            const Ref name = get_attribute(column, names::name);
            if (!contains(columns, name)) continue;
        }
        const Ref value = get_item(row, position);
        const Ref name = get_attribute(column, names::name);
        set_item(row_dict, name, value);
    }
    return row_dict;
}

Ref project_row(PyObject* /*self*/, PyObject* row_dict, PyObject* columns) {
    if (columns == Py_None) return Ref::steal(python(PyDict_Copy, row_dict));
    Ref projected = new_dict();
    for (const Ref& name : Iteration(columns)) {
        const Ref value = find_item(row_dict, name);
        if (value) set_item(projected, name, value);
    }
    return projected;
}

Ref dict_to_row_id(PyObject* /*self*/, PyObject* table, PyObject* data) {
    const Ref rows = get_attribute(table, names::rows);
    if (!truth(rows)) return Ref::none();
    settle_indexes(table);
    Ref listed = find_unique_value(table, data);
    if (listed) return listed;

    std::vector<Wanted> entries;
    const Ref items = Ref::steal(python(PyDict_Items, data));
    for (const Ref& item : Iteration(items)) {
        entries.push_back({get_item(item, Py_ssize_t{0}), get_item(item, Py_ssize_t{1}), {}});
    }
    const Ref current_rows = get_attribute(table, names::rows);
    return find_by_scan(table, current_rows, entries);
}

}  // namespace jdb::query
