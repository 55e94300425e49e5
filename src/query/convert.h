// Rows as dictionaries and back.
#pragma once

#include "host/ref.h"

namespace jdb::query {

// The row's values by column name, in column order; with `columns`, only those that it names.
Ref row_to_dict(PyObject* self, PyObject* table, PyObject* row, PyObject* columns);

// A new dictionary of the entries that `columns` names, in its order; None stands for all.
Ref project_row(PyObject* self, PyObject* row_dict, PyObject* columns);

// The id of the row that the data describes: the first one listed under a unique column's value, else the first that
// is not deleted and holds every entry. None when there is none.
Ref dict_to_row_id(PyObject* self, PyObject* table, PyObject* data);

}  // namespace jdb::query
