// A class of native methods that are ordinary Python functions: everything that looks at functions (inspect, pickle,
// mock, super) meets real ones, and a call runs the native body.
#pragma once

#include <span>

#include "host/function.h"

namespace jdb {

// Makes a class of these methods, in their order, whose functions have `globals` as their namespace.
Ref make_class(const char* name, std::span<const Method> methods, PyObject* globals);

}  // namespace jdb
