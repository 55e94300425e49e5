// Looking up tables. Only reads.
#include "records/database.h"

namespace jdb {

Ref require_table(PyObject* self, PyObject* table_name) {
    const Ref known = tables_of(self);
    if (!contains(known, table_name)) {
        const Ref message = unknown_table_text(table_name);
        raise(PyExc_ValueError, "%U", static_cast<PyObject*>(message));
    }
    const Ref tables = tables_of(self);
    return get_item(tables, table_name);
}

Ref unknown_table_text(PyObject* table_name) {
    return Ref::steal(PyUnicode_FromFormat("Table '%U' does not exist", table_name));
}

}  // namespace jdb
