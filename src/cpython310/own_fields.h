// Reading attributes without running Python code. The fast paths rest on this: where it is not certain that no Python
// code would run, these functions say so, and the slow path is taken.
#pragma once

#include "host/object.h"

namespace jdb {

// The object's own dictionary, borrowed; null where it has none.
PyObject* own_dict(PyObject* object);

// Whether all keys of a dictionary are exactly str, so that looking up an exact str in it runs no Python code.
bool has_string_keys(PyObject* dict);

// The attribute from the object's own dictionary, borrowed. Null where it is not there, and where reading it could run
// Python code (a property, a `__getattribute__`) or would find another object. `name` is exactly a str.
PyObject* own_field(PyObject* object, PyObject* name);

// Whether object.<name> certainly is this function, found in the object's class and bound to the object: neither a
// subclass nor the object redefines it, and looking it up runs no Python code. `name` is exactly a str.
bool has_method(PyObject* object, PyObject* name, PyObject* function);

}  // namespace jdb
