// A filter runs no Python code, so its borrowed pointers stay valid.
#include "tables/walk.h"

#include <cassert>

namespace jdb {

// Whether the row meets all conditions: that of the first which it does not certainly meet.
Equality RowFilter::match(PyObject* row) const {
    assert(is_wide_enough(row, width_));
    for (const Condition& condition : conditions_) {
        PyObject* stored = condition.position < 0 ? Py_None : PyList_GET_ITEM(row, condition.position);
        const Equality result = compare_plain(stored, condition.value);
        if (result != Equality::equal) return result;
    }
    return Equality::equal;
}

RowFilter::Found RowFilter::skip(PyObject* rows, Py_ssize_t start, Py_ssize_t end) const {
    assert(PyList_CheckExact(rows) && 0 <= start && end <= PyList_GET_SIZE(rows));
    const bool whole_rows = conditions_.empty();
    const Py_ssize_t looked_at = whole_rows ? 0 : std::max<Py_ssize_t>(conditions_.front().position, 0);
    for (Py_ssize_t i = start; i < end; ++i) {
        prefetch_rows(rows, i, looked_at, whole_rows ? width_ : 1);
        PyObject* row = PyList_GET_ITEM(rows, i);
        if (!is_wide_enough(row, width_)) return {i, false};
        const Equality match = this->match(row);
        if (match == Equality::unequal || is_deleted(row)) continue;
        return {i, match == Equality::equal};
    }
    return {end, false};
}

Py_ssize_t count_live(PyObject* rows) {
    Py_ssize_t count = 0;
    const auto skip_lists = [&](PyObject* list, Py_ssize_t i, Py_ssize_t end) {
        for (; i < end; ++i) {
            prefetch_rows(list, i, 0);
            PyObject* row = PyList_GET_ITEM(list, i);
            if (!PyList_CheckExact(row)) break;
            if (!is_deleted(row)) ++count;
        }
        return i;
    };
    walk_rows(rows, skip_lists, [&](PyObject* row, Py_ssize_t /*id*/) {
        if (!is_deleted(row)) ++count;
        return false;
    });
    return count;
}

}  // namespace jdb
