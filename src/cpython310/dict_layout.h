// The memory layout of CPython 3.10's dictionaries, as far as the files of this folder need it.
#pragma once

#include "host/python.h"

namespace jdb {

// The head of a dictionary's table of keys; the interpreter's headers declare it and no more. Behind it are the slots
// of the hash table, each as wide as a position among the entries needs, and then the entries.
struct DictKeys {
    Py_ssize_t references;
    Py_ssize_t slots;
    void* look_up;
    Py_ssize_t usable;  // how many more entries fit
    Py_ssize_t entry_count;
};

// A dictionary's table of keys, borrowed.
inline DictKeys* dict_keys(PyObject* dict) {
    return reinterpret_cast<DictKeys*>(reinterpret_cast<PyDictObject*>(dict)->ma_keys);
}

// The values of a dictionary whose table of keys is shared; null for a dictionary with a table of its own, which has
// the values in its entries.
inline PyObject**& dict_values(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_values; }

}  // namespace jdb
