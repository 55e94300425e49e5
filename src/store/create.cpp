// A new table is stored before its indexes are built and the file is written; a failure of these leaves it in memory.
// An index that is being built is already in place, so that a value's refusal leaves what was listed so far; an
// interrupt or a lack of memory, which may come anywhere, leaves the earlier indexes.
#include "store/create.h"

#include <optional>

#include "host/collector.h"
#include "host/module_state.h"
#include "tables/database.h"
#include "tables/fields.h"
#include "tables/rows.h"

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

// Runs `work`. Where an accident ends it, and not the refusal of a value, `put_back` follows.
template <class Work, class PutBack>
void put_back_after_accident(Work work, PutBack put_back) {
    try {
        work();
    } catch (const PythonError&) {
        if (PyErr_ExceptionMatches(PyExc_Exception) == 0 || PyErr_ExceptionMatches(PyExc_MemoryError) != 0) {
            const SavedError error;
            attempt(put_back);
        }
        throw;
    }
}

void list_rows(PyObject* table, PyObject* column_name) {
    const CollectorPaused paused;  // it would look through the lists made here time and again, and all are kept
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
}

void build_unique_indexes(PyObject* self, PyObject* table, PyObject* table_name) {
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref unique = get_attribute(column, names::unique);
        if (!truth(unique)) continue;
        const Ref name = get_attribute(column, names::name);
        call_method(self, names::build_index, {table_name, name});
    }
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
    PyObject* own = own_field(table, names::indexes);
    const Ref earlier = own == nullptr ? Ref{} : Ref::borrow(own);
    const Ref indexes = new_dict();
    set_attribute(table, names::indexes, indexes);
    put_back_after_accident([&] { build_unique_indexes(self, table, table_name); },
                            [&] {
                                if (earlier) set_attribute(table, names::indexes, earlier);
                            });
    return Ref::none();
}

Ref build_index(PyObject* self, PyObject* table_name, PyObject* column_name) {
    const Ref tables = tables_of(self);
    const Ref table = get_item(tables, table_name);
    const Ref indexes = get_attribute(table, names::indexes);
    const bool plain = PyDict_CheckExact(static_cast<PyObject*>(indexes));
    const Ref earlier = plain ? find_item(indexes, column_name) : Ref{};
    const Ref empty = new_dict();
    set_item(indexes, column_name, empty);
    put_back_after_accident([&] { list_rows(table, column_name); },
                            [&] {
                                if (earlier) {
                                    set_item(indexes, column_name, earlier);
                                } else if (plain) {
                                    check(PyDict_DelItem(indexes, column_name));
                                }
                            });
    return Ref::none();
}

}  // namespace jdb::store
