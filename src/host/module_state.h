// What is found once, at import. Everything else is looked up in the module's namespace at each use.
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

// One per process, as the module is; filled by the import.
inline constinit ModuleState module_state;

// The object that a Python function of the module would find under a global name: in the module's namespace, else
// among the built-ins. NameError where there is none.
Ref global(PyObject* name);

}  // namespace jdb
