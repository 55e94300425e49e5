// How an error is raised. Where the message can't be made, the error that kept it from being made goes on instead.
#include "host/error.h"

#include <cstdarg>

#include "host/ref.h"

namespace jdb {

void raise(PyObject* type, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    PyObject* message = PyUnicode_FromFormatV(format, arguments);
    va_end(arguments);
    if (message != nullptr) {
        python(PyErr_SetObject, type, message);
        drop(message);
    }
    throw PythonError{};
}

}  // namespace jdb
