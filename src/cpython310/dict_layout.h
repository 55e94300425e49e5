// How this interpreter lays dictionaries out in memory, as far as the files of this folder need it.
#pragma once

#include "host/python.h"

namespace jdb {

// The head of a dictionary's table of keys, which the interpreter's headers only name. Behind it lie the slots of the
// hash table, of as many bytes each as positions among the entries need, then the entries.
struct DictKeys {
    Py_ssize_t references;
    Py_ssize_t slots;
    void* look_up;
    Py_ssize_t usable;  // how many more entries fit
    Py_ssize_t entry_count;
};

inline DictKeys* dict_keys(PyObject* dict) {
    return reinterpret_cast<DictKeys*>(reinterpret_cast<PyDictObject*>(dict)->ma_keys);
}

// Which values belong to a table of keys that several dictionaries share; null for a dictionary with its own.
inline PyObject**& dict_values(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_values; }

}  // namespace jdb
