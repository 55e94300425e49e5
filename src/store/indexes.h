// Keeping a table's column indexes in step with its rows. What a guard here has done it takes back when it goes out
// of scope, unless it is told to keep it; taking back asks no host object anything that it was not asked before.
#pragma once

#include <vector>

#include "host/object.h"

namespace jdb::store {

// One value's place in one column index: dictionary, value, and the hash that it showed when it was first asked.
class IndexSlot {
public:
    IndexSlot(Ref index, Ref value);

    // The list of row ids under the value, an empty Ref when the value is no key.
    [[nodiscard]] Ref ids() const;
    void enter(PyObject* ids) const;
    void drop() const;

private:
    Ref index_;
    Ref value_;
    Py_hash_t hash_ = 0;
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
    IndexWithdrawal(PyObject* table, PyObject* row_id, PyObject* row)
        : table_(Ref::borrow(table)), row_id_(Ref::borrow(row_id)), row_(Ref::borrow(row)) {}
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
    };
    void take_back(const Entry& entry) const;
    [[nodiscard]] bool row_is_still_there() const;

    Ref table_;
    Ref row_id_;
    Ref row_;
    std::vector<Entry> entries_;
};

}  // namespace jdb::store
