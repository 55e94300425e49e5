// Calls of the operating system: run without the GIL, through interrupts, their failures as OSError.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <utility>

#include "host/ref.h"

namespace jdb::persistence {

// Lets other threads run while it lives.
class GilReleased {
public:
    GilReleased() noexcept : state_(PyEval_SaveThread()) {}
    ~GilReleased() { python(PyEval_RestoreThread, state_); }
    GilReleased(const GilReleased&) = delete;
    GilReleased& operator=(const GilReleased&) = delete;

private:
    PyThreadState* state_;
};

// What a system call gave: its result, negative on failure, and the error number, 0 on success.
struct Outcome {
    ssize_t result;
    int error;
};

// Runs a system call without the GIL, again while a signal interrupts it.
template <class SystemCall>
Outcome run(SystemCall system_call) {
    const GilReleased released;
    for (;;) {
        const ssize_t result = system_call();
        if (result >= 0) return {result, 0};
        if (errno != EINTR) return {result, errno};
    }
}

// Whether the system or a file system has no such call, or grants it to others only: a way round it is taken then.
bool is_unavailable(int error);

// Raises the OSError of that number for that file. A remark goes in brackets behind the system's words.
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
    // Lets other threads run meanwhile. 0, or the error number.
    int close() noexcept;

private:
    int number_;
};

}  // namespace jdb::persistence
