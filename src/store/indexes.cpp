// Index addition and withdrawal, and their way back. Entries are noted before a change that could fail, so that
// whatever happened by then is undone. Lists give up and take back their last items without asking for memory.
#include "store/indexes.h"

#include <algorithm>

#include "records/fields.h"

namespace jdb::store {
namespace {

// Calls `use` with the slot of each value that the row has in an indexed column, in column order.
template <class Use>
void each_slot(PyObject* table, PyObject* row, Use use) {
    Py_ssize_t position = -1;
    const Ref columns = get_field(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        ++position;
        const Ref name = get_field(column, names::name);
        const Ref indexes = get_field(table, names::indexes);
        Ref index = item_if_key(indexes, name);
        if (index) use(IndexSlot(std::move(index), get_item(row, position)));
    }
}

// The position of the first item equal to the row id, -1 when there is none.
Py_ssize_t find_id(PyObject* ids, PyObject* row_id) {
    Py_ssize_t position = 0;
    for (const Ref& id : Iteration(ids)) {
        if (check(PyObject_RichCompareBool(id, row_id, Py_EQ)) != 0) return position;
        ++position;
    }
    return -1;
}

// Takes an item out of a list that keeps its room, which is what makes putting it back safe.
void remove_at(PyObject* list, Py_ssize_t position) {
    const Ref removed = Ref::borrow(PyList_GET_ITEM(list, position));
    const Py_ssize_t last = PyList_GET_SIZE(list) - 1;
    for (Py_ssize_t i = position; i < last; ++i) PyList_SET_ITEM(list, i, PyList_GET_ITEM(list, i + 1));
    Py_SET_SIZE(reinterpret_cast<PyVarObject*>(list), last);
    Py_DECREF(removed);
}

void insert_at(PyObject* list, Py_ssize_t position, PyObject* item) {
    const Py_ssize_t size = PyList_GET_SIZE(list);
    if (reinterpret_cast<PyListObject*>(list)->allocated == size) {
        check(PyList_Insert(list, position, item));
        return;
    }
    Py_SET_SIZE(reinterpret_cast<PyVarObject*>(list), size + 1);
    for (Py_ssize_t i = size; i > position; --i) PyList_SET_ITEM(list, i, PyList_GET_ITEM(list, i - 1));
    PyList_SET_ITEM(list, position, Ref::borrow(item).release());
}

}  // namespace

// ---- One value's place ----

IndexSlot::IndexSlot(Ref index, Ref value) : index_(std::move(index)), value_(std::move(value)) {
    if (!PyDict_CheckExact(index_)) return;
    hash_ = PyObject_Hash(value_);
    if (hash_ == -1) throw PythonError{};
}

Ref IndexSlot::ids() const {
    if (!PyDict_CheckExact(index_)) return item_if_key(index_, value_);
    PyObject* found = _PyDict_GetItem_KnownHash(index_, value_, hash_);
    if (found != nullptr) return Ref::borrow(found);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    return {};
}

void IndexSlot::enter(PyObject* ids) const {
    if (PyDict_CheckExact(index_)) {
        check(_PyDict_SetItem_KnownHash(index_, value_, ids, hash_));
    } else {
        set_item(index_, value_, ids);
    }
}

void IndexSlot::drop() const {
    if (PyDict_CheckExact(index_)) {
        check(_PyDict_DelItem_KnownHash(index_, value_, hash_));
    } else {
        check(PyObject_DelItem(index_, value_));
    }
}

// ---- Addition ----

void IndexAddition::add(PyObject* table, PyObject* row) {
    each_slot(table, row, [&](IndexSlot slot) {
        Ref ids = slot.ids();
        const bool new_key = !ids;
        if (new_key) ids = new_list();
        entries_.push_back({std::move(slot), ids, new_key});
        if (new_key) entries_.back().slot.enter(ids);
        append(ids, row_id_);
    });
}

void IndexAddition::take_back(const Entry& entry) const {
    PyObject* ids = entry.ids;
    if (PyList_CheckExact(ids)) {
        // The last of this very object: an equal id that was there before is not ours.
        for (Py_ssize_t i = PyList_GET_SIZE(ids); i-- > 0;) {
            if (PyList_GET_ITEM(ids, i) != row_id_) continue;
            remove_at(ids, i);
            break;
        }
    } else if (contains(ids, row_id_)) {
        call_method(ids, names::remove, {row_id_});
    }
    if (!entry.new_key || length(ids) != 0) return;
    const Ref current = entry.slot.ids();
    if (current == entry.ids) entry.slot.drop();
}

IndexAddition::~IndexAddition() {
    if (entries_.empty()) return;
    const SavedError error;
    while (!entries_.empty()) {
        const Entry entry = std::move(entries_.back());
        entries_.pop_back();
        attempt([&] { take_back(entry); });
    }
}

// ---- Withdrawal ----

void IndexWithdrawal::withdraw() {
    each_slot(table_, row_, [&](IndexSlot slot) {
        const Ref ids = slot.ids();
        if (!ids) return;
        const Py_ssize_t position = find_id(ids, row_id_);
        if (position < 0) return;
        entries_.reserve(entries_.size() + 1);
        if (!PyList_CheckExact(ids)) {
            call_method(ids, names::remove, {row_id_});
        } else if (position < PyList_GET_SIZE(static_cast<PyObject*>(ids))) {
            remove_at(ids, position);
        }
        entries_.push_back({std::move(slot), ids, position});
        if (length(ids) == 0) entries_.back().slot.drop();
    });
}

bool IndexWithdrawal::row_is_still_there() const {
    const Ref rows = get_attribute(table_, names::rows);
    const Ref current = get_item(rows, row_id_);
    return current == row_;
}

void IndexWithdrawal::take_back(const Entry& entry) const {
    Ref ids = entry.slot.ids();
    const bool dropped = !ids;
    if (dropped) ids = entry.ids;
    if (PyList_CheckExact(ids)) {
        PyObject* list = ids;
        insert_at(list, std::min(entry.position, PyList_GET_SIZE(list)), row_id_);
    } else {
        const Ref position = integer(entry.position);
        call_method(ids, names::insert, {position, row_id_});
    }
    if (dropped) entry.slot.enter(ids);
}

IndexWithdrawal::~IndexWithdrawal() {
    if (entries_.empty()) return;
    const SavedError error;
    attempt([&] {
        // A row that host code has replaced meanwhile keeps its own entries; these belong to the old one.
        if (!row_is_still_there()) entries_.clear();
    });
    while (!entries_.empty()) {
        const Entry entry = std::move(entries_.back());
        entries_.pop_back();
        attempt([&] { take_back(entry); });
    }
}

}  // namespace jdb::store
