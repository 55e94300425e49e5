// The database as one document of Python objects, with the members that the file has.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// A new document that refers to the tables' own rows and indexes. Deleted rows are left out. A column index with keys
// that JSON has no form for is copied with their str() in their place; keys with the same str() share one list of all
// their ids. The tables are not changed. Runs Python code where it meets other than plain objects, and raises its
// errors.
Ref make_document(PyObject* tables);

}  // namespace jdb::persistence
