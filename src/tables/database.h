// The database object as its methods see it: its tables, and the message shared by all that look one up.
#pragma once

#include "tables/fields.h"

namespace jdb {

// self.tables, read anew each time: the host may assign another.
inline Ref tables_of(PyObject* self) { return get_field(self, names::tables); }

// The table of that name; ValueError where there is none.
Ref require_table(PyObject* self, PyObject* table_name);

// The texts for an unknown table: require_table raises it, a display prints it.
Ref unknown_table_text(PyObject* table_name);

}  // namespace jdb
