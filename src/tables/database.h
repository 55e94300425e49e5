// The database object as its methods see it: its tables, the message shared by all that look one up, and which of its
// methods are the original ones.
#pragma once

#include "host/object.h"

namespace jdb {

// self.tables, read anew each time: Python code may assign another.
inline Ref tables_of(PyObject* self) { return get_attribute(self, names::tables); }

// The table of that name; ValueError where there is none.
Ref require_table(PyObject* self, PyObject* table_name);

// The message for an unknown table: require_table raises it, a display prints it.
Ref unknown_table_message(PyObject* table_name);

// Whether self.<method> is the one that import made, with its defaults, on a class and an instance that redefine
// neither it nor the look-up. One of `_row_to_dict` and `_project_row`.
bool has_original(PyObject* self, Name& method);

// Notes the methods of the class just made as the originals.
void note_originals(PyObject* database_class);

}  // namespace jdb
