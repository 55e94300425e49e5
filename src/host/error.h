// Python exceptions in C++: raised where the error happens, carried as PythonError, handed back at the boundary.
#pragma once

#include <new>
#include <utility>

#include "host/exit.h"
#include "host/python.h"

namespace jdb {

// Thrown while the interpreter's error indicator is set, which holds the exception. Carries nothing itself.
struct PythonError {};

// Raises an exception of that type; `format` is as PyUnicode_FromFormat's. Where the message can't be made, the error
// of making it is raised instead.
[[noreturn]] void raise(PyObject* type, const char* format, ...);

// The status of a call of the C API; PythonError where it is negative, which means that the error is set.
inline int check(int status) {
    if (status < 0) throw PythonError{};
    return status;
}

// Runs `work`. False when it failed: then the Python exception is pending, MemoryError for lack of C++ memory. It
// takes the place of a `catch` block, in which the interpreter must not be called. No other C++ exception may leave
// `work`: it would end the process.
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

// Keeps the pending error aside while it lives, so that clean-up may call the interpreter; puts it back at the end.
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

// Runs `work` at the boundary to Python, and returns its result; `failure`, with the error set, when it failed.
template <class Work, class Result>
Result guarded(Work&& work, Result failure) noexcept {
    Result result = failure;
    return succeeds([&] { result = std::forward<Work>(work)(); }) ? result : failure;
}

}  // namespace jdb
