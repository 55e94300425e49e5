// Rows to dictionaries, and dictionaries to the ids of their rows.
#pragma once

#include "host/ref.h"

namespace jdb::query {

// A new dictionary of the row's values by column name, in column order; with `columns`, of those columns only.
// IndexError for a row with too few values.
Ref row_to_dict(PyObject* self, PyObject* table, PyObject* row, PyObject* columns);

// A new dictionary of the entries that `columns` names, in its order, without names that the row lacks; with None, a
// copy.
Ref project_row(PyObject* self, PyObject* row_dict, PyObject* columns);

// The id of the row that the data describes: the first id listed under the data's value for a unique column, else that
// of the first row that is not deleted and has every entry of the data. None when there is none.
Ref dict_to_row_id(PyObject* self, PyObject* table, PyObject* data);

}  // namespace jdb::query
