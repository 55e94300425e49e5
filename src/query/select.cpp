// The two roads of select, and get_row. They read only; an error drops what was found so far.
#include "query/select.h"

#include <algorithm>
#include <optional>
#include <utility>
#include <vector>

#include "host/collector.h"
#include "query/convert.h"
#include "tables/database.h"
#include "tables/fields.h"
#include "tables/loaded_indexes.h"
#include "tables/rows.h"
#include "tables/scan.h"

namespace jdb::query {
namespace {

bool is_limited(PyObject* limit) { return limit != Py_None && truth(limit); }

// A limit beyond a machine word cuts off as much as the nearest one within.
Py_ssize_t clamped(PyObject* limit) { return PyNumber_AsSsize_t(limit, nullptr); }

// `results[:limit]`
Ref cut(const Ref& results, PyObject* limit) {
    if (!is_limited(limit)) return results;
    Py_ssize_t end = clamped(limit);
    if (end < 0) end += length(results);
    return Ref::steal(PyList_GetSlice(results, 0, end));
}

// Whether self._row_to_dict may be called directly: nobody has redefined it, and the boundary before it would let the
// row pass.
bool converts_plainly(PyObject* self, PyObject* row) {
    return PyList_CheckExact(row) && has_original(self, names::row_to_dict);
}

std::pair<Ref, Ref> only_condition(PyObject* conditions) {
    Py_ssize_t at = 0;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    PyDict_Next(conditions, &at, &name, &value);
    return {Ref::borrow(name), Ref::borrow(value)};
}

Ref select_listed(PyObject* self, PyObject* table, PyObject* index, PyObject* value, PyObject* columns) {
    Ref results = new_list();
    const Ref ids = get(index, value, results);
    if (ids == results) return results;
    for (const Ref& id : Iteration(ids)) {
        const Ref rows = get_field(table, names::rows);
        const Ref row = get_item(rows, id);
        if (is_deleted(row)) continue;
        const Ref row_dict = converts_plainly(self, row) ? row_to_dict(self, table, row, columns)
                                                         : call_method(self, names::row_to_dict, {table, row, columns});
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

struct Query {
    PyObject* self;
    PyObject* table;
    PyObject* conditions;
    PyObject* columns;
};

// What a scan has found; it is full as soon as a row added reaches the limit, a negative limit being reached by
// the first.
class Results {
public:
    explicit Results(PyObject* limit)
        : list_(new_list()), limited_(is_limited(limit)), limit_(limited_ ? clamped(limit) : 0) {}

    void add(PyObject* row_dict) {
        append(list_, row_dict);
        full_ = limited_ && length(list_) >= limit_;
    }
    [[nodiscard]] bool full() const { return full_; }
    [[nodiscard]] const Ref& list() const { return list_; }

private:
    Ref list_;
    bool limited_;
    Py_ssize_t limit_;
    bool full_ = false;
};

// One row's part of a scan by the defining steps, each a method of the object.
void select_row(const Query& query, PyObject* row, Results& results) {
    if (is_deleted(row)) return;
    const Ref row_dict = call_method(query.self, names::row_to_dict, {query.table, row});
    if (!holds(row_dict, query.conditions)) return;
    const Ref projected = call_method(query.self, names::project_row, {row_dict, query.columns});
    results.add(projected);
}

// The conditions by position; nothing where a name is not exactly a string.
std::optional<std::vector<Condition>> plain_conditions(const Query& query, const ScanColumns& columns) {
    std::vector<Condition> result;
    if (query.conditions == Py_None) return result;
    Py_ssize_t at = 0;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(query.conditions, &at, &name, &value) != 0) {
        if (!PyUnicode_CheckExact(name)) return std::nullopt;
        // -1, no such column, is kHoldsNone.
        result.push_back({columns.last(name), Ref::borrow(value)});
    }
    return result;
}

bool are_plain_names(PyObject* names) {
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names); ++i) {
        if (!PyUnicode_CheckExact(PyList_GET_ITEM(names, i))) return false;
    }
    return true;
}

// The fast road's condition: no method that a scan calls for each row is redefined. That the records, names and
// values are plain is seen while they are read.
bool may_scan_in_place(const Query& query) {
    return has_original(query.self, names::row_to_dict) && has_original(query.self, names::project_row) &&
           (query.columns == Py_None || are_plain_names(query.columns));
}

// Scans a stretch from `start` on, as far as that runs no host code: the position of the first row not dealt with.
Py_ssize_t scan_in_place(const Query& query, PyObject* rows, Py_ssize_t start, Results& results) {
    if (!may_scan_in_place(query)) return start;
    ScanColumns* columns = ScanColumns::of(query.table);
    if (columns == nullptr) return start;
    const auto conditions = plain_conditions(query, *columns);
    if (!conditions) return start;

    const CollectorPaused paused;
    std::optional<RowShape> projection;
    if (query.columns != Py_None) projection = columns->project(query.columns);
    RowShape& shape = projection ? *projection : columns->shape();
    const Py_ssize_t looked_at = conditions->empty() ? 0 : std::max<Py_ssize_t>(conditions->front().position, 0);
    const Py_ssize_t values = conditions->empty() ? columns->count() : 1;
    Py_ssize_t i = start;
    for (const Py_ssize_t end = stretch_end(rows, start); i < end && !results.full(); ++i) {
        prefetch_rows(rows, i, looked_at, values);
        PyObject* row = PyList_GET_ITEM(rows, i);
        if (!is_wide_enough(row, columns->count())) break;
        const Equality match = match_plain(row, *conditions);
        if (match == Equality::unequal || is_deleted(row)) continue;
        if (match == Equality::unknown) break;
        const Ref row_dict = shape.make_dict(row);
        results.add(row_dict);
    }
    return i;
}

Ref select_scanned(const Query& query, PyObject* limit) {
    Results results(limit);
    const Ref rows = get_field(query.table, names::rows);
    if (!PyList_CheckExact(rows)) {
        for (const Ref& row : Iteration(rows)) {
            select_row(query, row, results);
            if (results.full()) break;
        }
        return results.list();
    }
    PyObject* list = rows;
    for (Py_ssize_t i = 0;; ++i) {
        i = scan_in_place(query, rows, i, results);
        if (results.full() || i >= PyList_GET_SIZE(list)) return results.list();
        const Ref row = get_item(rows, i);
        select_row(query, row, results);
        if (results.full()) return results.list();
        check(PyErr_CheckSignals());
    }
}

}  // namespace

