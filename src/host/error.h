// Errors of the host: how they are raised, carried through C++ code, put aside, and handed back at the boundary.
#pragma once

#include <new>
#include <utility>

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

// Keeps the pending error aside while it lives, so that work that cleans up may call the host.
class SavedError {
public:
    SavedError() noexcept { PyErr_Fetch(&type_, &value_, &traceback_); }
    ~SavedError() { PyErr_Restore(type_, value_, traceback_); }
    SavedError(const SavedError&) = delete;
    SavedError& operator=(const SavedError&) = delete;

private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
};

// Runs one step of taking something back, under a SavedError. Its own failure must not stop the steps that follow, so
// the host reports it as unraisable.
template <class Step>
void attempt(Step step) noexcept {
    try {
        step();
    } catch (const PythonError&) {
        PyErr_WriteUnraisable(nullptr);
    }
}

// Makes the pending error the one being handled, as an `except` block does: until the guard is gone, an error raised
// has it as context.
class HandledError {
public:
    HandledError() noexcept;
    ~HandledError();
    HandledError(const HandledError&) = delete;
    HandledError& operator=(const HandledError&) = delete;

    // Borrowed, as long as the guard lives and has not re-raised it; the traceback may be null.
    [[nodiscard]] PyObject* type() const noexcept { return type_; }
    [[nodiscard]] PyObject* value() const noexcept { return value_; }
    [[nodiscard]] PyObject* traceback() const noexcept { return traceback_; }
    // Makes it the pending error again, unchanged, and throws.
    [[noreturn]] void reraise();

private:
    PyObject* type_ = nullptr;
    PyObject* value_ = nullptr;
    PyObject* traceback_ = nullptr;
    PyObject* outer_type_ = nullptr;
    PyObject* outer_value_ = nullptr;
    PyObject* outer_traceback_ = nullptr;
};

// Runs `work` at the boundary to the host: what it returns goes out, C++ exceptions become the null result
// that stands for a set error. `failure` is that result.
template <class Work, class Result>
Result guarded(Work&& work, Result failure) noexcept {
    try {
        return std::forward<Work>(work)();
    } catch (const PythonError&) {
        return failure;
    } catch (const std::bad_alloc&) {
        PyErr_NoMemory();
        return failure;
    }
}

}  // namespace jdb
