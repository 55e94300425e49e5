// The index entries go first, then the row, then the file is written. A failure before the file is undone, and the row
// stays. Rows that clear_table deleted before such a failure stay deleted.
#include "store/remove.h"

#include "tables/database.h"
#include "tables/indexes.h"
#include "tables/rows.h"

namespace jdb::store {
namespace {

void remove_row(PyObject* table, PyObject* row_id) {
    const Ref rows = get_attribute(table, names::rows);
    const Ref row = get_item(rows, row_id);
    RowChange change(table, row_id);
    change.withdraw(row);
    const Ref columns = get_attribute(table, names::columns);
    const Ref tombstone = make_tombstone(columns);
    change.put(tombstone);
    change.keep();
}

}  // namespace

Ref delete_row(PyObject* self, PyObject* table_name, PyObject* row_id) {
    const Ref table = require_table(self, table_name);
    Py_ssize_t position = 0;
    const Ref rows = get_attribute(table, names::rows);
    if (!has_row(rows, row_id, position)) raise(PyExc_IndexError, "Row index out of range");
    settle_indexes(table);
    remove_row(table, row_id);
    call_method(self, names::save);
    return Ref::boolean(true);
}

Ref clear_table(PyObject* self, PyObject* table_name) {
    const Ref table = require_table(self, table_name);
    settle_indexes(table);
    const Ref rows = get_attribute(table, names::rows);
    const Py_ssize_t count = length(rows);
    for (Py_ssize_t i = 0; i < count; ++i) {
        const Ref row_id = integer(i);
        remove_row(table, row_id);
        check_signals();
    }
    call_method(self, names::save);
    return Ref::boolean(true);
}

}  // namespace jdb::store