Ref select(PyObject* self, PyObject* table_name, PyObject* conditions, PyObject* columns, PyObject* limit) {
    const Ref table = require_table(self, table_name);
    if (conditions != Py_None && PyDict_GET_SIZE(conditions) == 1) {
        // Taken before host code may run and empty the dictionary.
        const auto [name, value] = only_condition(conditions);
        settle_indexes(table);
        const Ref indexes = get_field(table, names::indexes);
        const Ref index = item_if_key(indexes, name);
        if (index) {
            return cut(select_listed(self, table, index, value, columns), limit);
        }
    }
    return select_scanned({self, table, conditions, columns}, limit);
}

Ref get_row(PyObject* self, PyObject* table_name, PyObject* row_id) {
    const Ref table = require_table(self, table_name);
    Py_ssize_t position = 0;
    const Ref rows = get_field(table, names::rows);
    if (!has_row(rows, row_id, position)) {
        const Ref id_text = text_of(row_id);
        raise(PyExc_IndexError, "Row index (%U) out of range", static_cast<PyObject*>(id_text));
    }
    const Ref row = get_item(rows, position);
    if (is_deleted(row)) raise(PyExc_ValueError, "Row has been deleted");
    if (converts_plainly(self, row)) return row_to_dict(self, table, row, Py_None);
    Ref row_dict = call_method(self, names::row_to_dict, {table, row});
    if (!PyDict_Check(row_dict) && row_dict != Py_None) {
        raise(PyExc_TypeError, "Expected %s, got %.200s", "dict", Py_TYPE(row_dict)->tp_name);
    }
    return row_dict;
}

}  // namespace jdb::query
