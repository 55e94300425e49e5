// The end of the interpreter, seen from a thread still at work. Once the main thread finalizes the interpreter, any
// other thread that asks for the GIL is ended there: its stack is unwound, and destructors would touch Python objects
// without the GIL. `python` catches the unwinding before any destructor of this module runs, and the thread rests.
//
// Every call of the C API that may run Python code goes through `python`. Dropping a reference and making a container
// are such calls: they may run finalizers. None is made in a `catch` block: there the C++ library would take the
// unwinding for a second exception and end the process. `succeeds` is for that.
#pragma once

#include <cxxabi.h>

#include <utility>

namespace jdb {

// Holds the thread until the process is gone.
[[noreturn]] void rest_until_exit() noexcept;

// Calls a function of the C API that may run Python code or wait for the GIL, and returns its result. Does not return
// in a thread that the interpreter ends.
template <class Function, class... Arguments>
[[gnu::always_inline]] inline decltype(auto) python(Function&& function, Arguments&&... arguments) {
    try {
        return std::forward<Function>(function)(std::forward<Arguments>(arguments)...);
    } catch (abi::__forced_unwind&) {
        rest_until_exit();
    }
}

}  // namespace jdb
