// An attribute is read without running Python code where the type looks attributes up in the ordinary way, no
// descriptor of the class comes before the object's dictionary, and all keys that are compared are exactly str, in the
// object's dictionary and in those of its classes.
#include "cpython310/own_fields.h"

#include <cassert>

#include "cpython310/dict_layout.h"

namespace jdb {
namespace {

// The look-up function of a dictionary that has had a key other than an exact str.
void* general_look_up() {
    static void* const look_up = [] {
        const Ref dict = new_dict();
        set_item(dict, Py_None, Py_None);
        return dict_keys(dict)->look_up;
    }();
    return look_up;
}

bool has_string_names(PyTypeObject* type) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(type->tp_mro); ++i) {
        if (!has_string_keys(reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(type->tp_mro, i))->tp_dict)) return false;
    }
    return true;
}

// The object's dictionary where looking an attribute up runs no Python code, unless a descriptor of the class does.
PyObject* plain_dict(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != &PyObject_GenericGetAttr || !has_string_names(type)) return nullptr;
    PyObject* dict = own_dict(object);
    return dict == nullptr || !has_string_keys(dict) ? nullptr : dict;
}

PyObject* look_up(PyObject* dict, PyObject* name) {
    PyObject* found = python(PyDict_GetItemWithError, dict, name);
    if (found == nullptr && PyErr_Occurred() != nullptr) throw PythonError{};
    return found;
}

}  // namespace

PyObject* own_dict(PyObject* object) {
    PyObject** dict = _PyObject_GetDictPtr(object);
    return dict == nullptr ? nullptr : *dict;
}

bool has_string_keys(PyObject* dict) {
    assert(PyDict_Check(dict));
    if (dict_keys(dict)->look_up != general_look_up()) return true;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    while (PyDict_Next(dict, &position, &key, nullptr) != 0) {
        if (!PyUnicode_CheckExact(key)) return false;
    }
    return true;
}

PyObject* own_field(PyObject* object, PyObject* name) {
    assert(PyUnicode_CheckExact(name));
    PyObject* dict = plain_dict(object);
    if (dict == nullptr) return nullptr;
    // Python code may turn an object of a class made in Python into a descriptor at any time.
    PyObject* in_class = _PyType_Lookup(Py_TYPE(object), name);
    if (in_class != nullptr && (Py_TYPE(in_class)->tp_descr_set != nullptr ||
                                PyType_HasFeature(Py_TYPE(in_class), Py_TPFLAGS_HEAPTYPE) != 0)) {
        return nullptr;
    }
    return look_up(dict, name);
}

bool has_method(PyObject* object, PyObject* name, PyObject* function) {
    assert(PyUnicode_CheckExact(name));
    PyObject* dict = plain_dict(object);
    if (dict == nullptr || _PyType_Lookup(Py_TYPE(object), name) != function) return false;
    return look_up(dict, name) == nullptr;
}

}  // namespace jdb
