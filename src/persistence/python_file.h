// File objects of Python.
#pragma once

#include "cpython310/handled_error.h"
#include "host/object.h"

namespace jdb::persistence {

// `with file as entered: use(entered)`: the file is closed on success and on failure. Raises the errors of `use`,
// unless the file's `__exit__` suppresses them, and those of closing.
template <class Use>
void with_file(PyObject* file, Use use) {
    const Ref exit = get_attribute(file, names::dunder_exit);
    const Ref entered = call_method(file, names::dunder_enter);
    if (succeeds([&] { use(entered); })) {
        call(exit, {Py_None, Py_None, Py_None});
        return;
    }
    HandledError error;
    PyObject* traceback = error.traceback() == nullptr ? Py_None : error.traceback();
    const Ref suppressed = call(exit, {error.type(), error.value(), traceback});
    if (!truth(suppressed)) error.reraise();
}

}  // namespace jdb::persistence
