// Dictionaries that share one table of keys, as those of a class's instances do. Making one takes two allocations and
// looks at no key.
#pragma once

#include <cassert>
#include <utility>

#include "cpython310/dict_layout.h"
#include "host/ref.h"

namespace jdb {

// A dictionary with the keys of a tuple, exactly str and all different, whose copies share its table of keys. The
// values are None. An empty Ref where there is no key, and where a dictionary does not have the expected layout.
Ref make_shared_dict(PyObject* keys);

// A copy of such a dictionary, of `count` keys, with other values: `value_at(i)`, borrowed, goes to the i-th key. Runs
// no Python code while the collector is paused.
template <class ValueAt>
Ref copy_shared_dict(PyObject* shared, std::size_t count, ValueAt value_at) {
    assert(dict_values(shared) != nullptr && static_cast<std::size_t>(PyDict_GET_SIZE(shared)) == count);
    Ref copy = Ref::steal(python(PyDict_Copy, shared));
    PyObject* dict = copy;
    PyObject** values = dict_values(dict);
    assert(values != nullptr);
    bool may_form_cycles = false;
    for (std::size_t i = 0; i < count; ++i) {
        PyObject* value = value_at(i);
        may_form_cycles = may_form_cycles || PyType_IS_GC(Py_TYPE(value)) != 0;
        Py_INCREF(value);
        drop(std::exchange(values[i], value));
    }
    if (may_form_cycles && PyObject_GC_IsTracked(dict) == 0) PyObject_GC_Track(dict);
    return copy;
}

}  // namespace jdb
