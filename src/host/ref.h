// Ref owns one reference to a Python object, or none. A raw PyObject* in this code always borrows.
#pragma once

#include <cassert>
#include <utility>

#include "host/error.h"
#include "host/python.h"

namespace jdb {

// Drops an owned reference, if there is one. May run Python code.
inline void drop(PyObject* object) {
    if (object != nullptr) python([object] { Py_DECREF(object); });
}

class Ref {
public:
    Ref() noexcept = default;
    Ref(const Ref& other) noexcept : object_(other.object_) { Py_XINCREF(object_); }
    Ref(Ref&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    Ref& operator=(Ref other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Ref() { drop(object_); }

    // Takes over the new reference that a call of the C API returned; PythonError where it is null.
    static Ref steal(PyObject* object) {
        if (object == nullptr) throw PythonError{};
        return Ref(object);
    }
    // Adds a reference to a borrowed object, which is not null.
    static Ref borrow(PyObject* object) noexcept {
        assert(object != nullptr);
        Py_INCREF(object);
        return Ref(object);
    }
    static Ref none() noexcept { return borrow(Py_None); }
    static Ref boolean(bool value) noexcept { return borrow(value ? Py_True : Py_False); }

    // The borrowed pointer, from named values only: one taken from a temporary would dangle.
    operator PyObject*() const& noexcept { return object_; }  // NOLINT(google-explicit-constructor)
    operator PyObject*() const&& = delete;
    explicit operator bool() const noexcept { return object_ != nullptr; }

    // Gives the reference to the caller, who then owns it.
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }

private:
    explicit Ref(PyObject* object) noexcept : object_(object) {}
    PyObject* object_ = nullptr;
};

}  // namespace jdb
