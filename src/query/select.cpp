// select by an index and by a scan, and get_row. Rows are only read; marked indexes are rebuilt. An error drops what
// was found so far.
#include "query/select.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "cpython310/versions.h"
#include "host/collector.h"
#include "query/convert.h"
#include "tables/database.h"
#include "tables/indexes.h"
#include "tables/known_table.h"
#include "tables/rows.h"
#include "tables/walk.h"

namespace jdb::query {
namespace {

bool is_limited(PyObject* limit) { return limit != Py_None && truth(limit); }

// A limit beyond the range of Py_ssize_t has the same effect as the nearest one in it.
Py_ssize_t clamp_to_ssize(PyObject* limit) { return PyNumber_AsSsize_t(limit, nullptr); }

// `results[:limit]`
Ref apply_limit(const Ref& results, PyObject* limit) {
    if (!is_limited(limit)) return results;
    Py_ssize_t end = clamp_to_ssize(limit);
    if (end < 0) end += length(results);
    return Ref::steal(python(PyList_GetSlice, results, 0, end));
}

// Whether self._row_to_dict(table, row) may be called without the method look-up: no one has redefined it, and its
// argument check would let the row pass.
bool can_skip_method_call(PyObject* self, PyObject* row) {
    return PyList_CheckExact(row) && has_original(self, names::row_to_dict);
}

std::pair<Ref, Ref> only_condition(PyObject* conditions) {
    assert(PyDict_GET_SIZE(conditions) == 1);
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
        const Ref rows = get_attribute(table, names::rows);
        const Ref row = get_item(rows, id);
        if (is_deleted(row)) continue;
        const Ref row_dict = can_skip_method_call(self, row)
                                 ? row_to_dict(self, table, row, columns)
                                 : call_method(self, names::row_to_dict, {table, row, columns});
        append(results, row_dict);
    }
    return results;
}

bool holds(PyObject* row_dict, PyObject* conditions) {
    if (conditions == Py_None) return true;
    const Ref items = Ref::steal(python(PyDict_Items, conditions));
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

// What a scan has found. It is full when a row added reaches the limit; the first row reaches a negative one.
class Results {
public:
    explicit Results(PyObject* limit)
        : list_(new_list()), limited_(is_limited(limit)), limit_(limited_ ? clamp_to_ssize(limit) : 0) {}

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

// The slow path of a scan for one row: its defining steps, each a method of the object.
void select_row(const Query& query, PyObject* row, Results& results) {
    if (is_deleted(row)) return;
    const Ref row_dict = call_method(query.self, names::row_to_dict, {query.table, row});
    if (!holds(row_dict, query.conditions)) return;
    const Ref projected = call_method(query.self, names::project_row, {row_dict, query.columns});
    results.add(projected);
}

// The fast path of a scan: conditions are tested by position, and dictionaries made without calling a method.
class ScanPlan {
public:
    // Nothing where the path is closed: a method that a scan calls for each row is redefined, a name is not exactly a
    // str, or reading the table could run Python code.
    static std::optional<ScanPlan> make(const Query& query);

    // Whether the plan is still open and that of the query; to be asked again after Python code may have run.
    [[nodiscard]] bool is_current(const Query& query);
    // Handles the rows from `start` up to the first that needs the slow path, or up to `end`; returns its position, or
    // the size of the list when the results are full. The plan is current and the results are not full before. Runs no
    // Python code while the collector is paused.
    [[nodiscard]] Py_ssize_t run(PyObject* rows, Py_ssize_t start, Py_ssize_t end, Results& results);

private:
    ScanPlan(KnownTable* known, RowFilter filter)
        : known_(known), known_serial_(known->serial()), filter_(std::move(filter)) {}

    KnownTable* known_;  // borrowed until Python code may have run
    std::uint64_t known_serial_;
    RowFilter filter_;
    std::uint64_t conditions_version_ = 0;
    std::vector<Ref> columns_;  // as the query names them
    std::unique_ptr<RowDicts> projected_;
};

bool calls_originals(const Query& query) {
    return has_original(query.self, names::row_to_dict) && has_original(query.self, names::project_row);
}

std::uint64_t version_of(PyObject* conditions) { return conditions == Py_None ? 0 : dict_version(conditions); }

std::optional<std::vector<Condition>> plain_conditions(PyObject* conditions, const KnownTable& known) {
    std::vector<Condition> result;
    if (conditions == Py_None) return result;
    Py_ssize_t at = 0;
    PyObject* name = nullptr;
    PyObject* value = nullptr;
    while (PyDict_Next(conditions, &at, &name, &value) != 0) {
        if (!PyUnicode_CheckExact(name)) return std::nullopt;
        result.push_back({known.last(name), Ref::borrow(value)});
    }
    return result;
}

std::optional<ScanPlan> ScanPlan::make(const Query& query) {
    if (!calls_originals(query)) return std::nullopt;
    KnownTable* known = KnownTable::of(query.table);
    if (known == nullptr) return std::nullopt;
    auto conditions = plain_conditions(query.conditions, *known);
    if (!conditions) return std::nullopt;

    ScanPlan plan(known, RowFilter(std::move(*conditions), known->column_count()));
    plan.conditions_version_ = version_of(query.conditions);
    if (query.columns == Py_None) return plan;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(query.columns); ++i) {
        plan.columns_.push_back(Ref::borrow(PyList_GET_ITEM(query.columns, i)));
        if (!PyUnicode_CheckExact(static_cast<PyObject*>(plan.columns_.back()))) return std::nullopt;
    }
    plan.projected_ = std::make_unique<RowDicts>(plan.known_->project(plan.columns_));
    return plan;
}

bool ScanPlan::is_current(const Query& query) {
    if (!calls_originals(query)) return false;
    known_ = KnownTable::of(query.table);
    if (known_ == nullptr || known_->serial() != known_serial_) return false;
    if (version_of(query.conditions) != conditions_version_) return false;
    if (query.columns == Py_None) return true;
    return PyList_GET_SIZE(query.columns) == static_cast<Py_ssize_t>(columns_.size()) &&
           std::equal(columns_.begin(), columns_.end(), reinterpret_cast<PyListObject*>(query.columns)->ob_item,
                      [](const Ref& column, PyObject* item) { return column == item; });
}

Py_ssize_t ScanPlan::run(PyObject* rows, Py_ssize_t start, Py_ssize_t end, Results& results) {
    assert(!results.full());
    RowDicts& row_dicts = projected_ ? *projected_ : known_->row_dicts();
    for (Py_ssize_t i = start; i < end; ++i) {
        const RowFilter::Found found = filter_.skip(rows, i, end);
        i = found.position;
        if (!found.matches) return i;
        const Ref row_dict = row_dicts.make(PyList_GET_ITEM(rows, i));
        results.add(row_dict);
        if (results.full()) return PyList_GET_SIZE(rows);
    }
    return end;
}

Ref select_scanned(const Query& query, PyObject* limit) {
    Results results(limit);
    std::optional<ScanPlan> plan;
    const auto scan = [&](PyObject* rows, Py_ssize_t start, Py_ssize_t end) {
        // What an old plan drops may run a finalizer: before anything is borrowed for a new one.
        if (plan && !plan->is_current(query)) plan.reset();
        const CollectorPaused paused;  // a finalizer could change rows, table or plan
        if (!plan) plan = ScanPlan::make(query);
        return plan ? plan->run(rows, start, end, results) : start;
    };
    const Ref rows = get_attribute(query.table, names::rows);
    walk_rows(rows, scan, [&](PyObject* row, Py_ssize_t /*id*/) {
        select_row(query, row, results);
        return results.full();
    });
    return results.list();
}

}  // namespace

Ref select(PyObject* self, PyObject* table_name, PyObject* conditions, PyObject* columns, PyObject* limit) {
    const Ref table = require_table(self, table_name);
    if (conditions != Py_None && PyDict_GET_SIZE(conditions) == 1) {
        // Read before Python code may run and empty the dictionary.
        const auto [name, value] = only_condition(conditions);
        const Ref indexes = settle_indexes(table);
        const Ref index = item_if_key(indexes, name);
        if (index) {
            return apply_limit(select_listed(self, table, index, value, columns), limit);
        }
    }
    return select_scanned({self, table, conditions, columns}, limit);
}

Ref get_row(PyObject* self, PyObject* table_name, PyObject* row_id) {
    const Ref table = require_table(self, table_name);
    Py_ssize_t position = 0;
    const Ref rows = get_attribute(table, names::rows);
    if (!has_row(rows, row_id, position)) {
        const Ref id_string = str_of(row_id);
        raise(PyExc_IndexError, "Row index (%U) out of range", static_cast<PyObject*>(id_string));
    }
    const Ref row = get_item(rows, position);
    if (is_deleted(row)) raise(PyExc_ValueError, "Row has been deleted");
    if (can_skip_method_call(self, row)) return row_to_dict(self, table, row, Py_None);
    Ref row_dict = call_method(self, names::row_to_dict, {table, row});
    if (!PyDict_Check(row_dict) && row_dict != Py_None) {
        raise(PyExc_TypeError, "Expected %s, got %.200s", "dict", Py_TYPE(row_dict)->tp_name);
    }
    return row_dict;
}

}  // namespace jdb::query
