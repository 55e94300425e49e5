// What is known of a table is found by the table's address, is valid while the stamps of the table and its columns are
// the same, and is dropped by a weak reference's callback when the table dies. It is stored when it is complete, so an
// error leaves what was known before.
#include "tables/known_table.h"

#include <cassert>
#include <unordered_map>
#include <utility>

#include "cpython310/own_fields.h"
#include "host/collector.h"

namespace jdb {
namespace {

std::unordered_map<PyObject*, std::unique_ptr<KnownTable>>& remembered() {
    static auto& tables = *new std::unordered_map<PyObject*, std::unique_ptr<KnownTable>>();
    return tables;
}

PyObject* forget(PyObject* address, PyObject* /*reference*/) {
    remembered().erase(static_cast<PyObject*>(PyLong_AsVoidPtr(address)));
    Py_RETURN_NONE;
}

// A weak reference that has the table forgotten when it dies; an empty Ref where the table takes none.
Ref forget_at_death(PyObject* table) {
    static PyMethodDef definition = {"forget", forget, METH_O, nullptr};
    const Ref address = Ref::steal(PyLong_FromVoidPtr(table));
    const Ref callback = Ref::steal(python(PyCFunction_New, &definition, address));
    PyObject* reference = python(PyWeakref_NewRef, table, callback);
    if (reference == nullptr && PyErr_ExceptionMatches(PyExc_TypeError) != 0) {
        python(PyErr_Clear);
        return {};
    }
    return Ref::steal(reference);
}

// A dict of name to position; of several columns with one name, the first or the last.
Ref positions_of(const std::vector<Ref>& names, bool last) {
    Ref positions = new_dict();
    for (std::size_t i = 0; i < names.size(); ++i) {
        const Ref position = integer(static_cast<Py_ssize_t>(i));
        if (last) {
            set_item(positions, names[i], position);
        } else {
            set_default(positions, names[i], position);
        }
    }
    return positions;
}

// The entries of a dictionary of all columns; `last` has the names in the order of their first columns.
std::vector<RowDicts::Entry> entries_of(PyObject* last) {
    std::vector<RowDicts::Entry> entries;
    Py_ssize_t at = 0;
    PyObject* name = nullptr;
    PyObject* position = nullptr;
    while (PyDict_Next(last, &at, &name, &position) != 0) {
        entries.push_back({Ref::borrow(name), PyLong_AsSsize_t(position)});
    }
    return entries;
}

}  // namespace

KnownTable* KnownTable::of(PyObject* table) {
    const auto found = remembered().find(table);
    if (found != remembered().end() && found->second->is_current(table)) return found->second.get();
    const CollectorPaused paused;  // a finalizer could change what is being read
    std::unique_ptr<KnownTable> known = read(table);
    if (!known) return nullptr;
    static std::uint64_t last_serial = 0;
    known->serial_ = ++last_serial;
    std::unique_ptr<KnownTable>& place = remembered()[table];
    place = std::move(known);
    return place.get();
}

std::unique_ptr<KnownTable> KnownTable::read(PyObject* table) {
    std::unique_ptr<KnownTable> known(new KnownTable());
    known->columns_ = own_field(table, names::columns);
    known->rows_ = own_field(table, names::rows);
    known->indexes_ = own_field(table, names::indexes);
    if (known->columns_ == nullptr || known->rows_ == nullptr || known->indexes_ == nullptr) return {};
    if (!PyList_CheckExact(known->columns_)) return {};
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(known->columns_); ++i) {
        PyObject* column = PyList_GET_ITEM(known->columns_, i);
        PyObject* name = own_field(column, names::name);
        if (name == nullptr || !PyUnicode_CheckExact(name)) return {};
        const Stamp stamp = stamp_of(column);
        if (i == 0) {
            known->column_type_ = Py_TYPE(column);
            known->column_type_version_ = stamp.type;
        }
        if (!stamp || Py_TYPE(column) != known->column_type_) return {};
        known->names_.push_back(Ref::borrow(name));
        known->column_versions_.push_back(stamp.fields);
    }
    known->settled_ = !find_item(own_dict(table), names::indexes_to_rebuild);
    known->stamp_ = stamp_of(table);
    if (!known->stamp_) return {};
    known->first_ = positions_of(known->names_, false);
    known->last_ = positions_of(known->names_, true);
    known->row_dicts_ = RowDicts(entries_of(known->last_));
    known->death_ = forget_at_death(table);
    if (!known->death_) return {};
    return known;
}

bool KnownTable::is_current(PyObject* table) const {
    if (stamp_of(table) != stamp_ || PyList_GET_SIZE(columns_) != column_count()) return false;
    PyObject* const* column = reinterpret_cast<PyListObject*>(columns_)->ob_item;
    for (const std::uint64_t version : column_versions_) {
        if (Py_TYPE(*column) != column_type_ || fields_version(*column, column_type_) != version) return false;
        ++column;
    }
    // Without columns there is no class to look at; with columns, they keep theirs alive.
    return names_.empty() || class_version(column_type_) == column_type_version_;
}

Py_ssize_t KnownTable::position(PyObject* positions, PyObject* name) {
    assert(PyUnicode_CheckExact(name));
    PyObject* found = python(PyDict_GetItemWithError, positions, name);
    if (found != nullptr) return PyLong_AsSsize_t(found);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    return -1;
}

RowDicts KnownTable::project(const std::vector<Ref>& names) const {
    std::vector<RowDicts::Entry> entries;
    const Ref seen = Ref::steal(python(PySet_New, nullptr));
    for (const Ref& name : names) {
        const Py_ssize_t at = last(name);
        if (at < 0 || check(python(PySet_Contains, seen, name)) != 0) continue;
        check(python(PySet_Add, seen, name));
        entries.push_back({name, at});
    }
    return RowDicts(std::move(entries));
}

}  // namespace jdb
