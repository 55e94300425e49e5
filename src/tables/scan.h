// Looking at many rows without asking the host about each: the fast road of every walk over a table. It compares stored
// values where they lie and makes dictionaries only for rows that are returned.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "host/object.h"
#include "tables/fields.h"

namespace jdb {

// Makes dictionaries of one set of keys. Runs no host code while the collector is paused.
class RowShape {
public:
    struct Entry {
        Ref key;  // exactly a string, unlike the others
        Py_ssize_t position;
    };
    explicit RowShape(std::vector<Entry> entries) : entries_(std::move(entries)) {}

    // A new dictionary of the row's values; the row is wide enough.
    [[nodiscard]] Ref make_dict(PyObject* row);

private:
    void make_template();

    std::vector<Entry> entries_;
    Py_ssize_t made_ = 0;
    Ref template_;  // its table of keys is shared by its copies; empty while few were made or the host makes no such
};

// The names of a table's columns, known without running host code.
class ScanColumns {
public:
    // Null where the columns are no list of plain records with string names. Borrowed, until host code runs.
    static ScanColumns* of(PyObject* table);

    [[nodiscard]] Py_ssize_t count() const { return static_cast<Py_ssize_t>(names_.size()); }
    // The positions of the first and of the last column of that name, exactly a string; -1 when there is none.
    [[nodiscard]] Py_ssize_t first(PyObject* name) const;
    [[nodiscard]] Py_ssize_t last(PyObject* name) const;

    // Rows as dictionaries of all columns, each with the value of the last column of its name.
    [[nodiscard]] RowShape& shape() { return shape_; }
    // Those of the names, a list of exact strings, that are columns: in the list's order, each once.
    [[nodiscard]] RowShape project(PyObject* names) const;

private:
    ScanColumns(std::vector<Ref> names, std::vector<Stamp> stamps);
    [[nodiscard]] bool describes(PyObject* columns) const;

    std::vector<Ref> names_;
    std::vector<Stamp> stamps_;
    RowShape shape_;
};

// Whether the row is a list that holds a value for each of that many columns, which can then be read by position.
inline bool is_wide_enough(PyObject* row, Py_ssize_t columns) {
    return PyList_CheckExact(row) && PyList_GET_SIZE(row) >= columns;
}

// How many of the rows do not count as deleted.
Py_ssize_t count_live(PyObject* rows);

// The row as a new dictionary of all columns; an empty Ref where making it could run host code or fail.
Ref make_plain_dict(PyObject* table, PyObject* row);

// Whether the object is exactly of a built-in type whose hashing and comparison with others of such types run no host
// code.
bool has_plain_type(PyObject* object);

enum class Equality : unsigned char { unequal, equal, unknown };

// Whether `stored == wanted`, where both are exactly of built-in types whose comparison runs no host code; else
// unknown. There is no short cut for identical objects: NaN differs from itself.
inline Equality compare_plain(PyObject* stored, PyObject* wanted);

// What a row is to hold in one column.
struct Condition {
    static constexpr Py_ssize_t kHoldsNone = -1;  // no such column: the row counts as holding None there
    static constexpr Py_ssize_t kNeverHolds = -2;

    Py_ssize_t position;
    Ref value;
};

// Whether a row that is wide enough meets all conditions, looked at in order up to the first that it does not meet.
inline Equality match_plain(PyObject* row, const std::vector<Condition>& conditions) {
    for (const Condition& condition : conditions) {
        if (condition.position == Condition::kNeverHolds) return Equality::unequal;
        PyObject* stored = condition.position < 0 ? Py_None : PyList_GET_ITEM(row, condition.position);
        const Equality result = compare_plain(stored, condition.value);
        if (result != Equality::equal) return result;
    }
    return Equality::equal;
}

// Where a walk from `start` on that can't stop for signals has to end, to be taken up again after they were asked for.
inline Py_ssize_t stretch_end(PyObject* rows, Py_ssize_t start) {
    return std::min(PyList_GET_SIZE(rows), start + SignalCheck::kSteps);
}

// Asks the processor for the memory that the rows a little behind this one will need: a large table is walked at the
// speed at which it arrives. The `count` values from `position` on are what the walk looks at. Always inline: a
// compiler that finds a function without effects leaves its calls out.
[[gnu::always_inline]] inline void prefetch_rows(PyObject* rows, Py_ssize_t at, Py_ssize_t position,
                                                 Py_ssize_t count = 1) {
    constexpr Py_ssize_t kLists = 96;
    constexpr Py_ssize_t kItems = 64;
    constexpr Py_ssize_t kValues = 32;
    if (at + kLists >= PyList_GET_SIZE(rows)) return;
    __builtin_prefetch(PyList_GET_ITEM(rows, at + kLists));
    PyObject* row = PyList_GET_ITEM(rows, at + kItems);
    if (is_wide_enough(row, position + 1)) __builtin_prefetch(&PyList_GET_ITEM(row, position));
    row = PyList_GET_ITEM(rows, at + kValues);
    if (!is_wide_enough(row, position + 1)) return;
    const Py_ssize_t end = count == 1 ? position + 1 : std::min(position + count, PyList_GET_SIZE(row));
    for (Py_ssize_t i = position; i < end; ++i) __builtin_prefetch(PyList_GET_ITEM(row, i));
}

// ---- Implementation ----

namespace detail {

// Two texts of the same length. Those that are keys of an index bring their hash.
inline Equality compare_same_length(PyObject* stored, PyObject* wanted) {
    const auto hash_of = [](PyObject* text) { return reinterpret_cast<PyASCIIObject*>(text)->hash; };
    if (hash_of(stored) != hash_of(wanted) && hash_of(stored) != -1 && hash_of(wanted) != -1) return Equality::unequal;
    if (PyUnicode_KIND(stored) != PyUnicode_KIND(wanted)) return Equality::unequal;
    const auto size = static_cast<std::size_t>(PyUnicode_GET_LENGTH(stored)) * PyUnicode_KIND(stored);
    const bool same = std::memcmp(PyUnicode_DATA(stored), PyUnicode_DATA(wanted), size) == 0;
    return same ? Equality::equal : Equality::unequal;
}

Equality compare_others(PyObject* stored, PyObject* wanted);

}  // namespace detail

// The two kinds of values that most walks look for, and the reasons why most values are not the one, stand here to be
// inlined into the walk.
inline Equality compare_plain(PyObject* stored, PyObject* wanted) {
    PyTypeObject* type = Py_TYPE(stored);
    if (type != Py_TYPE(wanted)) return detail::compare_others(stored, wanted);
    if (type == &PyUnicode_Type) {
        if (!PyUnicode_IS_READY(stored) || !PyUnicode_IS_READY(wanted)) return Equality::unknown;
        if (PyUnicode_GET_LENGTH(stored) != PyUnicode_GET_LENGTH(wanted)) return Equality::unequal;
        return detail::compare_same_length(stored, wanted);
    }
    if (type == &PyLong_Type && (Py_SIZE(stored) != Py_SIZE(wanted))) return Equality::unequal;
    if (type == &PyLong_Type && (Py_SIZE(stored) == 1 || Py_SIZE(stored) == -1)) {
        const auto digit = [](PyObject* integer) { return reinterpret_cast<PyLongObject*>(integer)->ob_digit[0]; };
        return digit(stored) == digit(wanted) ? Equality::equal : Equality::unequal;
    }
    return detail::compare_others(stored, wanted);
}

}  // namespace jdb
