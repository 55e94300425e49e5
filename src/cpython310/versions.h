// The version numbers that CPython 3.10 keeps of dictionaries and classes. What was found out about an object holds
// while its stamp is the same.
#pragma once

#include <cstdint>

#include "host/python.h"

namespace jdb {

// A number that changes with every change of the dictionary, and that no other dictionary has.
inline std::uint64_t dict_version(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag; }

// A number that changes with every change of the class or of one that it is derived from, and that no other class has;
// 0 for a class that has none at the moment.
inline unsigned class_version(PyTypeObject* type) {
    return PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) != 0 ? type->tp_version_tag : 0;
}

// The version of the own dictionary of an object of that type; 0 where it has none, or has it in an unusual place.
inline std::uint64_t fields_version(PyObject* object, const PyTypeObject* type) {
    if (type->tp_dictoffset <= 0) return 0;
    PyObject* dict = *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(object) + type->tp_dictoffset);
    return dict == nullptr ? 0 : dict_version(dict);
}

// A value that changes whenever an object's attributes may have changed. No two objects have the same.
struct Stamp {
    unsigned type = 0;
    std::uint64_t fields = 0;

    bool operator==(const Stamp&) const = default;
    // Whether it can be relied on: both parts have a version.
    explicit operator bool() const { return type != 0 && fields != 0; }
};

inline Stamp stamp_of(PyObject* object) {
    return {class_version(Py_TYPE(object)), fields_version(object, Py_TYPE(object))};
}

}  // namespace jdb
