// Writing a document of Python objects as JSON, byte for byte as json.dump does with default=str and
// ensure_ascii=False.
#pragma once

#include "host/ref.h"
#include "persistence/output_buffer.h"

namespace jdb::persistence {

// Gives the JSON to the sink, piece by piece. Python code runs where json.dump runs it: str() of a value of another
// type, methods of subclasses of built-in types; what it changes is seen as json.dump would see it. Raises what
// json.dump would raise; for a lone surrogate, what the file would raise that it writes to.
void write_json(PyObject* document, const Sink& sink);

// Lets the writer know the native date types; to be called once, at import, with the module datetime. The type of
// dates, or an empty Ref where the module has only types written in Python.
Ref import_date_types(PyObject* datetime);

}  // namespace jdb::persistence
