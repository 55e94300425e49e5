// The records Column and Table: data classes of the host, made when the module is imported.
#pragma once

#include "host/ref.h"

namespace jdb {

// New data classes that belong to the module whose namespace is `globals`; `dataclass` and `field` are the host's.
Ref make_column_class(PyObject* globals, PyObject* dataclass);
Ref make_table_class(PyObject* globals, PyObject* dataclass, PyObject* field);

}  // namespace jdb
