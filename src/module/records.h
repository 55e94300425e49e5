// Column and Table: ordinary data classes, made when the module is imported.
#pragma once

#include "host/ref.h"

namespace jdb {

// New data classes of the module whose namespace is `globals`. `dataclass` and `field` are those of the module
// dataclasses.
Ref make_column_class(PyObject* globals, PyObject* dataclass);
Ref make_table_class(PyObject* globals, PyObject* dataclass, PyObject* field);

}  // namespace jdb
