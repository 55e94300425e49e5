// The error types of the host layer. Nothing here loses an error: a saved one is restored, a handled one becomes the
// context of what follows, and one that can't go on is reported as unraisable.
#include "host/error.h"

#include <cstdarg>

namespace jdb {

void raise(PyObject* type, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    PyObject* message = PyUnicode_FromFormatV(format, arguments);
    va_end(arguments);
    // Without a message the pending error is the one that kept it from being made.
    if (message != nullptr) {
        PyErr_SetObject(type, message);
        Py_DECREF(message);
    }
    throw PythonError{};
}

HandledError::HandledError() noexcept {
    PyErr_Fetch(&type_, &value_, &traceback_);
    PyErr_NormalizeException(&type_, &value_, &traceback_);
    if (traceback_ != nullptr) PyException_SetTraceback(value_, traceback_);
    PyErr_GetExcInfo(&outer_type_, &outer_value_, &outer_traceback_);
    Py_XINCREF(type_);
    Py_XINCREF(value_);
    Py_XINCREF(traceback_);
    PyErr_SetExcInfo(type_, value_, traceback_);
}

HandledError::~HandledError() {
    PyErr_SetExcInfo(outer_type_, outer_value_, outer_traceback_);
    Py_XDECREF(type_);
    Py_XDECREF(value_);
    Py_XDECREF(traceback_);
}

void HandledError::reraise() {
    PyErr_Restore(std::exchange(type_, nullptr), std::exchange(value_, nullptr), std::exchange(traceback_, nullptr));
    throw PythonError{};
}

}  // namespace jdb
