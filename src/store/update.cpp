// Withdrawal of the old index entries, validation, the new row, its index entries, the file, in this order. A failure
// before the file is undone, latest step first; a failing save leaves the new row in memory.
#include "store/update.h"

#include "tables/database.h"
#include "tables/indexes.h"
#include "tables/rows.h"

namespace jdb::store {

Ref update(PyObject* self, PyObject* table_name, PyObject* row_id, PyObject* new_data) {
    const Ref table = require_table(self, table_name);
    Py_ssize_t position = 0;
    const Ref rows = get_attribute(table, names::rows);
    if (!has_row(rows, row_id, position)) {
        const Ref id_string = str_of(row_id);
        raise(PyExc_IndexError, "Row index %U out of range", static_cast<PyObject*>(id_string));
    }
    settle_indexes(table);

    const Ref old_row = get_item(rows, position);
    RowChange change(table, row_id);
    change.withdraw(old_row);
    const Ref validated = call_method(self, names::validate_row, {table, new_data}, {{names::update, Py_True}});
    const Ref new_row = make_row(table, validated);
    change.put(new_row);
    change.add(new_row);
    change.keep();

    call_method(self, names::save);
    return Ref::boolean(true);
}

}  // namespace jdb::store
