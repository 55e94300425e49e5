// Row data checked against a table's columns.
#pragma once

#include "host/ref.h"

namespace jdb::store {

// A new dictionary of one value per column, in column order: the caller's value or the default, coerced by the
// column's type keyword. ValueError at the first value that is missing, can't be coerced, does not match its pattern
// or duplicates a unique one. Changes nothing.
Ref validate_row(PyObject* self, PyObject* table, PyObject* data, PyObject* update);

}  // namespace jdb::store
