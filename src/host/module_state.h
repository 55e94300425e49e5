// What one import binds for good. All else is found through the module's namespace each time that it is needed.
#pragma once

#include "host/names.h"
#include "host/object.h"

namespace jdb {

struct ModuleState {
    PyObject* module = nullptr;    // owned; the module object, which later imports are given again
    PyObject* globals = nullptr;   // owned; its namespace
    PyObject* builtins = nullptr;  // owned; the built-ins' namespace
    PyObject* print = nullptr;     // owned, as all that follow; the built-ins as import found them
    PyObject* open = nullptr;
    PyObject* bytes_io = nullptr;  // of the module io
    PyObject* text_io_wrapper = nullptr;
    PyObject* date_type = nullptr;  // the interpreter's own datetime.date; null where there is none
};

inline constinit ModuleState module_state;

// The object that a method finds under a global name: in the module's namespace, else among the built-ins.
Ref global(PyObject* name);

}  // namespace jdb
