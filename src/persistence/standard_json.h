// Whether the module's `json` is the standard library's, also in everything that json.dump and json.load look up: then
// the native writer and reader may stand in for it. Programs replace its functions, classes and settings, at any time.
// A Python function counts as standard if it was defined in the module of that name under the name by which it is
// found, a native one by its name. What is not looked up by name, such as a function's own defaults, is not examined.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// Whether json.dump(document, file, indent=None, ensure_ascii=False, default=str) writes what write_json writes.
bool dumps_as_standard(PyObject* json);

// The dictionary in which json.load finds NaN, Infinity and -Infinity, if json.load(file) reads what read_json reads;
// otherwise an empty Ref.
Ref standard_constants(PyObject* json);

}  // namespace jdb::persistence
