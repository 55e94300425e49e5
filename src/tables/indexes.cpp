// Index addition and withdrawal, and their way back. Entries are noted before a change that could fail, so that
// whatever happened by then is undone. Lists and dictionaries have room for what may have to return, and an index whose
// key is of the host's own making is remembered as it was.
#include "tables/indexes.h"

#include <algorithm>
#include <array>

#include "cpython310/containers.h"
#include "tables/fields.h"
#include "tables/scan.h"

namespace jdb {
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
        if (contains(indexes, name)) use(IndexSlot(indexes, name, get_item(row, position)));
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

template <class Test>
bool any_key(PyObject* index, Test test) {
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* ids = nullptr;
    Py_hash_t hash = 0;
    while (_PyDict_Next(index, &position, &key, &ids, &hash) != 0) {
        if (test(key, hash)) return true;
    }
    return false;
}

// Indexes seen lately to have plain keys only, by their versions: a change by a plain value needs no new look at all
// keys.
class KnownPlain {
public:
    [[nodiscard]] bool contains(std::uint64_t version) const {
        return std::find(versions_.begin(), versions_.end(), version) != versions_.end();
    }
    void note(std::uint64_t version) {
        versions_[next_] = version;
        next_ = (next_ + 1) % versions_.size();
    }

private:
    std::array<std::uint64_t, 16> versions_{};
    std::size_t next_ = 0;
};

KnownPlain known_plain;

bool has_plain_keys(PyObject* index) {
    const std::uint64_t version = dict_version(index);
    if (known_plain.contains(version)) return true;
    if (any_key(index, [](PyObject* key, Py_hash_t /*hash*/) { return !has_plain_type(key); })) return false;
    known_plain.note(version);
    return true;
}

}  // namespace

// ---- One value's place ----

IndexSlot::IndexSlot(Ref indexes, Ref name, Ref value)
    : indexes_(std::move(indexes)), name_(std::move(name)), value_(std::move(value)) {
    const Ref index = this->index();
    if (!PyDict_CheckExact(index)) return;
    hash_ = PyObject_Hash(value_);
    if (hash_ == -1) throw PythonError{};
}

Ref IndexSlot::index() const { return get_item(indexes_, name_); }

Ref IndexSlot::ids() const {
    const Ref index = this->index();
    if (!uses_hash(index)) return item_if_key(index, value_);
    PyObject* found = _PyDict_GetItem_KnownHash(index, value_, hash_);
    if (found != nullptr) return Ref::borrow(found);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    return {};
}

void IndexSlot::enter(PyObject* ids) const {
    const Ref index = this->index();
    if (uses_hash(index)) {
        check(_PyDict_SetItem_KnownHash(index, value_, ids, hash_));
    } else {
        set_item(index, value_, ids);
    }
}

void IndexSlot::drop() const {
    const Ref index = this->index();
    if (uses_hash(index)) {
        check(_PyDict_DelItem_KnownHash(index, value_, hash_));
    } else {
        check(PyObject_DelItem(index, value_));
    }
}

// A key of the same hash, which the value is compared with, may be of the host's own making as well as the value.
bool IndexSlot::may_ask_host(PyObject* index) const {
    return !has_plain_type(value_) ||
           any_key(index, [&](PyObject* key, Py_hash_t hash) { return hash == hash_ && !has_plain_type(key); });
}

// The change is made to a copy in the index's place, so that taking back only has to put the old one there again.
void IndexSlot::before_change() {
    Ref index = this->index();
    if (!uses_hash(index)) return;
    plain_ = has_plain_type(value_) && has_plain_keys(index);
    if (plain_ || !may_ask_host(index)) return;
    const Ref copy = Ref::steal(PyDict_Copy(index));
    set_item(indexes_, name_, copy);
    changed_version_ = dict_version(copy);
    before_ = std::move(index);
}

