// Errors of the interpreter: how they are raised, carried through C++ code, put aside, and handed back at the boundary.
#pragma once

#include <new>
#include <utility>

#include "host/exit.h"
#include "host/python.h"

namespace jdb {

// Thrown while the interpreter's error indicator is set; carries nothing itself.
struct PythonError {};

// Sets the error (formats as PyUnicode_FromFormat's) and throws PythonError.
[[noreturn]] void raise(PyObject* type, const char* format, ...);

// Turns a failing status of the C API (negative, error set) into PythonError.
inline int check(int status) {
    if (status < 0) throw PythonError{};
    return status;
}

// Whether the work was done; otherwise the error is pending. What answers an error with calls of the interpreter asks
// this: it may make none within a `catch` block.
template <class Work>
[[nodiscard]] bool succeeds(Work&& work) noexcept {
    try {
        std::forward<Work>(work)();
        return true;
    } catch (const PythonError&) {
        return false;
    } catch (const std::bad_alloc&) {
    }
    python(PyErr_NoMemory);
    return false;
}

// Keeps the pending error aside while it lives, so that work that cleans up may call the host.
class SavedError {
public:
    SavedError() noexcept { PyErr_Fetch(&type_, &value_, &traceback_); }
    ~SavedError() { python(PyErr_Restore, type_, value_, traceback_); }
    SavedError(const SavedError&) = delete;
    SavedError& operator=(const SavedError&) = delete;

private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
};

// Runs `work` at the boundary to Python: what it returns goes out, C++ exceptions become the null result that stands
// for a set error. `failure` is that result.
template <class Work, class Result>
Result guarded(Work&& work, Result failure) noexcept {
    Result result = failure;
    return succeeds([&] { result = std::forward<Work>(work)(); }) ? result : failure;
}

}  // namespace jdb
