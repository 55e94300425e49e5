// Guards are nested as the calls that they live in, and so are the items of generators that run meanwhile. Each guard
// therefore finds its own item on top when it ends.
#include "cpython310/handled_error.h"

#include <cassert>
#include <utility>

#include "host/ref.h"

namespace jdb {

HandledError::HandledError() noexcept {
    assert(PyErr_Occurred() != nullptr);
    PyErr_Fetch(&item_.exc_type, &item_.exc_value, &item_.exc_traceback);
    python(PyErr_NormalizeException, &item_.exc_type, &item_.exc_value, &item_.exc_traceback);
    if (item_.exc_traceback != nullptr) PyException_SetTraceback(item_.exc_value, item_.exc_traceback);
    PyThreadState* thread = PyThreadState_Get();
    item_.previous_item = std::exchange(thread->exc_info, &item_);
}

HandledError::~HandledError() {
    assert(PyThreadState_Get()->exc_info == &item_);
    PyThreadState_Get()->exc_info = item_.previous_item;
    drop(item_.exc_type);
    drop(item_.exc_value);
    drop(item_.exc_traceback);
}

void HandledError::reraise() {
    python(PyErr_Restore, std::exchange(item_.exc_type, nullptr), std::exchange(item_.exc_value, nullptr),
           std::exchange(item_.exc_traceback, nullptr));
    throw PythonError{};
}

}  // namespace jdb
