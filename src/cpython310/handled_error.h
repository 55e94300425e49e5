// Handling an exception in native code as an `except` block does.
#pragma once

#include "host/python.h"

namespace jdb {

// Makes the pending exception, which there is, the one being handled: while the guard lives, exceptions raised have it
// as context and sys.exc_info() gives it. It has an item of its own on the interpreter's stack of handled exceptions,
// as each generator has, so that the items below stay unchanged.
class HandledError {
public:
    HandledError() noexcept;
    ~HandledError();
    HandledError(const HandledError&) = delete;
    HandledError& operator=(const HandledError&) = delete;

    // Borrowed while the guard lives and has not re-raised it. The traceback may be null.
    [[nodiscard]] PyObject* type() const noexcept { return item_.exc_type; }
    [[nodiscard]] PyObject* value() const noexcept { return item_.exc_value; }
    [[nodiscard]] PyObject* traceback() const noexcept { return item_.exc_traceback; }
    // Makes it the pending error again, unchanged, and throws.
    [[noreturn]] void reraise();

private:
    _PyErr_StackItem item_{};
};

}  // namespace jdb
