// What is known of a table without running Python code: the one memory on which every fast path over its rows rests.
#pragma once

#include <memory>
#include <vector>

#include "cpython310/versions.h"
#include "host/object.h"
#include "tables/row_dicts.h"

namespace jdb {

class KnownTable {
public:
    // Null where reading the table's fields or its columns' names could run Python code, and where a name is not
    // exactly a string. Remembered for the next call, as long as the table and its columns stay the same.
    //
    // NUMBERS
    static std::shared_ptr<KnownTable> of(PyObject* table);

    // Whether all of it still holds; to be asked again after Python code may have run.
    [[nodiscard]] bool is_current(PyObject* table) const;

    // Whether nothing says that the indexes have to be rebuilt before they are relied on.
    [[nodiscard]] bool has_settled_indexes() const { return settled_; }
    [[nodiscard]] Py_ssize_t column_count() const { return static_cast<Py_ssize_t>(names_.size()); }
    // The positions of the first and of the last column of that name, exactly a string; -1 when there is none.
    [[nodiscard]] Py_ssize_t first(PyObject* name) const { return position(first_, name); }
    [[nodiscard]] Py_ssize_t last(PyObject* name) const { return position(last_, name); }

    // Rows as dictionaries of all columns, each with the value of the last column of its name.
    [[nodiscard]] RowDicts& row_dicts() { return row_dicts_; }
    // Of those of the names, exactly strings, that are columns: in the list's order, each once.
    [[nodiscard]] RowDicts project(const std::vector<Ref>& names) const;

private:
    KnownTable(Stamp stamp, PyObject* columns, bool settled, std::vector<Ref> names, std::vector<Stamp> column_stamps);
    static std::shared_ptr<KnownTable> read(PyObject* table);
    static Py_ssize_t position(PyObject* positions, PyObject* name);

    Ref death_;  // a weak reference to the table
    Stamp stamp_;
    PyObject* columns_;  // borrowed: the table's own while its stamp is the same
    bool settled_;
    std::vector<Ref> names_;
    std::vector<Stamp> column_stamps_;
    Ref first_;  // name: position
    Ref last_;
    RowDicts row_dicts_;
};

}  // namespace jdb
