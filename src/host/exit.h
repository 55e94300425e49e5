// The interpreter's end, seen from a thread that is still at work. Once the main thread finalizes the interpreter, any
// other thread that asks for the GIL is ended there and then: its stack is unwound, and on the way destructors would
// touch Python objects without the GIL. So the unwinding is caught in the innermost frame of this module, before
// any of its destructors, and the thread rests until the process is gone.
//
// Therefore every call of the C API that may run Python code goes through `python`; the dropping of a reference and
// the making of a container do, too, by way of finalizers. And none stands in a `catch` block: within a block of its
// own the C++ library takes the unwinding for a second exception, and ends the process. `succeeds` keeps them apart.
#pragma once

#include <cxxabi.h>

#include <utility>

namespace jdb {

[[noreturn]] void rest_until_exit() noexcept;

// Calls a function of the C API that may run Python code, or wait for the GIL.
template <class Function, class... Arguments>
[[gnu::always_inline]] inline decltype(auto) python(Function&& function, Arguments&&... arguments) {
    try {
        return std::forward<Function>(function)(std::forward<Arguments>(arguments)...);
    } catch (abi::__forced_unwind&) {
        rest_until_exit();
    }
}

}  // namespace jdb
