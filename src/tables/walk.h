// The walk over a table's rows. Rows that certainly don't match are skipped where they lie, without a row dictionary
// and without running Python code; each other row gets a closer look, by the defining steps.
#pragma once

#include <algorithm>
#include <utility>
#include <vector>

#include "cpython310/compare.h"
#include "host/object.h"
#include "tables/rows.h"

namespace jdb {

// What a row is to hold in one column.
struct Condition {
    static constexpr Py_ssize_t kNoColumn = -1;  // the row counts as holding None there

    Py_ssize_t position;
    Ref value;
};

// What rows are looked for, by position. It may be used as long as the positions hold and none of the steps that it
// spares is redefined: whoever makes it has asked for that.
class RowFilter {
public:
    // Tells about rows of that many values or more.
    RowFilter(std::vector<Condition> conditions, Py_ssize_t width)
        : conditions_(std::move(conditions)), width_(width) {}

    struct Found {
        Py_ssize_t position;
        bool matches;  // certainly
    };
    // The first row from `start` to `end` that is not certain to be deleted or to miss a condition; `end` when there is
    // none. Runs no Python code.
    [[nodiscard]] Found skip(PyObject* rows, Py_ssize_t start, Py_ssize_t end) const;

private:
    [[nodiscard]] Equality match(PyObject* row) const;

    std::vector<Condition> conditions_;
    Py_ssize_t width_;
};

// Walks the rows in order. Between two looks `skip(rows, start, end)` passes over rows of a list: it gives the position
// of the next one to look at, or `end`, or the size of the list to end the walk. `look(row, id)` may run Python code;
// the walk ends when it returns true. Signals are handled on the way.
template <class Skip, class Look>
void walk_rows(PyObject* rows, Skip skip, Look look) {
    Py_ssize_t id = 0;
    if (!PyList_CheckExact(rows)) {
        for (const Ref& row : Iteration(rows)) {
            if (look(row, id++)) return;
        }
        return;
    }
    // The size is read anew at each step, as an iterator does.
    while (id < PyList_GET_SIZE(rows)) {
        const Py_ssize_t end = std::min(PyList_GET_SIZE(rows), id + SignalCheck::kSteps);
        id = skip(rows, id, end);
        if (id < end) {
            const Ref row = Ref::borrow(PyList_GET_ITEM(rows, id));
            if (look(row, id++)) return;
        }
        check_signals();
    }
}

// How many of the rows do not count as deleted.
Py_ssize_t count_live(PyObject* rows);

// Asks the processor for the memory that the rows a little behind this one will need: a large table is walked at the
// speed at which it arrives. The `count` values from `position` on are what the walk looks at. Without this a
// scan of 100,000 rows takes 1.5 to 1.8 times as long.
// Always inline: a compiler that finds a function without effects leaves its calls out.
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

}  // namespace jdb
