// The rows are selected, then the widths found, then the lines printed one by one; an error leaves those printed so
// far. Widths count the characters of Python strings. Nothing of the database is changed.
#include "display/display.h"

#include "host/module_state.h"
#include "tables/database.h"
#include "tables/walk.h"

namespace jdb::display {
namespace {

void print(PyObject* line) { call(module_state.print, {line}); }

Ref column_names(PyObject* table) {
    Ref result = new_list();
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        const Ref name = get_attribute(column, names::name);
        append(result, name);
    }
    return result;
}

void widen(PyObject* widths, PyObject* key, PyObject* string) {
    const Ref needed = integer(length(string));
    const Ref current = get_item(widths, key);
    if (check(python(PyObject_RichCompareBool, needed, current, Py_GT)) != 0) set_item(widths, key, needed);
}

Ref column_widths(PyObject* columns, PyObject* rows) {
    Ref widths = new_dict();
    for (const Ref& name : Iteration(columns)) {
        const Ref width = integer(length(name));
        set_item(widths, name, width);
    }
    for (const Ref& row : Iteration(rows)) {
        const Ref items = call_method(row, names::items);
        for (const Ref& item : Iteration(items)) {
            const Ref key = get_item(item, Py_ssize_t{0});
            const Ref value = get_item(item, Py_ssize_t{1});
            const Ref string = str_of(value);
            widen(widths, key, string);
        }
    }
    return widths;
}

Ref join(PyObject* cells) {
    const Ref separator = new_string(" | ");
    return Ref::steal(python(PyUnicode_Join, separator, cells));
}

Ref pad(PyObject* string, PyObject* widths, PyObject* name) {
    const Ref width = get_item(widths, name);
    return call_method(string, names::ljust, {width});
}

Ref header_line(PyObject* columns, PyObject* widths) {
    const Ref cells = new_list();
    for (const Ref& name : Iteration(columns)) {
        const Ref cell = pad(name, widths, name);
        append(cells, cell);
    }
    return join(cells);
}

Ref row_line(PyObject* row, PyObject* columns, PyObject* widths) {
    const Ref missing = new_string("");
    const Ref cells = new_list();
    for (const Ref& name : Iteration(columns)) {
        const Ref value = call_method(row, names::get, {name, missing});
        const Ref string = str_of(value);
        const Ref cell = pad(string, widths, name);
        append(cells, cell);
    }
    return join(cells);
}

}  // namespace

Ref display_table(PyObject* self, PyObject* table_name, PyObject* limit) {
    const Ref tables = tables_of(self);
    if (!contains(tables, table_name)) {
        const Ref message = unknown_table_message(table_name);
        print(message);
        return Ref::none();
    }
    const Ref current_tables = tables_of(self);
    const Ref table = get_item(current_tables, table_name);
    const Ref columns = column_names(table);
    const Ref rows = call_method(self, names::select, {table_name}, {{names::limit, limit}});
    if (length(columns) == 0) {
        const Ref message = new_string("Table has no columns");
        print(message);
        return Ref::none();
    }

    const Ref widths = column_widths(columns, rows);
    const Ref header = header_line(columns, widths);
    const Ref heading = Ref::steal(PyUnicode_FromFormat("\n%U", static_cast<PyObject*>(header)));
    print(heading);
    const Ref hyphen = new_string("-");
    const Ref rule = Ref::steal(python(PySequence_Repeat, hyphen, length(header)));
    print(rule);
    for (const Ref& row : Iteration(rows)) {
        const Ref line = row_line(row, columns, widths);
        print(line);
    }

    const Ref table_rows = get_attribute(table, names::rows);
    const Py_ssize_t total = count_live(table_rows);
    const Ref footer = Ref::steal(PyUnicode_FromFormat("\nShowing %zd of %zd rows\n", length(rows), total));
    print(footer);
    return Ref::none();
}

}  // namespace jdb::display
