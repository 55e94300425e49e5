// Conversions between the two forms of a row. They change nothing but what they return.
#include "query/convert.h"

#include <optional>
#include <utility>
#include <vector>

#include "records/loaded_indexes.h"
#include "records/rows.h"

namespace jdb::query {
namespace {

// The row id listed first under the value of a unique column that the data has; an empty Ref when none is listed.
Ref find_by_unique_value(PyObject* table, PyObject* data) {
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref unique = get_attribute(column, names::unique);
        if (!truth(unique)) continue;
        const Ref name = get_attribute(column, names::name);
        const Ref value = find_item(data, name);
        if (!value) continue;
        const Ref indexes = get_attribute(table, names::indexes);
        if (!contains(indexes, name)) continue;
        const Ref index = get_item(indexes, name);
        if (!contains(index, value)) continue;
        const Ref ids = get_item(index, value);
        return get_item(ids, Py_ssize_t{0});
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

}  // namespace

Ref row_to_dict(PyObject* /*self*/, PyObject* table, PyObject* row, PyObject* columns) {
    Ref row_dict = new_dict();
    Py_ssize_t position = -1;
    const Ref table_columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(table_columns)) {
        ++position;
        const Ref name = get_attribute(column, names::name);
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
    const Ref rows = get_attribute(table, names::rows);
    if (!truth(rows)) return Ref::none();
    settle_indexes(table);
    Ref listed = find_by_unique_value(table, data);
    if (listed) return listed;

    std::vector<Wanted> entries;
    const Ref items = Ref::steal(PyDict_Items(data));
    for (const Ref& item : Iteration(items)) {
        entries.push_back({get_item(item, Py_ssize_t{0}), get_item(item, Py_ssize_t{1}), {}});
    }
    Py_ssize_t row_id = -1;
    const Ref current_rows = get_attribute(table, names::rows);
    for (const Ref& row : Iteration(current_rows)) {
        ++row_id;
        if (!is_deleted(row) && matches(table, row, entries)) return integer(row_id);
    }
    return Ref::none();
}

}  // namespace jdb::query
