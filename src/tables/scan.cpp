// Everything here works on objects of exactly known types, so that no host code runs between two looks at a row.
#include "tables/scan.h"

#include <array>
#include <memory>

#include "host/collector.h"
#include "host/module_state.h"
#include "tables/rows.h"

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
        may_form_cycles = may_form_cycles || PyType_IS_GC(Py_TYPE(value)) != 0;
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

namespace {

// Each name once, where it first stands, with the position of its last column.
std::vector<RowShape::Entry> all_columns(const std::vector<Ref>& names) {
    std::vector<RowShape::Entry> entries;
    const Ref seen = new_dict();
    for (const Ref& name : names) {
        const auto position = static_cast<Py_ssize_t>(&name - names.data());
        const Ref earlier = find_item(seen, name);
        if (earlier) {
            entries[static_cast<std::size_t>(PyLong_AsSsize_t(earlier))].position = position;
            continue;
        }
        const Ref place = integer(static_cast<Py_ssize_t>(entries.size()));
        set_item(seen, name, place);
        entries.push_back({name, position});
    }
    return entries;
}

}  // namespace

ScanColumns::ScanColumns(std::vector<Ref> names, std::vector<Stamp> stamps)
    : names_(std::move(names)), stamps_(std::move(stamps)), shape_(all_columns(names_)) {}

bool ScanColumns::describes(PyObject* columns) const {
    const auto count = static_cast<std::size_t>(PyList_GET_SIZE(columns));
    if (count != stamps_.size()) return false;
    for (std::size_t i = 0; i < count; ++i) {
        const Stamp stamp = stamp_of(PyList_GET_ITEM(columns, static_cast<Py_ssize_t>(i)));
        if (stamp.type == 0 || stamp != stamps_[i]) return false;
    }
    return true;
}

ScanColumns* ScanColumns::of(PyObject* table) {
    // The columns met lately; they outlive the interpreter, as what they hold could not be given back after it.
    static constexpr std::size_t kKept = 8;
    static auto& kept = *new std::array<std::unique_ptr<ScanColumns>, kKept>();
    static std::size_t oldest = 0;

    PyObject* columns = own_field(table, names::columns);
    if (columns == nullptr || !PyList_CheckExact(columns)) return nullptr;
    for (const std::unique_ptr<ScanColumns>& known : kept) {
        if (known && known->describes(columns)) return known.get();
    }

    std::vector<Ref> names;
    std::vector<Stamp> stamps;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(columns); ++i) {
        PyObject* column = PyList_GET_ITEM(columns, i);
        PyObject* name = own_field(column, names::name);
        if (name == nullptr || !PyUnicode_CheckExact(name)) return nullptr;
        names.push_back(Ref::borrow(name));
        stamps.push_back(stamp_of(column));
    }
    const CollectorPaused paused;
    std::unique_ptr<ScanColumns>& place = kept.at(oldest);
    place.reset(new ScanColumns(std::move(names), std::move(stamps)));
    oldest = (oldest + 1) % kKept;
    return place.get();
}

RowShape ScanColumns::project(PyObject* names) const {
    std::vector<RowShape::Entry> entries;
    const Ref seen = Ref::steal(PySet_New(nullptr));
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(names); ++i) {
        const Ref name = Ref::borrow(PyList_GET_ITEM(names, i));
        const Py_ssize_t position = last(name);
        if (position < 0 || check(PySet_Contains(seen, name)) != 0) continue;
        check(PySet_Add(seen, name));
        entries.push_back({name, position});
    }
    return RowShape(std::move(entries));
}

Py_ssize_t ScanColumns::first(PyObject* name) const {
    for (Py_ssize_t i = 0; i < count(); ++i) {
        if (same_text(names_[static_cast<std::size_t>(i)], name)) return i;
    }
    return -1;
}

Py_ssize_t ScanColumns::last(PyObject* name) const {
    for (Py_ssize_t i = count(); i-- > 0;) {
        if (same_text(names_[static_cast<std::size_t>(i)], name)) return i;
    }
    return -1;
}

// ---- Values ----

Py_ssize_t count_live(PyObject* rows) {
    Py_ssize_t count = 0;
    if (!PyList_CheckExact(rows)) {
        for (const Ref& row : Iteration(rows)) count += is_deleted(row) ? 0 : 1;
        return count;
    }
    SignalCheck signals;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(rows); ++i) {
        prefetch_rows(rows, i, 0);
        PyObject* row = PyList_GET_ITEM(rows, i);
        // Only a row that is no list is asked by host code, which may drop it.
        const Ref held = PyList_CheckExact(row) ? Ref{} : Ref::borrow(row);
        count += is_deleted(row) ? 0 : 1;
        signals.step();
    }
    return count;
}

// Bytes are none of these: to compare them with text may make the host warn, which runs host code.
bool has_plain_type(PyObject* object) {
    PyTypeObject* type = Py_TYPE(object);
    return type == &PyUnicode_Type || type == &PyLong_Type || type == &PyFloat_Type || type == &PyBool_Type ||
           object == Py_None || reinterpret_cast<PyObject*>(type) == module_state.date_type;
}

Equality detail::compare_others(PyObject* stored, PyObject* wanted) {
    if (!has_plain_type(stored) || !has_plain_type(wanted)) return Equality::unknown;
    return equal(stored, wanted) ? Equality::equal : Equality::unequal;
}

// ---- Dictionaries ----

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

Ref make_plain_dict(PyObject* table, PyObject* row) {
    ScanColumns* columns = ScanColumns::of(table);
    if (columns == nullptr || !is_wide_enough(row, columns->count())) return {};
    const CollectorPaused paused;
    return columns->shape().make_dict(row);
}

}  // namespace jdb
