// Ref owns one reference to a host object. A raw PyObject* in this code borrows, always.
#pragma once

#include <utility>

#include "host/error.h"
#include "host/python.h"

namespace jdb {

// Drops an owned reference, if there is one.
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

    // Takes over the new reference that a call returned; throws when the call failed.
    static Ref steal(PyObject* object) {
        if (object == nullptr) throw PythonError{};
        return Ref(object);
    }
    // Adds a reference to a lent object, which must be there.
    static Ref borrow(PyObject* object) noexcept {
        Py_INCREF(object);
        return Ref(object);
    }
    static Ref none() noexcept { return borrow(Py_None); }
    static Ref boolean(bool value) noexcept { return borrow(value ? Py_True : Py_False); }

    // A lent pointer, from named values only: one taken from a temporary would dangle.
    operator PyObject*() const& noexcept { return object_; }  // NOLINT(google-explicit-constructor)
    operator PyObject*() const&& = delete;
    explicit operator bool() const noexcept { return object_ != nullptr; }

    // Gives the reference away, to a call that takes it over.
    [[nodiscard]] PyObject* release() noexcept { return std::exchange(object_, nullptr); }

private:
    explicit Ref(PyObject* object) noexcept : object_(object) {}
    PyObject* object_ = nullptr;
};

}  // namespace jdb
