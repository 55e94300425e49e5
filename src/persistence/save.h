// Writing the database file.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// Writes the whole database to self.filename as one JSON document. None. Whatever fails, a regular file has the
// complete old or the complete new document, and the database in memory is unchanged; with another `open` than the
// interpreter's the file is what that `open` and a failing write make of it. Raises what json.dump raises, and OSError.
Ref save(PyObject* self);

}  // namespace jdb::persistence
