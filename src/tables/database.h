// The database object as its methods see it: looking up a table, and whether a method is redefined.
#pragma once

#include "host/object.h"

namespace jdb {

// self.tables, read anew at each use: Python code may assign another.
inline Ref tables_of(PyObject* self) { return get_attribute(self, names::tables); }

// The table of that name. ValueError where there is none.
Ref require_table(PyObject* self, PyObject* table_name);

// The message for an unknown table, which require_table raises and display_table prints.
Ref unknown_table_message(PyObject* table_name);

// Whether self.<method> certainly is the method that import made, with its defaults: neither the class nor the instance
// redefines it. `method` is names::row_to_dict or names::project_row. Runs no Python code.
bool has_original(PyObject* self, Name& method);

// Remembers these methods of the class as the originals. To be called once it is made.
void note_originals(PyObject* database_class);

}  // namespace jdb
