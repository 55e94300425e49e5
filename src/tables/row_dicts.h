// Making row dictionaries of one set of keys, one after the other.
#pragma once

#include <utility>
#include <vector>

#include "host/ref.h"

namespace jdb {

class RowDicts {
public:
    struct Entry {
        Ref key;  // exactly a string, unlike the others
        Py_ssize_t position;
    };
    explicit RowDicts(std::vector<Entry> entries) : entries_(std::move(entries)) {}

    // A new dictionary of the row's values; the row is a list that is wide enough. Runs no Python code while the
    // collector is paused.
    [[nodiscard]] Ref make(PyObject* row);

private:
    std::vector<Entry> entries_;
    Py_ssize_t made_ = 0;
    Ref shared_;  // the others are copies of it; empty while few were made
};

}  // namespace jdb
