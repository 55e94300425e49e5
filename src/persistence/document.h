// The database as one document of Python objects: what the file holds, member by member.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// A new document over the tables' own rows and indexes. Deleted rows are left out. A column index with keys that JSON
// has no form for is copied with their str() in their place; where that is the same for several keys, the list under it
// holds the ids of all.
Ref make_document(PyObject* tables);

}  // namespace jdb::persistence
