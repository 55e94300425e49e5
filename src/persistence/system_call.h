// Calls of the operating system, run without the GIL and repeated after signals, with failures as OSError.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <utility>

#include "host/ref.h"

namespace jdb::persistence {

// Releases the GIL while it lives, so that other threads run.
class GilReleased {
public:
    GilReleased() noexcept : state_(PyEval_SaveThread()) {}
    ~GilReleased() { python(PyEval_RestoreThread, state_); }
    GilReleased(const GilReleased&) = delete;
    GilReleased& operator=(const GilReleased&) = delete;

private:
    PyThreadState* state_;
};

// The result of a system call, negative on failure, and the error number, 0 on success.
struct Outcome {
    ssize_t result;
    int error;
};

// Runs a system call without the GIL, and again while signals interrupt it. The call touches no Python object.
template <class SystemCall>
Outcome run(SystemCall system_call) {
    const GilReleased released;
    for (;;) {
        const ssize_t result = system_call();
        if (result >= 0) return {result, 0};
        if (errno != EINTR) return {result, errno};
    }
}

// Whether the error says that the system, the file system or the process's rights don't allow the call; there is
// another way then.
bool is_unavailable(int error);

// Raises the OSError of that number for that file. A remark is added to the system's message in parentheses.
[[noreturn]] void raise_os_error(int error, PyObject* filename, const char* remark = nullptr);

// An open descriptor, closed when it goes out of scope. A negative one (AT_FDCWD too) needs no closing.
class Descriptor {
public:
    explicit Descriptor(ssize_t number = -1) noexcept : number_(static_cast<int>(number)) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int number() const noexcept { return number_; }
    // Closes it, if it is open, without the GIL. 0, or the error number.
    int close() noexcept;

private:
    int number_;
};

}  // namespace jdb::persistence
