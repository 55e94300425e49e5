// Reading a record's field, or finding a method, where it is certain that no host code runs. This is what the fast
// roads stand on: whatever is not plainly so sends them to the plain one.
#pragma once

#include <cstdint>

#include "cpython310/containers.h"
#include "host/object.h"

namespace jdb {

// What changes as soon as an object's attributes could have: the versions that the interpreter keeps of dictionaries
// and classes, no two of which are ever the same.
struct Stamp {
    std::uint64_t fields = 0;
    unsigned type = 0;  // 0 for an object that gives no stamp
    bool operator==(const Stamp&) const = default;
};

inline Stamp stamp_of(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_dictoffset <= 0 || PyType_HasFeature(type, Py_TPFLAGS_VALID_VERSION_TAG) == 0) return {};
    PyObject* dict = *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(object) + type->tp_dictoffset);
    if (dict == nullptr) return {};
    return {dict_version(dict), type->tp_version_tag};
}

// The field as the record's own dictionary holds it, borrowed; null where reading the attribute could run host code
// (a property, a `__getattr__`, slots) or would not find it there.
PyObject* own_field(PyObject* record, Name& field);

// record.field, by the shortest way that the host could not tell from its own.
inline Ref get_field(PyObject* record, Name& field) {
    PyObject* own = own_field(record, field);
    return own != nullptr ? Ref::borrow(own) : get_attribute(record, field);
}

// Whether self.<method> is the one that import made, with its defaults, on a class and an instance that
// redefine neither it nor the look-up.
bool has_original(PyObject* self, Name& method);

// Notes the methods of the class just made as the originals.
void note_originals(PyObject* database_class);

}  // namespace jdb
