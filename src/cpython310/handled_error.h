// An error that native code handles, as an `except` block does.
#pragma once

#include "host/error.h"

namespace jdb {

// Takes the pending error, complete with value and traceback, and makes it the one being handled: until the guard is
// gone, an error raised has it as context and sys.exc_info() gives it. It lies on the interpreter's stack of handled
// errors in an item of its own, as the errors of a generator do: the items below, which may be other generators', stay
// as they are.
class HandledError {
public:
    HandledError() noexcept;
    ~HandledError();
    HandledError(const HandledError&) = delete;
    HandledError& operator=(const HandledError&) = delete;

    // Borrowed, as long as the guard lives and has not re-raised it; the traceback may be null.
    [[nodiscard]] PyObject* type() const noexcept { return item_.exc_type; }
    [[nodiscard]] PyObject* value() const noexcept { return item_.exc_value; }
    [[nodiscard]] PyObject* traceback() const noexcept { return item_.exc_traceback; }
    // Makes it the pending error again, unchanged, and throws.
    [[noreturn]] void reraise();

private:
    _PyErr_StackItem item_{};
};

}  // namespace jdb
