// What is remembered of a table between calls: its fields, and the names and positions of its columns, read without
// running Python code. Every fast path over rows rests on it.
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
    // What is known of the table now; borrowed until Python code may have run, and then to be asked for again. Null
    // where reading the table's fields or its columns' names could run Python code, and where a name is not exactly a
    // str. Runs no Python code. Made anew for each call, get_row and a select by a unique value take six times as long.
    static KnownTable* of(PyObject* table);

    // While this number is the same, so is everything else here. No two tables, nor two states of one, share it.
    [[nodiscard]] std::uint64_t serial() const { return serial_; }
    // The table's fields, borrowed.
    [[nodiscard]] PyObject* rows() const { return rows_; }
    [[nodiscard]] PyObject* indexes() const { return indexes_; }
    // Whether the indexes are not marked for a rebuild.
    [[nodiscard]] bool has_settled_indexes() const { return settled_; }
    [[nodiscard]] Py_ssize_t column_count() const { return static_cast<Py_ssize_t>(names_.size()); }
    // The position of the first or last column of that name, exactly a str; -1 when there is none.
    [[nodiscard]] Py_ssize_t first(PyObject* name) const { return position(first_, name); }
    [[nodiscard]] Py_ssize_t last(PyObject* name) const { return position(last_, name); }

    // Makes dictionaries of all columns; of several columns with one name, the last one's value is taken.
    [[nodiscard]] RowDicts& row_dicts() { return row_dicts_; }
    // Makes dictionaries of those names that are columns, in their order, each once. The names are exactly str.
    [[nodiscard]] RowDicts project(const std::vector<Ref>& names) const;

private:
    KnownTable() = default;
    static std::unique_ptr<KnownTable> read(PyObject* table);
    [[nodiscard]] bool is_current(PyObject* table) const;
    static Py_ssize_t position(PyObject* positions, PyObject* name);

    std::uint64_t serial_ = 0;
    Ref death_;  // a weak reference to the table
    Stamp stamp_;
    // Borrowed, alive while the table's stamp is the same.
    PyObject* columns_ = nullptr;
    PyObject* rows_ = nullptr;
    PyObject* indexes_ = nullptr;
    PyTypeObject* column_type_ = nullptr;  // of all columns; null where there is none
    unsigned column_type_version_ = 0;
    std::vector<std::uint64_t> column_versions_;
    std::vector<Ref> names_;
    Ref first_;  // dict of name to position
    Ref last_;
    bool settled_ = false;
    RowDicts row_dicts_{{}};
};

}  // namespace jdb
