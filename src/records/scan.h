// Looking at many rows without asking the host about each: the fast road of every walk over a table. It compares stored
// values where they lie and makes dictionaries only for rows that are returned.
#pragma once

#include <optional>
#include <vector>

#include "host/object.h"

namespace jdb {

// The names of a table's columns, known without running host code.
class ScanColumns {
public:
    // Nothing where the columns are no list of plain records with string names.
    static std::optional<ScanColumns> of(PyObject* table);

    [[nodiscard]] Py_ssize_t count() const { return static_cast<Py_ssize_t>(names_.size()); }
    [[nodiscard]] PyObject* name(Py_ssize_t position) const { return names_[static_cast<std::size_t>(position)]; }
    // The positions of the first and of the last column of that name, exactly a string; -1 when there is none.
    [[nodiscard]] Py_ssize_t first(PyObject* name) const;
    [[nodiscard]] Py_ssize_t last(PyObject* name) const;

private:
    std::vector<Ref> names_;
};

// Whether the row is a list that holds a value for each of that many columns, which can then be read by position.
inline bool is_wide_enough(PyObject* row, Py_ssize_t columns) {
    return PyList_CheckExact(row) && PyList_GET_SIZE(row) >= columns;
}

enum class Equality : unsigned char { unequal, equal, unknown };

// Whether `stored == wanted`, where both are exactly of built-in types whose comparison runs no host code; else
// unknown. There is no short cut for identical objects: NaN differs from itself.
Equality compare_plain(PyObject* stored, PyObject* wanted);

// What a row is to hold in one column.
struct Condition {
    static constexpr Py_ssize_t kHoldsNone = -1;  // no such column: the row counts as holding None there
    static constexpr Py_ssize_t kNeverHolds = -2;

    Py_ssize_t position;
    Ref value;
};

// Whether a row that is wide enough meets all conditions, looked at in order up to the first that it does not meet.
Equality match_plain(PyObject* row, const std::vector<Condition>& conditions);

// Makes dictionaries of one set of keys. Runs no host code while the collector is paused.
class RowShape {
public:
    struct Entry {
        Ref key;  // exactly a string, unlike the others
        Py_ssize_t position;
    };
    // All columns' names, each with the position of its last column.
    explicit RowShape(const ScanColumns& columns);
    // Those of the names, exact strings, that are columns: in the names' order, each once.
    RowShape(const ScanColumns& columns, PyObject* names);

    // A new dictionary of the row's values; the row is wide enough.
    [[nodiscard]] Ref make_dict(PyObject* row);

private:
    void make_template();

    std::vector<Entry> entries_;
    Py_ssize_t made_ = 0;
    Ref template_;  // its table of keys is shared by its copies; empty while few were made or the host makes no such
};

}  // namespace jdb
