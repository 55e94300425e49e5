// What is known of a table without running Python code: the one memory on which every fast path over its rows rests.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "cpython310/versions.h"
#include "host/object.h"
#include "tables/row_dicts.h"

namespace jdb {

class KnownTable {
public:
    // Borrowed until Python code may have run; then it is asked for again. Null where reading the table's fields or its
    // columns' names could run Python code, and where a name is not exactly a string.
    //
    // Were it made anew for each call, get_row and a select by a unique value would take six times as long.
    static KnownTable* of(PyObject* table);

    // As long as this is the same, so is all that is known: no two memories have the same.
    [[nodiscard]] std::uint64_t serial() const { return serial_; }
    // The table's own.
    [[nodiscard]] PyObject* rows() const { return rows_; }
    [[nodiscard]] PyObject* indexes() const { return indexes_; }
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
    KnownTable() = default;
    static std::unique_ptr<KnownTable> read(PyObject* table);
    [[nodiscard]] bool is_current(PyObject* table) const;
    static Py_ssize_t position(PyObject* positions, PyObject* name);

    std::uint64_t serial_ = 0;
    Ref death_;  // a weak reference to the table
    Stamp stamp_;
    // Borrowed: the table's own while its stamp is the same.
    PyObject* columns_ = nullptr;
    PyObject* rows_ = nullptr;
    PyObject* indexes_ = nullptr;
    PyTypeObject* column_type_ = nullptr;  // of all columns; null where there is none
    unsigned column_type_version_ = 0;
    std::vector<std::uint64_t> column_versions_;
    std::vector<Ref> names_;
    Ref first_;  // name: position
    Ref last_;
    bool settled_ = false;
    RowDicts row_dicts_{{}};
};

}  // namespace jdb
