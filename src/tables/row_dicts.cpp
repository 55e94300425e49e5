// After some rows the dictionaries share one table of keys, which is made once for all tables and projections with the
// same columns. Without that a select of 100,000 rows takes 2.5 times as long, and get_row 1.6 times.
#include "tables/row_dicts.h"

#include <algorithm>
#include <cassert>

#include "cpython310/shared_keys.h"
#include "host/object.h"
#include "tables/rows.h"

namespace jdb {
namespace {

constexpr Py_ssize_t kWorthSharing = 32;  // rows
constexpr Py_ssize_t kMaxShared = 256;    // sets of columns; at that number all are forgotten

// The dictionary of these keys that others are copied from, found or made. An empty Ref where there is none: then each
// dictionary is filled key by key, with the same result.
Ref shared_dict(const std::vector<RowDicts::Entry>& entries) {
    Ref shared;
    const auto find_or_make = [&] {
        static PyObject* const known = new_dict().release();  // tuple of keys to dictionary
        const Ref keys = Ref::steal(python(PyTuple_New, static_cast<Py_ssize_t>(entries.size())));
        Py_ssize_t count = 0;
        for (const RowDicts::Entry& entry : entries) {
            PyTuple_SET_ITEM(static_cast<PyObject*>(keys), count++, Ref(entry.key).release());
        }
        shared = find_item(known, keys);
        if (shared) return;
        shared = make_shared_dict(keys);
        if (PyDict_GET_SIZE(known) >= kMaxShared) python(PyDict_Clear, known);
        if (shared) set_item(known, keys, shared);
    };
    if (!succeeds(find_or_make)) python(PyErr_Clear);  // there was no memory for it
    return shared;
}

}  // namespace

Ref RowDicts::make(PyObject* row) {
    assert(std::all_of(entries_.begin(), entries_.end(),
                       [&](const Entry& entry) { return is_wide_enough(row, entry.position + 1); }));
    if (++made_ == kWorthSharing) shared_ = shared_dict(entries_);
    if (shared_) {
        return copy_shared_dict(shared_, entries_.size(),
                                [&](std::size_t i) { return PyList_GET_ITEM(row, entries_[i].position); });
    }
    Ref dict = new_dict();
    for (const Entry& entry : entries_) set_item(dict, entry.key, PyList_GET_ITEM(row, entry.position));
    return dict;
}

}  // namespace jdb
