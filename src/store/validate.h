// Checking row data against a table's columns.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// A new dictionary of one value per column, in column order: the data's value or the default, converted as the column's
// type keyword asks. ValueError for the first value that is missing, can't be converted, does not match its pattern or
// duplicates a unique one. Changes no row; may rebuild marked indexes.
Ref validate_row(PyObject* self, PyObject* table, PyObject* data, PyObject* update);

}  // namespace jdb::store
