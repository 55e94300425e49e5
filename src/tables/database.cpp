// Looking up tables and methods. Only reads.
#include "tables/database.h"

#include <array>
#include <cassert>

#include "cpython310/own_fields.h"

namespace jdb {
namespace {

struct Original {
    Name& name;
    PyObject* function = nullptr;  // owned, for as long as the process lives
    PyObject* defaults = nullptr;  // owned, or null
};

std::array<Original, 2> originals{{{names::row_to_dict}, {names::project_row}}};

}  // namespace

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

bool has_original(PyObject* self, Name& method) {
    const Original& original = &method == &originals[0].name ? originals[0] : originals[1];
    assert(&original.name == &method && original.function != nullptr);
    return PyFunction_GetDefaults(original.function) == original.defaults &&
           has_method(self, original.name, original.function);
}

void note_originals(PyObject* database_class) {
    for (Original& original : originals) {
        Ref function = get_attribute(database_class, original.name);
        PyObject* defaults = PyFunction_GetDefaults(function);
        Py_XINCREF(defaults);
        Py_XDECREF(std::exchange(original.defaults, defaults));
        Py_XDECREF(std::exchange(original.function, function.release()));
    }
}

}  // namespace jdb
