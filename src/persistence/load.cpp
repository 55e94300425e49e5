// The whole file is parsed before anything is replaced; then self.tables becomes a new dictionary, to which the tables
// are added one by one. The document's members are read by Python's rules, so a file of the wrong shape raises Python's
// errors, and leaves the tables added so far.
#include "persistence/load.h"

#include "cpython310/handled_error.h"
#include "host/module_state.h"
#include "persistence/json_reader.h"
#include "persistence/python_file.h"
#include "persistence/standard_json.h"
#include "tables/database.h"
#include "tables/indexes.h"

namespace jdb::persistence {
namespace {

Ref member_or(PyObject* object, Name& name, PyObject* fallback) {
    return call_method(object, names::get, {name, fallback});
}

Ref make_column(PyObject* object) {
    const Ref column_class = global(names::Column);
    const Ref name = get_item(object, names::name);
    const Ref data_type = get_item(object, names::data_type);
    const Ref required = member_or(object, names::required, Py_True);
    const Ref unique = member_or(object, names::unique, Py_False);
    const Ref default_value = member_or(object, names::default_value, Py_None);
    const Ref pattern = member_or(object, names::validation_pattern, Py_None);
    return call(column_class, {},
                {{names::name, name},
                 {names::data_type, data_type},
                 {names::required, required},
                 {names::unique, unique},
                 {names::default_value, default_value},
                 {names::validation_pattern, pattern}});
}

Ref make_table(PyObject* object) {
    const Ref columns = new_list();
    const Ref column_objects = get_item(object, names::columns);
    for (const Ref& column_object : Iteration(column_objects)) {
        const Ref column = make_column(column_object);
        append(columns, column);
    }
    const Ref table_class = global(names::Table);
    const Ref name = get_item(object, names::name);
    const Ref rows = get_item(object, names::rows);
    const Ref no_indexes = new_dict();
    const Ref indexes = member_or(object, names::indexes, no_indexes);
    Ref table = call(table_class, {},
                     {{names::name, name}, {names::columns, columns}, {names::rows, rows}, {names::indexes, indexes}});
    mark_indexes(table);
    return table;
}

void replace_tables(PyObject* self, PyObject* document) {
    const Ref empty = new_dict();
    set_attribute(self, names::tables, empty);
    const Ref no_tables = new_dict();
    const Ref table_objects = member_or(document, names::tables, no_tables);
    const Ref items = call_method(table_objects, names::items);
    for (const Ref& item : Iteration(items)) {
        const Ref table_name = get_item(item, Py_ssize_t{0});
        const Ref table_object = get_item(item, Py_ssize_t{1});
        const Ref table = make_table(table_object);
        const Ref tables = tables_of(self);
        set_item(tables, table_name, table);
    }
}

void load_bytes(PyObject* self, PyObject* json, PyObject* bytes, PyObject* constants) {
    // Reading a descriptor in non-blocking mode gives None where there is nothing to read yet.
    if (!PyBytes_Check(bytes)) raise(PyExc_TypeError, "cannot read a database from '%.100s'", Py_TYPE(bytes)->tp_name);
    Ref document = read_json({PyBytes_AS_STRING(bytes), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes))}, constants);
    if (!document) {
        const Ref stream = call(module_state.bytes_io, {bytes});
        const Ref file = call(module_state.text_io_wrapper, {stream}, {{names::encoding, names::utf8}});
        document = call_method(json, names::load, {file});
    }
    replace_tables(self, document);
}

void read_file(PyObject* self) {
    const Ref filename = get_attribute(self, names::filename);
    const Ref open = global(names::open);
    const Ref json = global(names::json);
    // The fast path: the reader makes of the file's bytes what the built-in `open` and the standard `json` make of
    // them.
    const Ref constants = open == module_state.open ? standard_constants(json) : Ref{};
    if (constants) {
        Ref bytes;
        const Ref file = call(open, {filename, names::mode_read_bytes});
        with_file(file, [&](PyObject* entered) { bytes = call_method(entered, names::read); });
        return load_bytes(self, json, bytes, constants);
    }
    const Ref file = call(open, {filename, names::mode_read}, {{names::encoding, names::utf8}});
    with_file(file, [&](PyObject* entered) {
        const Ref current_json = global(names::json);
        const Ref document = call_method(current_json, names::load, {entered});
        replace_tables(self, document);
    });
}

}  // namespace

Ref load(PyObject* self) {
    const Ref filename = get_attribute(self, names::filename);
    const Ref os = global(names::os);
    const Ref path = get_attribute(os, names::path);
    const Ref exists = call_method(path, names::exists, {filename});
    if (!truth(exists)) return Ref::none();
    if (succeeds([&] { read_file(self); })) return Ref::none();
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) throw PythonError{};
    HandledError error;
    const Ref message = str_of(error.value());
    const Ref report = Ref::steal(PyUnicode_FromFormat("Error loading database: %U", static_cast<PyObject*>(message)));
    call(module_state.print, {report});
    error.reraise();
}

}  // namespace jdb::persistence
