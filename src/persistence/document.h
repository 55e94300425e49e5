// The database as one document of host objects: what the file holds, member by member.
#pragma once

#include "host/ref.h"

namespace jdb::persistence {

// A new document over the tables' own rows and indexes. Deleted rows are left out; keys of a column index that JSON
// has no form for are given as their text.
Ref make_document(PyObject* tables);

// Whether JSON can hold the object as a member name.
bool can_be_member_name(PyObject* key);

}  // namespace jdb::persistence
