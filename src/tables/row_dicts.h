// Making row dictionaries that all have the same keys.
#pragma once

#include <utility>
#include <vector>

#include "host/ref.h"

namespace jdb {

class RowDicts {
public:
    struct Entry {
        Ref key;              // exactly a str, and different from the other entries'
        Py_ssize_t position;  // of its value in the row
    };
    explicit RowDicts(std::vector<Entry> entries) : entries_(std::move(entries)) {}

    // A new dictionary of the row's values. The row is exactly a list, with a value at each entry's position. Runs no
    // Python code while the collector is paused.
    [[nodiscard]] Ref make(PyObject* row);

private:
    std::vector<Entry> entries_;
    Py_ssize_t made_ = 0;
    Ref shared_;  // the dictionary that new ones are copies of; empty while few were made
};

}  // namespace jdb
