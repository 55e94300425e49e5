// The versions that this interpreter keeps of dictionaries and classes. What was found in an object holds for as long
// as its stamp is the same.
#pragma once

#include <cstdint>

#include "host/python.h"

namespace jdb {

// A number that changes with every change of the dictionary, and that no other dictionary has.
inline std::uint64_t dict_version(PyObject* dict) { return reinterpret_cast<PyDictObject*>(dict)->ma_version_tag; }

// What changes as soon as an object's attributes could have. No two objects have the same.
struct Stamp {
    std::uint64_t fields = 0;
    unsigned type = 0;  // 0 for an object that gives no stamp
    bool operator==(const Stamp&) const = default;
    explicit operator bool() const { return type != 0; }
};

inline Stamp stamp_of(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_dictoffset <= 0 || PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) == 0) return {};
    PyObject* dict = *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(object) + type->tp_dictoffset);
    if (dict == nullptr) return {};
    return {dict_version(dict), type->tp_version_tag};
}

}  // namespace jdb
