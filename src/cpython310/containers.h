// Changes to the host's lists and dictionaries that can be taken back without asking for memory, and questions that run
// no host code. They know how this interpreter lays its containers out, and nothing else in the module does so to write
// to them.
#pragma once

#include "host/object.h"

namespace jdb {

// Takes an item out of a list, which keeps its room, and puts one in again. The position lies within the list. Putting
// back what was taken out just before asks for no memory.
void list_remove_at(PyObject* list, Py_ssize_t position);
void list_insert_at(PyObject* list, Py_ssize_t position, PyObject* item);

// Makes sure that so many new keys fit into a dictionary before it grows, which is the only time that it asks for
// memory.
void dict_make_room(PyObject* dict, Py_ssize_t keys);

// A number that changes with every change of the dictionary, and that no other dictionary has.
inline std::uint64_t dict_version(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag; }

// Whether all keys of a dictionary are exactly strings, so that looking up another such one runs no host code.
bool has_text_keys(PyObject* dict);

}  // namespace jdb
