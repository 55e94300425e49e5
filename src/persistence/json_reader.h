// Reading JSON natively into the objects that json.load makes. What is not plainly valid is left to json.load, which
// then raises the error.
#pragma once

#include <string_view>

#include "host/ref.h"

namespace jdb::persistence {

// The document as json.load reads it, except that equal short strings may be one object. An empty Ref where it gives
// up: at a syntax error, invalid UTF-8, a byte-order mark, a lone surrogate, nesting past a safe depth, a number out of
// the range of its type. Only handlers of signals run Python code; otherwise the collector is paused. `constants` is a
// dictionary of what NaN, Infinity and -Infinity are read as. A zero byte follows the end of `json`.
Ref read_json(std::string_view json, PyObject* constants);

}  // namespace jdb::persistence
