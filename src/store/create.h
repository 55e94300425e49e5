// The constructor, the creation of tables and the building of their indexes.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Sets `filename` and an empty `tables`, then loads the file when there is one.
Ref initialise(PyObject* self, PyObject* filename);

// Adds a table over the caller's own list of columns and saves. True; ValueError when the name is taken.
Ref create_table(PyObject* self, PyObject* table_name, PyObject* columns);

// Starts the table's indexes anew, one for each unique column. KeyError for an unknown table.
Ref build_indexes(PyObject* self, PyObject* table_name);

// Builds one column's index from the rows that are not deleted. KeyError for an unknown table.
Ref build_index(PyObject* self, PyObject* table_name, PyObject* column_name);

}  // namespace jdb::store
