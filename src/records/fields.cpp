// Certainty comes from three facts: the type looks attributes up in the ordinary way, it has no descriptor that would
// go before the instance's dictionary, and keys that are exact strings are compared without host code.
#include "records/fields.h"

#include <array>

namespace jdb {
namespace {

struct Original {
    Name& name;
    PyObject* function = nullptr;  // owned
    PyObject* defaults = nullptr;  // owned, or null
};

std::array<Original, 3> originals{{{names::row_to_dict}, {names::project_row}, {names::dict_to_row_id}}};

PyObject* own_dict(PyObject* object) {
    if (Py_TYPE(object)->tp_getattro != &PyObject_GenericGetAttr) return nullptr;
    PyObject** dict = _PyObject_GetDictPtr(object);
    return dict == nullptr ? nullptr : *dict;
}

PyObject* look_up(PyObject* dict, PyObject* name) {
    PyObject* found = PyDict_GetItemWithError(dict, name);
    if (found == nullptr && PyErr_Occurred() != nullptr) throw PythonError{};
    return found;
}

}  // namespace

PyObject* own_field(PyObject* record, Name& field) {
    PyObject* dict = own_dict(record);
    if (dict == nullptr) return nullptr;
    PyObject* in_class = _PyType_Lookup(Py_TYPE(record), field);
    if (in_class != nullptr && Py_TYPE(in_class)->tp_descr_set != nullptr) return nullptr;
    return look_up(dict, field);
}

bool has_original(PyObject* self, Name& method) {
    for (const Original& original : originals) {
        if (&original.name != &method) continue;
        if (_PyType_Lookup(Py_TYPE(self), method) != original.function) return false;
        if (PyFunction_GetDefaults(original.function) != original.defaults) return false;
        PyObject* dict = own_dict(self);
        return dict != nullptr && look_up(dict, method) == nullptr;
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
