// JSON text read natively into the objects that json.load makes of it. What is not plainly valid it leaves to
// json.load, whose error then is the error.
#pragma once

#include <string_view>

#include "host/ref.h"

namespace jdb::persistence {

// The document, as json.load reads it, but that equal short strings may be one object. An empty Ref when it gives up:
// at a syntax error, invalid UTF-8, a byte-order mark, nesting past a safe depth, a lone surrogate, a number beyond the
// range of its type. The collector pauses, but for the handlers of signals, the only Python code that runs.
// `constants` holds what NaN, Infinity and -Infinity are read as. A zero byte stands behind the text.
Ref read_json(std::string_view text, PyObject* constants);

}  // namespace jdb::persistence
