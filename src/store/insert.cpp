// Validation, the row, its index entries, the file, in this order. A failure before the file is undone and leaves
// neither entry nor id behind; a failing save leaves row and entries in memory.
#include "store/insert.h"

#include "tables/database.h"
#include "tables/indexes.h"
#include "tables/rows.h"

namespace jdb::store {

Ref insert(PyObject* self, PyObject* table_name, PyObject* data) {
    const Ref table = require_table(self, table_name);
    settle_indexes(table);
    const Ref validated = call_method(self, names::validate_row, {table, data});
    const Ref row = make_row(table, validated);

    const Ref rows = get_attribute(table, names::rows);
    Ref row_id = integer(length(rows));
    RowChange change(table, row_id);
    change.append(row);
    change.add(row);
    change.keep();

    call_method(self, names::save);
    return row_id;
}

}  // namespace jdb::store
