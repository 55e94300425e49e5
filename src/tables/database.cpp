// Looking up tables and methods. Changes nothing but what is remembered of the original methods.
#include "tables/database.h"

#include <array>
#include <cassert>
#include <utility>

#include "cpython310/own_fields.h"
#include "cpython310/versions.h"

namespace jdb {
namespace {

struct Original {
    Name& name;
    PyObject* function = nullptr;  // owned until the process ends
    PyObject* defaults = nullptr;  // owned, or null
    Stamp last_unchanged;  // the last object seen that does not redefine it; get_row takes 1.15 times as long without
};

std::array<Original, 2> originals{
    {{names::row_to_dict, nullptr, nullptr, {}}, {names::project_row, nullptr, nullptr, {}}}};

}  // namespace

Ref require_table(PyObject* self, PyObject* table_name) {
    const Ref tables = tables_of(self);
    Ref table = item_if_key(tables, table_name);
    if (!table) {
        const Ref message = unknown_table_message(table_name);
        raise(PyExc_ValueError, "%U", static_cast<PyObject*>(message));
    }
    return table;
}

Ref unknown_table_message(PyObject* table_name) {
    return Ref::steal(PyUnicode_FromFormat("Table '%U' does not exist", table_name));
}

bool has_original(PyObject* self, Name& method) {
    Original& original = &method == &originals[0].name ? originals[0] : originals[1];
    assert(&original.name == &method && original.function != nullptr);
    if (PyFunction_GetDefaults(original.function) != original.defaults) return false;
    const Stamp stamp = stamp_of(self);
    if (stamp && stamp == original.last_unchanged) return true;
    if (!has_method(self, original.name, original.function)) return false;
    original.last_unchanged = stamp;
    return true;
}

void note_originals(PyObject* database_class) {
    for (Original& original : originals) {
        Ref function = get_attribute(database_class, original.name);
        PyObject* defaults = PyFunction_GetDefaults(function);
        Py_XINCREF(defaults);
        drop(std::exchange(original.defaults, defaults));
        drop(std::exchange(original.function, function.release()));
    }
}

}  // namespace jdb
