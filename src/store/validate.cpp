// One pass over the columns, each through the same steps in the same order; the first failure ends it. Only the result
// is written to, so a refused row leaves no trace.
#include "store/validate.h"

#include <cstdint>
#include <optional>
#include <vector>

#include "cpython310/handled_error.h"
#include "host/module_state.h"
#include "tables/database.h"
#include "tables/known_table.h"
#include "tables/rows.h"
#include "tables/walk.h"

namespace jdb::store {
namespace {

bool is_keyword(PyObject* data_type, Name& keyword) { return equal(data_type, keyword); }

Ref to_number(PyObject* value) {
    const Ref string = str_of(value);
    return Ref::steal(python(contains(string, names::decimal_point) ? PyNumber_Float : PyNumber_Long, value));
}

Ref to_date(PyObject* string) {
    const Ref datetime = global(names::datetime);
    const Ref parsed = call_method(datetime, names::strptime, {string, names::date_format});
    return call_method(parsed, names::date);
}

Ref convert(PyObject* data_type, PyObject* value) {
    if (is_keyword(data_type, names::number)) return to_number(value);
    if (is_keyword(data_type, names::boolean)) return Ref::boolean(truth(value));
    if (is_keyword(data_type, names::date) && PyUnicode_Check(value)) return to_date(value);
    return Ref::borrow(value);
}

Ref coerce(PyObject* column, PyObject* column_name, PyObject* value) {
    const Ref data_type = get_attribute(column, names::data_type);
    Ref coerced;
    if (succeeds([&] { coerced = convert(data_type, value); })) return coerced;
    if (PyErr_ExceptionMatches(PyExc_ValueError) == 0 && PyErr_ExceptionMatches(PyExc_TypeError) == 0) {
        throw PythonError{};
    }
    const HandledError cause;
    const Ref type_name = format(data_type);
    const Ref name = format(column_name);
    raise(PyExc_ValueError, "Invalid %U value for column '%U'", static_cast<PyObject*>(type_name),
          static_cast<PyObject*>(name));
}

// Raises ValueError with the column's name between the two parts.
[[noreturn]] void refuse(const char* before, PyObject* column_name, const char* after) {
    const Ref name = format(column_name);
    raise(PyExc_ValueError, "%s%U%s", before, static_cast<PyObject*>(name), after);
}

void match_pattern(PyObject* column, PyObject* column_name, PyObject* value) {
    const Ref pattern = get_attribute(column, names::validation_pattern);
    if (!truth(pattern) || !PyUnicode_Check(value)) return;
    const Ref re = global(names::re);
    const Ref found = call_method(re, names::match, {pattern, value});
    if (!truth(found)) refuse("Value for column '", column_name, "' doesn't match validation pattern");
}

// A value that is to enter a unique column, and the data that it came with.
struct Candidate {
    PyObject* self;
    PyObject* table;
    PyObject* column_name;
    PyObject* value;
    PyObject* data;
    bool updating;
};

// The slow path of the uniqueness test for one row: its defining steps, each a method of the object.
void compare_row(const Candidate& candidate, PyObject* row) {
    if (is_deleted(row)) return;
    const Ref row_dict = call_method(candidate.self, names::row_to_dict, {candidate.table, row});
    const Ref stored = get(row_dict, candidate.column_name);
    if (!equal(stored, candidate.value)) return;
    const Ref row_id = call_method(candidate.self, names::dict_to_row_id, {candidate.table, candidate.data});
    if (row_id == Py_None) return;
    if (candidate.updating) {
        const Ref rows = get_attribute(candidate.table, names::rows);
        const Ref found_row = get_item(rows, row_id);
        if (!unequal(row, found_row)) return;
    }
    refuse("Duplicate value for unique column '", candidate.column_name, "'");
}

// Whether the fast path is open: no one has redefined how a row becomes a dictionary, and comparing the column's name
// runs no Python code. KnownTable sees to the table's own columns.
bool may_skip(const Candidate& candidate) {
    return PyUnicode_CheckExact(candidate.column_name) && has_original(candidate.self, names::row_to_dict);
}

void refuse_duplicate(const Candidate& candidate) {
    std::uint64_t known_serial = 0;
    std::optional<RowFilter> filter;
    const auto skip_different = [&](PyObject* rows, Py_ssize_t start, Py_ssize_t end) {
        if (!may_skip(candidate)) return start;
        const KnownTable* known = KnownTable::of(candidate.table);
        if (known == nullptr) return start;
        if (known->serial() != known_serial) {
            known_serial = known->serial();
            const Condition condition{known->last(candidate.column_name), Ref::borrow(candidate.value)};
            filter.emplace(std::vector{condition}, known->column_count());
        }
        return filter->skip(rows, start, end).position;
    };
    const Ref rows = get_attribute(candidate.table, names::rows);
    walk_rows(rows, skip_different, [&](PyObject* row, Py_ssize_t /*id*/) {
        compare_row(candidate, row);
        return false;
    });
}

}  // namespace

Ref validate_row(PyObject* self, PyObject* table, PyObject* data, PyObject* update) {
    const bool updating = update == Py_True;
    Ref validated = new_dict();
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref column_name = get_attribute(column, names::name);
        const Ref default_value = get_attribute(column, names::default_value);
        Ref value = find_item(data, column_name);
        if (!value) value = default_value;

        const Ref required = get_attribute(column, names::required);
        if (truth(required) && value == Py_None && !updating) refuse("Column '", column_name, "' is required");
        if (value != Py_None) {
            value = coerce(column, column_name, value);
            match_pattern(column, column_name, value);
        }
        set_item(validated, column_name, value);

        // None never counts as a duplicate.
        if (value == Py_None) continue;
        const Ref unique = get_attribute(column, names::unique);
        if (truth(unique)) refuse_duplicate({self, table, column_name, value, data, updating});
    }
    return validated;
}

}  // namespace jdb::store
