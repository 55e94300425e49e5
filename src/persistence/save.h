// Writing the database file.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// Writes the whole database to self.filename as one JSON document. Whatever fails, the file holds the complete old or
// the complete new document, and the database in memory is unchanged.
Ref save(PyObject* self);

}  // namespace jdb::persistence
