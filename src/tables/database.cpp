// Looking up tables. Only reads.
#include "tables/database.h"

namespace jdb {

Ref require_table(PyObject* self, PyObject* table_name) {
    const Ref tables = tables_of(self);
    Ref table = item_if_key(tables, table_name);
    if (!table) {
        const Ref message = unknown_table_text(table_name);
        raise(PyExc_ValueError, "%U", static_cast<PyObject*>(message));
    }
    return table;
}

Ref unknown_table_text(PyObject* table_name) {
    return Ref::steal(PyUnicode_FromFormat("Table '%U' does not exist", table_name));
}

}  // namespace jdb
