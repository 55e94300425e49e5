// Certainty comes from three facts: the type looks attributes up in the ordinary way, it has no descriptor that would
// go before the instance's dictionary, and all names that are compared are exact strings, the class's as the
// instance's. What was found holds for as long as the object's stamp is the same.
#include "tables/fields.h"

#include <array>

namespace jdb {
namespace {

struct Original {
    Name& name;
    PyObject* function = nullptr;  // owned
    PyObject* defaults = nullptr;  // owned, or null
    Stamp kept_by;                 // the object last seen to redefine it nowhere
};

std::array<Original, 3> originals{{{names::row_to_dict, nullptr, nullptr, {}},
                                   {names::project_row, nullptr, nullptr, {}},
                                   {names::dict_to_row_id, nullptr, nullptr, {}}}};

bool has_text_names(PyTypeObject* type) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(type->tp_mro); ++i) {
        if (!has_text_keys(reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(type->tp_mro, i))->tp_dict)) return false;
    }
    return true;
}

PyObject* own_dict(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    if (type->tp_getattro != &PyObject_GenericGetAttr || !has_text_names(type)) return nullptr;
    PyObject** dict = _PyObject_GetDictPtr(object);
    return dict == nullptr || *dict == nullptr || !has_text_keys(*dict) ? nullptr : *dict;
}

PyObject* look_up(PyObject* dict, PyObject* name) {
    PyObject* found = PyDict_GetItemWithError(dict, name);
    if (found == nullptr && PyErr_Occurred() != nullptr) throw PythonError{};
    return found;
}

bool redefines(PyObject* self, const Original& original) {
    PyObject* dict = own_dict(self);
    if (dict == nullptr || _PyType_Lookup(Py_TYPE(self), original.name) != original.function) return true;
    return look_up(dict, original.name) != nullptr;
}

PyObject* find_own_field(PyObject* record, Name& field) {
    PyObject* dict = own_dict(record);
    if (dict == nullptr) return nullptr;
    // An object of the host's own making in the class may become a descriptor at any time.
    PyObject* in_class = _PyType_Lookup(Py_TYPE(record), field);
    if (in_class != nullptr && (Py_TYPE(in_class)->tp_descr_set != nullptr ||
                                PyType_HasFeature(Py_TYPE(in_class), Py_TPFLAGS_HEAPTYPE) != 0)) {
        return nullptr;
    }
    return look_up(dict, field);
}

}  // namespace

PyObject* own_field(PyObject* record, Name& field) {
    struct Found {
        Stamp stamp;
        Name* field = nullptr;
        PyObject* value = nullptr;
    };
    static constexpr std::size_t kLately = 64;
    static std::array<Found, kLately> lately;

    const Stamp stamp = stamp_of(record);
    Found& found = lately[(stamp.fields + reinterpret_cast<std::uintptr_t>(&field) / sizeof(Name)) % kLately];
    if (stamp.type != 0 && found.stamp == stamp && found.field == &field) return found.value;
    PyObject* value = find_own_field(record, field);
    found = {stamp, &field, value};
    return value;
}

bool has_original(PyObject* self, Name& method) {
    for (Original& original : originals) {
        if (&original.name != &method) continue;
        if (PyFunction_GetDefaults(original.function) != original.defaults) return false;
        const Stamp stamp = stamp_of(self);
        if (stamp.type != 0 && original.kept_by == stamp) return true;
        if (redefines(self, original)) return false;
        original.kept_by = stamp;
        return true;
    }
    return false;
}

void note_originals(PyObject* database_class) {
    for (Original& original : originals) {
        Ref function = get_attribute(database_class, original.name);
        PyObject* defaults = PyFunction_GetDefaults(function);
        Py_XINCREF(defaults);
        Py_XDECREF(std::exchange(original.defaults, defaults));
        Py_XDECREF(std::exchange(original.function, function.release()));
    }
}

}  // namespace jdb
