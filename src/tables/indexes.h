// Keeping a table's column indexes in step with its rows. What a guard here has done it takes back when it goes out
// of scope, unless it is told to keep it; taking back asks no host object anything that it was not asked before.
#pragma once

#include <cstdint>
#include <vector>

#include "host/object.h"

namespace jdb {

// One value's place in one column index, and the way back from a change there.
class IndexSlot {
public:
    IndexSlot(Ref indexes, Ref name, Ref value);

    // The list of row ids under the value, an empty Ref when the value is no key.
    [[nodiscard]] Ref ids() const;
    void enter(PyObject* ids) const;
    void drop() const;

    // Around a change that may have to be taken back: makes sure that it can be, whatever the value does then, and
    // notes what it left.
    void before_change();
    void after_change();
    // Takes the change back without asking the value. False when it did not have to be guarded against or somebody else
    // has changed the index since: then there is only the way through the value.
    [[nodiscard]] bool take_back() const;

    // Makes sure that so many keys can come without asking for memory.
    void make_room(Py_ssize_t keys) const;

private:
    [[nodiscard]] Ref index() const;
    [[nodiscard]] bool uses_hash(PyObject* index) const { return hash_ != -1 && PyDict_CheckExact(index); }
    [[nodiscard]] bool may_ask_host(PyObject* index) const;

    Ref indexes_;
    Ref name_;
    Ref value_;
    Py_hash_t hash_ =
        -1;               // as the value showed it when it was first asked; -1 when it was not, the index being no dict
    bool plain_ = false;  // neither the value nor any key of the index is of the host's own making
    // Where a comparison by host code may fail on the way back: the index as it was, and what tells whether others have
    // changed its successor since.
    Ref before_;
    std::uint64_t changed_version_ = 0;
};

// Lists a row id under each of its row's values.
class IndexAddition {
public:
    explicit IndexAddition(PyObject* row_id) : row_id_(Ref::borrow(row_id)) {}
    ~IndexAddition();
    IndexAddition(const IndexAddition&) = delete;
    IndexAddition& operator=(const IndexAddition&) = delete;

    void add(PyObject* table, PyObject* row);
    void keep() noexcept { entries_.clear(); }

private:
    struct Entry {
        IndexSlot slot;
        Ref ids;
        bool new_key;
    };
    void take_back(const Entry& entry) const;

    Ref row_id_;
    std::vector<Entry> entries_;
};

// Takes a row id out of the lists of its row's values; a value whose list empties is dropped. Taken back, each id
// stands where it was in its list.
class IndexWithdrawal {
public:
    // Whether keys that misbehave are provided for as well, which may take as long as the index is.
    enum class Care : bool { plain_keys, all_keys };

    IndexWithdrawal(PyObject* table, PyObject* row_id, PyObject* row, Care care = Care::all_keys)
        : table_(Ref::borrow(table)), row_id_(Ref::borrow(row_id)), row_(Ref::borrow(row)), care_(care) {}
    ~IndexWithdrawal();
    IndexWithdrawal(const IndexWithdrawal&) = delete;
    IndexWithdrawal& operator=(const IndexWithdrawal&) = delete;

    void withdraw();
    void keep() noexcept { entries_.clear(); }

private:
    struct Entry {
        IndexSlot slot;
        Ref ids;
        Py_ssize_t position;
        bool dropped;
    };
    void take_out(Entry& entry);
    void take_back(const Entry& entry) const;
    [[nodiscard]] bool row_is_still_there() const;

    Ref table_;
    Ref row_id_;
    Ref row_;
    Care care_;
    std::vector<Entry> entries_;
};

}  // namespace jdb
