// Conversions between the two forms of a row. They change nothing but what they return.
#include "query/convert.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "tables/fields.h"
#include "tables/loaded_indexes.h"
#include "tables/rows.h"
#include "tables/scan.h"

namespace jdb::query {
namespace {

// The row id listed first under the value of a unique column that the data has; an empty Ref when none is listed.
Ref find_by_unique_value(PyObject* table, PyObject* data) {
    const Ref nothing_listed = new_dict();
    const Ref columns = get_field(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref unique = get_field(column, names::unique);
        if (!truth(unique)) continue;
        const Ref name = get_field(column, names::name);
        const Ref value = find_item(data, name);
        if (!value) continue;
        const Ref indexes = get_field(table, names::indexes);
        const Ref index = get(indexes, name, nothing_listed);
        const Ref ids = item_if_key(index, value);
        if (ids) return get_item(ids, Py_ssize_t{0});
    }
    return {};
}

struct Wanted {
    Ref key;
    Ref value;
    std::optional<Py_ssize_t> position;  // of its column, -1 for none; looked up at the first row that needs it
};

Py_ssize_t first_position(PyObject* table, PyObject* key) {
    Py_ssize_t position = 0;
    const Ref columns = get_field(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_field(column, names::name);
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

// The fast road past rows that are certain not to match: the first position from `start` on whose row needs a
// closer look, or where this stretch of the walk ends. It is open while reading the columns runs no host code.
Py_ssize_t skip_unmatched(PyObject* table, PyObject* rows, const std::vector<Wanted>& entries, Py_ssize_t start) {
    const ScanColumns* columns = ScanColumns::of(table);
    if (columns == nullptr) return start;
    std::vector<Condition> conditions;
    for (const Wanted& wanted : entries) {
        if (!PyUnicode_CheckExact(wanted.key)) return start;
        const Py_ssize_t position = columns->first(wanted.key);
        conditions.push_back({position < 0 ? Condition::kNeverHolds : position, wanted.value});
    }
    const Py_ssize_t looked_at = conditions.empty() ? 0 : std::max<Py_ssize_t>(conditions.front().position, 0);
    Py_ssize_t i = start;
    for (const Py_ssize_t end = stretch_end(rows, start); i < end; ++i) {
        prefetch_rows(rows, i, looked_at);
        PyObject* row = PyList_GET_ITEM(rows, i);
        if (!is_wide_enough(row, columns->count())) break;
        if (!is_deleted(row) && match_plain(row, conditions) != Equality::unequal) break;
    }
    return i;
}

Ref find_by_scan(PyObject* table, PyObject* rows, std::vector<Wanted>& entries) {
    if (!PyList_CheckExact(rows)) {
        Py_ssize_t row_id = -1;
        for (const Ref& row : Iteration(rows)) {
            ++row_id;
            if (!is_deleted(row) && matches(table, row, entries)) return integer(row_id);
        }
        return Ref::none();
    }
    for (Py_ssize_t row_id = 0;; ++row_id) {
        row_id = skip_unmatched(table, rows, entries, row_id);
        if (row_id >= PyList_GET_SIZE(rows)) return Ref::none();
        const Ref row = get_item(rows, row_id);
        if (!is_deleted(row) && matches(table, row, entries)) return integer(row_id);
        check(PyErr_CheckSignals());
    }
}

}  // namespace

Ref row_to_dict(PyObject* /*self*/, PyObject* table, PyObject* row, PyObject* columns) {
    if (columns == Py_None) {
        Ref plain = make_plain_dict(table, row);
        if (plain) return plain;
    }
    Ref row_dict = new_dict();
    Py_ssize_t position = -1;
    const Ref table_columns = get_field(table, names::columns);
    for (const Ref& column : Iteration(table_columns)) {
        ++position;
        const Ref name = get_field(column, names::name);
        if (columns != Py_None && !contains(columns, name)) continue;
        const Ref value = get_item(row, position);
        set_item(row_dict, name, value);
    }
    return row_dict;
}

Ref project_row(PyObject* /*self*/, PyObject* row_dict, PyObject* columns) {
    if (columns == Py_None) return Ref::steal(PyDict_Copy(row_dict));
    Ref projected = new_dict();
    for (const Ref& name : Iteration(columns)) {
        const Ref value = find_item(row_dict, name);
        if (value) set_item(projected, name, value);
    }
    return projected;
}

Ref dict_to_row_id(PyObject* /*self*/, PyObject* table, PyObject* data) {
    const Ref rows = get_field(table, names::rows);
    if (!truth(rows)) return Ref::none();
    settle_indexes(table);
    Ref listed = find_by_unique_value(table, data);
    if (listed) return listed;

    std::vector<Wanted> entries;
    const Ref items = Ref::steal(PyDict_Items(data));
    for (const Ref& item : Iteration(items)) {
        entries.push_back({get_item(item, Py_ssize_t{0}), get_item(item, Py_ssize_t{1}), {}});
    }
    const Ref current_rows = get_field(table, names::rows);
    return find_by_scan(table, current_rows, entries);
}

}  // namespace jdb::query
