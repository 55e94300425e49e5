// Failures of system calls as Python exceptions, and closing descriptors.
#include "persistence/system_call.h"

#include <unistd.h>

#include <cstring>

#include "host/object.h"

namespace jdb::persistence {

bool is_unavailable(int error) {
    return error == EPERM || error == EACCES || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

void raise_os_error(int error, PyObject* filename, const char* remark) {
    const Ref number = integer(error);
    // NOLINTNEXTLINE(concurrency-mt-unsafe): under the GIL, and as the interpreter itself does
    Ref message = Ref::steal(python(PyUnicode_DecodeLocale, std::strerror(error), "surrogateescape"));
    if (remark != nullptr) {
        message = Ref::steal(PyUnicode_FromFormat("%U (%s)", static_cast<PyObject*>(message), remark));
    }
    const Ref exception = call(PyExc_OSError, {number, message, filename});
    python(PyErr_SetObject, reinterpret_cast<PyObject*>(Py_TYPE(exception)), exception);
    throw PythonError{};
}

int Descriptor::close() noexcept {
    if (number_ < 0) return 0;
    // An interrupted close has closed the descriptor all the same.
    const GilReleased released;
    const int status = ::close(std::exchange(number_, -1));
    return status == 0 || errno == EINTR ? 0 : errno;
}

}  // namespace jdb::persistence
