// Native methods: how a call's arguments reach a C++ body. The signature, written as in a `def` statement, gives a
// method's name, parameters, defaults, annotations, argument checks and documentation.
#pragma once

#include <array>
#include <cstddef>
#include <utility>

#include "host/python.h"
#include "host/ref.h"
#include "host/signature.h"

namespace jdb {

// A row of the table of methods.
struct Method {
    const char* signature;
    const char* description;  // null for none
    vectorcallfunc entry;
    Signature* parsed;  // filled by make_class
};

// Binds a call's arguments to the parameters, missing ones to the function's defaults; then converts them, and tests
// their types. `bound` has an empty Ref for each parameter. TypeError for arguments that don't fit; conversions may run
// Python code and raise its errors.
void bind_arguments(const Signature& signature, PyObject* function, PyObject* const* arguments, std::size_t count,
                    PyObject* keyword_names, Ref* bound);

// Counts a call towards the interpreter's recursion limit while it lives; RecursionError past the limit.
class RecursionGuard {
public:
    RecursionGuard() {
        // Not `check`: a refusal may be a positive number. It leaves nothing to be undone.
        if (python(Py_EnterRecursiveCall, " while calling a Python object") != 0) throw PythonError{};
    }
    ~RecursionGuard() { Py_LeaveRecursiveCall(); }
    RecursionGuard(const RecursionGuard&) = delete;
    RecursionGuard& operator=(const RecursionGuard&) = delete;
};

// The call slot's function for one body, which takes its arguments borrowed and returns an owned result.
template <auto body>
struct Entry;

template <class... Arguments, Ref (*body)(Arguments...)>
struct Entry<body> {
    static constexpr std::size_t kCount = sizeof...(Arguments);
    static_assert(kCount <= Signature::kMaxParameters);
    static inline Signature signature;

    static PyObject* call(PyObject* function, PyObject* const* arguments, std::size_t flagged_count,
                          PyObject* keyword_names) noexcept {
        return guarded(
            [&]() -> PyObject* {
                const RecursionGuard guard;
                std::array<Ref, kCount> bound;
                bind_arguments(signature, function, arguments,
                               static_cast<std::size_t>(PyVectorcall_NARGS(flagged_count)), keyword_names,
                               bound.data());
                return run(bound, std::make_index_sequence<kCount>{});
            },
            static_cast<PyObject*>(nullptr));
    }

private:
    template <std::size_t... positions>
    static PyObject* run(const std::array<Ref, kCount>& bound, std::index_sequence<positions...> /*positions*/) {
        return body(bound[positions]...).release();
    }
};

// The row for one body. The signature has as many parameters as the body.
template <auto body>
constexpr Method method(const char* signature, const char* description = nullptr) {
    return {signature, description, &Entry<body>::call, &Entry<body>::signature};
}

}  // namespace jdb
