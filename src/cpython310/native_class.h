// Making a class whose methods are ordinary Python functions with native bodies. What looks at functions (inspect,
// pickle, mock, super) finds real ones; a call runs the native body.
#pragma once

#include <span>

#include "host/function.h"

namespace jdb {

// A new class of these methods, in their order. `globals` is the namespace of its functions, and names its module.
// Fills each method's parsed signature.
Ref make_class(const char* name, std::span<const Method> methods, PyObject* globals);

}  // namespace jdb
