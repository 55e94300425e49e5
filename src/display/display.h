// A table printed for a person to read.
#pragma once

#include "host/ref.h"

namespace jdb::display {

// Prints a header, a rule, at most `limit` rows and a count, through the host's print. An unknown table and one without
// columns are said in a line.
Ref display_table(PyObject* self, PyObject* table_name, PyObject* limit);

}  // namespace jdb::display
