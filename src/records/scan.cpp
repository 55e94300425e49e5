// Everything here works on objects of exactly known types, so that no host code runs between two looks at a row.
#include "records/scan.h"

#include "host/module_state.h"
#include "records/fields.h"

namespace jdb {
namespace {

bool same_text(PyObject* left, PyObject* right) { return left == right || PyUnicode_Compare(left, right) == 0; }

// Copies a dictionary of a shared table of keys, with other values: one allocation of the dictionary and one of its
// values, in the keys' order. This knows how the interpreter lays such dictionaries out, hence the conditions under
// which it is called.
Ref copy_with_values(PyObject* shared, const std::vector<RowShape::Entry>& entries, PyObject* row) {
    Ref copy = Ref::steal(PyDict_Copy(shared));
    PyObject* object = copy;
    PyObject** values = reinterpret_cast<PyDictObject*>(object)->ma_values;
    bool may_form_cycles = false;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        PyObject* value = PyList_GET_ITEM(row, entries[i].position);
        may_form_cycles = may_form_cycles || PyObject_IS_GC(value) != 0;
        Py_INCREF(value);
        Py_DECREF(std::exchange(values[i], value));
    }
    if (may_form_cycles && PyObject_GC_IsTracked(object) == 0) PyObject_GC_Track(object);
    return copy;
}

// Whether the dictionary has a shared table with exactly these keys in this order.
bool shares_keys(PyObject* dict, const std::vector<RowShape::Entry>& entries) {
    const auto* layout = reinterpret_cast<PyDictObject*>(dict);
    if (!PyDict_CheckExact(dict) || layout->ma_values == nullptr) return false;
    if (layout->ma_used != static_cast<Py_ssize_t>(entries.size())) return false;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    for (const RowShape::Entry& entry : entries) {
        if (PyDict_Next(dict, &position, &key, nullptr) == 0 || key != entry.key) return false;
    }
    return true;
}

}  // namespace

// ---- Columns ----

std::optional<ScanColumns> ScanColumns::of(PyObject* table) {
    PyObject* columns = own_field(table, names::columns);
    if (columns == nullptr || !PyList_CheckExact(columns)) return std::nullopt;
    ScanColumns result;
    result.names_.reserve(static_cast<std::size_t>(PyList_GET_SIZE(columns)));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(columns); ++i) {
        PyObject* name = own_field(PyList_GET_ITEM(columns, i), names::name);
        if (name == nullptr || !PyUnicode_CheckExact(name)) return std::nullopt;
        result.names_.push_back(Ref::borrow(name));
    }
    return result;
}

Py_ssize_t ScanColumns::first(PyObject* name) const {
    for (Py_ssize_t i = 0; i < count(); ++i) {
        if (same_text(this->name(i), name)) return i;
    }
    return -1;
}

Py_ssize_t ScanColumns::last(PyObject* name) const {
    for (Py_ssize_t i = count(); i-- > 0;) {
        if (same_text(this->name(i), name)) return i;
    }
    return -1;
}

// ---- Values ----

namespace {

// Bytes are none of these: to compare them with text may make the host warn, which runs host code.
bool is_plain(PyTypeObject* type) {
    return type == &PyUnicode_Type || type == &PyLong_Type || type == &PyFloat_Type || type == &PyBool_Type ||
           type == Py_TYPE(Py_None) || reinterpret_cast<PyObject*>(type) == module_state.date_type;
}

}  // namespace

Equality compare_plain(PyObject* stored, PyObject* wanted) {
    PyTypeObject* stored_type = Py_TYPE(stored);
    PyTypeObject* wanted_type = Py_TYPE(wanted);
    if (stored_type == &PyUnicode_Type && wanted_type == &PyUnicode_Type) {
        if (stored == wanted) return Equality::equal;
        if (!PyUnicode_IS_READY(stored) || !PyUnicode_IS_READY(wanted)) return Equality::unknown;
        if (PyUnicode_GET_LENGTH(stored) != PyUnicode_GET_LENGTH(wanted)) return Equality::unequal;
        return PyUnicode_Compare(stored, wanted) == 0 ? Equality::equal : Equality::unequal;
    }
    if (!is_plain(stored_type) || !is_plain(wanted_type)) return Equality::unknown;
    return equal(stored, wanted) ? Equality::equal : Equality::unequal;
}

Equality match_plain(PyObject* row, const std::vector<Condition>& conditions) {
    for (const Condition& condition : conditions) {
        if (condition.position == Condition::kNeverHolds) return Equality::unequal;
        PyObject* stored = condition.position < 0 ? Py_None : PyList_GET_ITEM(row, condition.position);
        const Equality result = compare_plain(stored, condition.value);
        if (result != Equality::equal) return result;
    }
    return Equality::equal;
}

// ---- Dictionaries ----

RowShape::RowShape(const ScanColumns& columns) {
    for (Py_ssize_t i = 0; i < columns.count(); ++i) {
        if (columns.first(columns.name(i)) != i) continue;
        entries_.push_back({Ref::borrow(columns.name(i)), columns.last(columns.name(i))});
    }
}

RowShape::RowShape(const ScanColumns& columns, PyObject* names) {
    const Ref seen = Ref::steal(PySet_New(nullptr));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names); ++i) {
        const Ref name = Ref::borrow(PyList_GET_ITEM(names, i));
        const Py_ssize_t position = columns.last(name);
        if (position < 0 || check(PySet_Contains(seen, name)) != 0) continue;
        check(PySet_Add(seen, name));
        entries_.push_back({name, position});
    }
}

// The host shares tables of keys between the instances of a class, so the template is the dictionary of one.
void RowShape::make_template() {
    auto* type = reinterpret_cast<PyObject*>(&PyType_Type);
    const Ref name = new_text("Row");
    const Ref bases = Ref::steal(PyTuple_New(0));
    const Ref attributes = new_dict();
    const Ref row_class = call(type, {name, bases, attributes});
    const Ref row = call(row_class, {});
    for (const Entry& entry : entries_) check(PyObject_GenericSetAttr(row, entry.key, Py_None));
    const Ref keys = Ref::steal(PyObject_GenericGetDict(row, nullptr));
    if (shares_keys(keys, entries_)) template_ = keys;
}

Ref RowShape::make_dict(PyObject* row) {
    constexpr Py_ssize_t kWorthATemplate = 32;
    if (++made_ == kWorthATemplate) make_template();
    if (template_) return copy_with_values(template_, entries_, row);
    Ref dict = new_dict();
    for (const Entry& entry : entries_) set_item(dict, entry.key, PyList_GET_ITEM(row, entry.position));
    return dict;
}

}  // namespace jdb
