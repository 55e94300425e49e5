// Whether the module's `json` is the standard library's, also in all that json.dump and json.load look up in turn.
// Other people put functions, classes and settings of their own in its places, before the import or at any time after.
// A Python function is the standard one if it was defined in the module of that name under the name that it is found
// by, a native one if it is the native module's. What is not looked up in a name, such as a function's own defaults,
// is not asked about.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// Whether json.dump(document, file, indent=None, ensure_ascii=False, default=str) writes what write_json writes.
bool dumps_as_standard(PyObject* json);

// Where json.load(file) reads what read_json reads: the dictionary in which it finds the words NaN, Infinity and
// -Infinity. Otherwise an empty Ref.
Ref standard_constants(PyObject* json);

}  // namespace jdb::persistence
