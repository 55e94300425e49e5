// A new table is stored before its indexes are built and the file is written; a failure of these leaves it in memory.
// An index that is being built is already in place, so that a failure leaves what was listed so far.
#include "store/create.h"

#include <optional>

#include "host/module_state.h"
#include "records/database.h"
#include "records/rows.h"

namespace jdb::store {
namespace {

// The position of the last column of that name, -1 when no column bears it.
Py_ssize_t last_position(PyObject* columns, PyObject* column_name) {
    Py_ssize_t found = -1;
    Py_ssize_t position = 0;
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        if (equal(name, column_name)) found = position;
        ++position;
    }
    return found;
}

void list_row(PyObject* table, PyObject* column_name, PyObject* value, Py_ssize_t row_id) {
    const Ref indexes = get_attribute(table, names::indexes);
    const Ref index = get_item(indexes, column_name);
    if (!contains(index, value)) {
        const Ref ids = new_list();
        set_item(index, value, ids);
    }
    const Ref ids = get_item(index, value);
    const Ref id = integer(row_id);
    append(ids, id);
}

}  // namespace

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
    const Ref indexes = get_attribute(table, names::indexes);
    const Ref empty = new_dict();
    set_item(indexes, column_name, empty);

    // The columns are asked for their names at the first row that needs it: a table without rows may hold anything.
    std::optional<Py_ssize_t> position;
    Py_ssize_t row_id = -1;
    const Ref rows = get_attribute(table, names::rows);
    for (const Ref& row : Iteration(rows)) {
        ++row_id;
        if (is_deleted(row)) continue;
        if (!position) {
            const Ref columns = get_attribute(table, names::columns);
            position = last_position(columns, column_name);
        }
        const Ref value = *position < 0 ? Ref::none() : get_item(row, *position);
        list_row(table, column_name, value, row_id);
    }
    return Ref::none();
}

}  // namespace jdb::store
