// Unpacking pairs by Python's rules.
#pragma once

#include <array>
#include <utility>

#include "host/object.h"

namespace jdb::persistence {

// `first, second = item`, with its errors: TypeError for what can't be iterated, ValueError for another length.
inline std::pair<Ref, Ref> unpack_pair(PyObject* item) {
    if (PyTuple_CheckExact(item) && PyTuple_GET_SIZE(item) == 2) {
        return {Ref::borrow(PyTuple_GET_ITEM(item, 0)), Ref::borrow(PyTuple_GET_ITEM(item, 1))};
    }
    if (Py_TYPE(item)->tp_iter == nullptr && PySequence_Check(item) == 0) {
        raise(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(item)->tp_name);
    }
    std::array<Ref, 2> values;
    std::size_t count = 0;
    for (const Ref& value : Iteration(item)) {
        if (count == values.size()) raise(PyExc_ValueError, "too many values to unpack (expected 2)");
        values[count++] = value;
    }
    if (count < values.size()) raise(PyExc_ValueError, "not enough values to unpack (expected 2, got %zu)", count);
    return {std::move(values[0]), std::move(values[1])};
}

}  // namespace jdb::persistence
