// Reading the database file.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// Replaces self.tables by the tables of the file at self.filename; a missing file changes nothing. None. An error is
// printed in one line and raised. Where the file can't be read or parsed, the tables stay; where it has the wrong
// shape, the tables before the fault replace them.
Ref load(PyObject* self);

}  // namespace jdb::persistence
