// Building the document from the records' fields, read by attribute in the order in which they are written.
#include "persistence/document.h"

#include "host/object.h"
#include "tables/rows.h"

namespace jdb::persistence {
namespace {

void add_field(PyObject* document, PyObject* record, Name& name) {
    const Ref value = get_attribute(record, name);
    set_item(document, name, value);
}

Ref column_object(PyObject* column) {
    Ref object = new_dict();
    for (Name* field : {&names::name, &names::data_type, &names::required, &names::unique, &names::default_value,
                        &names::validation_pattern}) {
        add_field(object, column, *field);
    }
    return object;
}

Ref kept_rows(PyObject* table) {
    Ref kept = new_list();
    const Ref rows = get_attribute(table, names::rows);
    for (const Ref& row : Iteration(rows)) {
        if (!is_deleted(row)) append(kept, row);
    }
    return kept;
}

bool has_plain_keys(PyObject* index) {
    for (const Ref& key : Iteration(index)) {
        if (!can_be_member_name(key)) return false;
    }
    return true;
}

Ref with_text_keys(PyObject* index) {
    Ref result = new_dict();
    const Ref items = call_method(index, names::items);
    for (const Ref& item : Iteration(items)) {
        const Ref key = get_item(item, Py_ssize_t{0});
        const Ref ids = get_item(item, Py_ssize_t{1});
        const Ref text = can_be_member_name(key) ? key : text_of(key);
        set_item(result, text, ids);
    }
    return result;
}

// The indexes as held, but for column indexes with keys that need their text form.
Ref writable_indexes(PyObject* indexes) {
    if (!PyDict_Check(indexes)) return Ref::borrow(indexes);
    Ref result = new_dict();
    const Ref items = call_method(indexes, names::items);
    for (const Ref& item : Iteration(items)) {
        const Ref name = get_item(item, Py_ssize_t{0});
        const Ref index = get_item(item, Py_ssize_t{1});
        const Ref writable = !PyDict_Check(index) || has_plain_keys(index) ? index : with_text_keys(index);
        set_item(result, name, writable);
    }
    return result;
}

Ref table_object(PyObject* table) {
    Ref object = new_dict();
    add_field(object, table, names::name);
    const Ref columns = new_list();
    const Ref table_columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(table_columns)) {
        const Ref column_document = column_object(column);
        append(columns, column_document);
    }
    set_item(object, names::columns, columns);
    const Ref rows = kept_rows(table);
    set_item(object, names::rows, rows);
    const Ref held = get_attribute(table, names::indexes);
    const Ref indexes = writable_indexes(held);
    set_item(object, names::indexes, indexes);
    return object;
}

}  // namespace

bool can_be_member_name(PyObject* key) {
    return PyUnicode_Check(key) || PyLong_Check(key) || PyFloat_Check(key) || key == Py_None;
}

Ref make_document(PyObject* tables) {
    const Ref table_objects = new_dict();
    const Ref items = call_method(tables, names::items);
    for (const Ref& item : Iteration(items)) {
        const Ref table_name = get_item(item, Py_ssize_t{0});
        const Ref table = get_item(item, Py_ssize_t{1});
        const Ref object = table_object(table);
        set_item(table_objects, table_name, object);
    }
    Ref document = new_dict();
    set_item(document, names::tables, table_objects);
    return document;
}

}  // namespace jdb::persistence
