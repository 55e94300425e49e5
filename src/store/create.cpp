// A new table is stored first, then its indexes are built, then the file is written; a failure of these leaves the
// table in memory. An index is in place while it is built, so a failure leaves what was listed so far.
#include "store/create.h"

#include "host/module_state.h"
#include "tables/database.h"
#include "tables/indexes.h"

namespace jdb::store {

Ref initialise(PyObject* self, PyObject* filename) {
    set_attribute(self, names::filename, filename);
    const Ref tables = new_dict();
    set_attribute(self, names::tables, tables);
    call_method(self, names::load);
    return Ref::none();
}

Ref create_table(PyObject* self, PyObject* table_name, PyObject* columns) {
    const Ref known = tables_of(self);
    if (contains(known, table_name)) raise(PyExc_ValueError, "Table '%U' already exists", table_name);

    const Ref table_class = global(names::Table);
    const Ref table = call(table_class, {}, {{names::name, table_name}, {names::columns, columns}});
    const Ref tables = tables_of(self);
    set_item(tables, table_name, table);
    call_method(self, names::build_indexes, {table_name});
    call_method(self, names::save);
    return Ref::boolean(true);
}

Ref build_indexes(PyObject* self, PyObject* table_name) {
    const Ref tables = tables_of(self);
    const Ref table = get_item(tables, table_name);
    const Ref indexes = new_dict();
    set_attribute(table, names::indexes, indexes);
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref unique = get_attribute(column, names::unique);
        if (!truth(unique)) continue;
        const Ref name = get_attribute(column, names::name);
        call_method(self, names::build_index, {table_name, name});
    }
    return Ref::none();
}

Ref build_index(PyObject* self, PyObject* table_name, PyObject* column_name) {
    const Ref tables = tables_of(self);
    const Ref table = get_item(tables, table_name);
    jdb::build_index(table, column_name);
    return Ref::none();
}

}  // namespace jdb::store
