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
    PyObject* string_io = nullptr;  // of the module io
    PyObject* buffered_reader = nullptr;
    PyObject* bytes_io = nullptr;
    PyObject* text_io_wrapper = nullptr;
    PyObject* date_type = nullptr;  // the interpreter's own datetime.date; null where there is none
    PyObject* json = nullptr;       // the module, and two functions of it, that the fast roads stand for, or null
    PyObject* json_dump = nullptr;
    PyObject* json_load = nullptr;
    PyObject* nan = nullptr;         // the object that json.load makes of NaN
    PyObject* gc_collect = nullptr;  // of the module gc
    PyObject* gc_freeze = nullptr;
    PyObject* gc_unfreeze = nullptr;
    PyObject* gc_get_freeze_count = nullptr;
};

inline constinit ModuleState module_state;

// The object that a method finds under a global name: in the module's namespace, else among the built-ins.
Ref global(PyObject* name);

}  // namespace jdb
