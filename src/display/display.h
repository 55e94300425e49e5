// Printing a table for people to read.
#pragma once

#include "host/ref.h"

namespace jdb::display {

// Prints a header, a rule, the rows that `select` gives for `limit`, and a count, through the built-in print. An
// unknown table or one without columns gets a one-line message instead. None.
Ref display_table(PyObject* self, PyObject* table_name, PyObject* limit);

}  // namespace jdb::display