void IndexSlot::after_change() {
    const Ref index = this->index();
    if (!PyDict_CheckExact(index)) return;
    changed_version_ = dict_version(index);
    if (plain_) known_plain.note(changed_version_);
}

bool IndexSlot::take_back() const {
    const Ref index = this->index();
    if (!before_ || !PyDict_CheckExact(index) || dict_version(index) != changed_version_) return false;
    set_item(indexes_, name_, before_);
    return true;
}

void IndexSlot::make_room(Py_ssize_t keys) const {
    const Ref index = this->index();
    if (PyDict_CheckExact(index)) dict_make_room(index, keys);
}

// ---- Addition ----

void IndexAddition::add(PyObject* table, PyObject* row) {
    each_slot(table, row, [&](IndexSlot slot) {
        Ref ids = slot.ids();
        const bool new_key = !ids;
        if (new_key) ids = new_list();
        entries_.push_back({std::move(slot), ids, new_key});
        if (new_key) {
            IndexSlot& noted = entries_.back().slot;
            noted.before_change();
            noted.enter(ids);
            noted.after_change();
        }
        append(ids, row_id_);
    });
}

void IndexAddition::take_back(const Entry& entry) const {
    PyObject* ids = entry.ids;
    if (PyList_CheckExact(ids)) {
        // The last of this very object: an equal id that was there before is not ours.
        for (Py_ssize_t i = PyList_GET_SIZE(ids); i-- > 0;) {
            if (PyList_GET_ITEM(ids, i) != row_id_) continue;
            list_remove_at(ids, i);
            break;
        }
    } else if (contains(ids, row_id_)) {
        call_method(ids, names::remove, {row_id_});
    }
    if (!entry.new_key || length(ids) != 0 || entry.slot.take_back()) return;
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

// All that may fail or run host code for long is done before the first list changes.
void IndexWithdrawal::withdraw() {
    std::vector<Entry> found;
    each_slot(table_, row_, [&](IndexSlot slot) {
        Ref ids = slot.ids();
        if (ids && find_id(ids, row_id_) >= 0) found.push_back({std::move(slot), std::move(ids), 0, false});
    });
    // Each key dropped may come back, and as many new ones may have come before that.
    for (const Entry& entry : found) entry.slot.make_room(2 * static_cast<Py_ssize_t>(found.size()));
    entries_.reserve(found.size());
    for (Entry& entry : found) take_out(entry);
}

void IndexWithdrawal::take_out(Entry& entry) {
    entry.position = find_id(entry.ids, row_id_);
    if (entry.position < 0) return;
    PyObject* ids = entry.ids;
    if (!PyList_CheckExact(ids)) {
        call_method(ids, names::remove, {row_id_});
    } else if (entry.position < PyList_GET_SIZE(ids)) {
        list_remove_at(ids, entry.position);
    }
    entries_.push_back(std::move(entry));
    Entry& noted = entries_.back();
    if (length(noted.ids) != 0) return;
    if (care_ == Care::all_keys) noted.slot.before_change();
    noted.slot.drop();
    if (care_ == Care::all_keys) noted.slot.after_change();
    noted.dropped = true;
}

bool IndexWithdrawal::row_is_still_there() const {
    const Ref rows = get_field(table_, names::rows);
    const Ref current = get_item(rows, row_id_);
    return current == row_;
}

void IndexWithdrawal::take_back(const Entry& entry) const {
    Ref ids = entry.ids;
    if (entry.dropped && !entry.slot.take_back()) {
        const Ref current = entry.slot.ids();
        if (current) {
            ids = current;
        } else {
            entry.slot.enter(ids);
        }
    }
    if (PyList_CheckExact(ids)) {
        PyObject* list = ids;
        list_insert_at(list, std::min(entry.position, PyList_GET_SIZE(list)), row_id_);
    } else {
        const Ref position = integer(entry.position);
        call_method(ids, names::insert, {position, row_id_});
    }
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

}  // namespace jdb
