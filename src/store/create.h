// The constructor, the creation of tables and the building of their indexes.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// Sets `filename` and an empty `tables`, then loads the file when there is one. None, or the error of the load.
Ref initialise(PyObject* self, PyObject* filename);

// Adds a table with the caller's own list of columns, builds its indexes and saves. True. ValueError when the name is
// taken; an error after that leaves the table in memory.
Ref create_table(PyObject* self, PyObject* table_name, PyObject* columns);

// Starts the table's indexes anew, one for each unique column. None. KeyError for an unknown table; an error after that
// leaves what was listed so far.
Ref build_indexes(PyObject* self, PyObject* table_name);

// Builds one column's index from the rows that are not deleted. None. KeyError for an unknown table; an error after
// that leaves what was listed so far.
Ref build_index(PyObject* self, PyObject* table_name, PyObject* column_name);

}  // namespace jdb::store
