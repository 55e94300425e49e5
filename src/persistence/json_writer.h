// A document of Python objects as JSON text, byte for byte as json.dump writes it with default=str and
// ensure_ascii=False.
#pragma once

#include "host/ref.h"
#include "persistence/output_buffer.h"

namespace jdb::persistence {

// Hands the text to the sink, piece by piece. Python code runs where and when json.dump runs it: str() of a value of
// another type, the methods of a subclass of a built-in type; what it changes is seen as json.dump would see it. Raises
// what json.dump would raise, a lone surrogate being the error of the file that it writes to.
void write_json(PyObject* document, const Sink& sink);

// Makes the interpreter's own date types known, whose text is then made here; to be called once at import with the
// module datetime. The type of dates; an empty Ref where the module has none but types written in Python.
Ref import_date_types(PyObject* datetime);

}  // namespace jdb::persistence
