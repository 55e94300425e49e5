// Reading attributes where it is certain that no Python code runs. This is what the fast paths rest on: an object that
// is not plainly so sends them to the slow one.
#pragma once

#include "host/object.h"

namespace jdb {

// The object's own dictionary, borrowed; null where it has none.
PyObject* own_dict(PyObject* object);

// Whether all keys of a dictionary are exactly strings, so that looking up another such one runs no Python code.
bool has_string_keys(PyObject* dict);

// The attribute as the object's own dictionary holds it, borrowed; null where reading it could run Python code (a
// property, a `__getattr__`, slots) or would not find it there. `name` is exactly a string.
PyObject* own_field(PyObject* object, PyObject* name);

// Whether object.<name> certainly is this function of its class, bound to it: neither a subclass nor the object
// redefines it, and looking it up runs no Python code.
bool has_method(PyObject* object, PyObject* name, PyObject* function);

}  // namespace jdb
