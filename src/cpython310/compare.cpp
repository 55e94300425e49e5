// The comparisons that a scan seldom meets, or that take longer than the call of a function.
#include "cpython310/compare.h"

#include "host/module_state.h"

namespace jdb {

// Bytes are none of these: comparing them with a string may make the interpreter warn, which runs Python code.
bool has_plain_type(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    return type == &PyUnicode_Type || type == &PyLong_Type || type == &PyFloat_Type || type == &PyBool_Type ||
           object == Py_None || reinterpret_cast<PyObject*>(type) == module_state.date_type;
}

Equality detail::compare_others(PyObject* stored, PyObject* wanted) {
    if (!has_plain_type(stored) || !has_plain_type(wanted)) return Equality::unknown;
    return equal(stored, wanted) ? Equality::equal : Equality::unequal;
}

}  // namespace jdb
