// Raising an exception. The message is made first; where that fails, its own error is the pending one.
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
