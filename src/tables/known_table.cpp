// The memory of a table is found by its address, dies with it by way of a weak reference, and holds while the stamps
// do.
#include "tables/known_table.h"

#include <cassert>
#include <unordered_map>

#include "cpython310/own_fields.h"
#include "host/collector.h"

namespace jdb {
namespace {

std::unordered_map<PyObject*, std::shared_ptr<KnownTable>>& remembered() {
    static auto& tables = *new std::unordered_map<PyObject*, std::shared_ptr<KnownTable>>();
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
    const Ref callback = Ref::steal(PyCFunction_New(&definition, address));
    PyObject* reference = PyWeakref_NewRef(table, callback);
    if (reference == nullptr && PyErr_ExceptionMatches(PyExc_TypeError) != 0) {
        PyErr_Clear();
        return {};
    }
    return Ref::steal(reference);
}

// name: position, of several columns with one name the first or the last.
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

// Each name once, where it first appears, with its position in `last`.
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

KnownTable::KnownTable(Stamp stamp, PyObject* columns, bool settled, std::vector<Ref> names,
                       std::vector<Stamp> column_stamps)
    : stamp_(stamp),
      columns_(columns),
      settled_(settled),
      names_(std::move(names)),
      column_stamps_(std::move(column_stamps)),
      first_(positions_of(names_, false)),
      last_(positions_of(names_, true)),
      row_dicts_(entries_of(last_)) {
    assert(names_.size() == column_stamps_.size());
}

std::shared_ptr<KnownTable> KnownTable::of(PyObject* table) {
    const auto found = remembered().find(table);
    if (found != remembered().end() && found->second->is_current(table)) return found->second;
    const CollectorPaused paused;  // it would run Python code in between
    std::shared_ptr<KnownTable> known = read(table);
    if (!known) return {};
    known->death_ = forget_at_death(table);
    if (known->death_) remembered().insert_or_assign(table, known);
    return known;
}

std::shared_ptr<KnownTable> KnownTable::read(PyObject* table) {
    PyObject* columns = own_field(table, names::columns);
    if (columns == nullptr || !PyList_CheckExact(columns)) return {};
    std::vector<Ref> names;
    std::vector<Stamp> column_stamps;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(columns); ++i) {
        PyObject* column = PyList_GET_ITEM(columns, i);
        PyObject* name = own_field(column, names::name);
        if (name == nullptr || !PyUnicode_CheckExact(name)) return {};
        names.push_back(Ref::borrow(name));
        column_stamps.push_back(stamp_of(column));
        if (!column_stamps.back()) return {};
    }
    const Stamp stamp = stamp_of(table);
    if (!stamp) return {};
    const bool settled = !find_item(own_dict(table), names::indexes_to_rebuild);
    return std::shared_ptr<KnownTable>(
        new KnownTable(stamp, columns, settled, std::move(names), std::move(column_stamps)));
}

bool KnownTable::is_current(PyObject* table) const {
    if (stamp_of(table) != stamp_) return false;
    if (PyList_GET_SIZE(columns_) != column_count()) return false;
    for (Py_ssize_t i = 0; i < column_count(); ++i) {
        if (stamp_of(PyList_GET_ITEM(columns_, i)) != column_stamps_[static_cast<std::size_t>(i)]) return false;
    }
    return true;
}

Py_ssize_t KnownTable::position(PyObject* positions, PyObject* name) {
    assert(PyUnicode_CheckExact(name));
    PyObject* found = PyDict_GetItemWithError(positions, name);
    if (found != nullptr) return PyLong_AsSsize_t(found);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    return -1;
}

RowDicts KnownTable::project(const std::vector<Ref>& names) const {
    std::vector<RowDicts::Entry> entries;
    const Ref seen = Ref::steal(PySet_New(nullptr));
    for (const Ref& name : names) {
        const Py_ssize_t at = last(name);
        if (at < 0 || check(PySet_Contains(seen, name)) != 0) continue;
        check(PySet_Add(seen, name));
        entries.push_back({name, at});
    }
    return RowDicts(std::move(entries));
}

}  // namespace jdb
