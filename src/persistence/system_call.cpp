// Nothing here leaves a descriptor open or the GIL released.
#include "persistence/system_call.h"

#include <cxxabi.h>
#include <unistd.h>

#include "host/object.h"

namespace jdb::persistence {

GilReleased::~GilReleased() {
    try {
        PyEval_RestoreThread(state_);
    } catch (abi::__forced_unwind&) {
        for (;;) pause();
    }
}

bool refused(int error) {
    return error == EPERM || error == EACCES || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

void raise_os_error(int error, PyObject* filename, const char* remark) {
    errno = error;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, filename);
    if (remark == nullptr) throw PythonError{};

    const HandledError plain;
    const Ref number = Ref::steal(PyObject_GetAttrString(plain.value(), "errno"));
    const Ref words = Ref::steal(PyObject_GetAttrString(plain.value(), "strerror"));
    const Ref remarked = Ref::steal(PyUnicode_FromFormat("%U (%s)", static_cast<PyObject*>(words), remark));
    const Ref exception = call(plain.type(), {number, remarked, filename});
    PyErr_Restore(Ref::borrow(plain.type()).release(), Ref(exception).release(), nullptr);
    throw PythonError{};
}

int Descriptor::close() noexcept {
    if (number_ < 0) return 0;
    // An interrupted close has closed all the same.
    const GilReleased released;
    const int status = ::close(std::exchange(number_, -1));
    return status == 0 || errno == EINTR ? 0 : errno;
}

}  // namespace jdb::persistence
