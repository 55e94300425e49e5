// Reading the database file.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// Replaces self.tables by what the file at self.filename holds; a missing file changes nothing. An error is reported
// in a printed line and goes on. A file that can't be read or parsed leaves the tables as they were; one of the wrong
// shape leaves the tables that came before the fault.
Ref load(PyObject* self);

}  // namespace jdb::persistence
