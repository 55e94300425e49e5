// Validation first, then the row, then its index entries, then the file. Until the row is listed everywhere it can
// be taken back, and then leaves neither entry nor id behind.
#include "store/insert.h"

#include "cpython310/containers.h"
#include "tables/database.h"
#include "tables/indexes.h"
#include "tables/loaded_indexes.h"
#include "tables/rows.h"

namespace jdb::store {
namespace {

// A row at the end of a table's rows, taken off again unless it is kept.
class AppendedRow {
public:
    AppendedRow(PyObject* rows, PyObject* row) : rows_(Ref::borrow(rows)), row_(Ref::borrow(row)) {}
    ~AppendedRow() {
        if (!appended_) return;
        const SavedError error;
        attempt([&] { take_off(); });
    }
    AppendedRow(const AppendedRow&) = delete;
    AppendedRow& operator=(const AppendedRow&) = delete;

    void put() {
        appended_ = true;
        append(rows_, row_);
    }
    void keep() noexcept { appended_ = false; }

private:
    // Rows that host code has put behind it keep their ids: then its place stays, as a deleted row's.
    void take_off() const {
        const Py_ssize_t last = length(rows_) - 1;
        for (Py_ssize_t position = last; position >= 0; --position) {
            const Ref row = get_item(rows_, position);
            if (row != row_) continue;
            if (position < last) {
                const Ref tombstone = make_tombstone(row_);
                check(PySequence_SetItem(rows_, position, tombstone));
            } else if (PyList_CheckExact(rows_)) {
                list_remove_at(rows_, position);
            } else {
                check(PySequence_DelItem(rows_, position));
            }
            return;
        }
    }

    Ref rows_;
    Ref row_;
    bool appended_ = false;
};

}  // namespace

Ref insert(PyObject* self, PyObject* table_name, PyObject* data) {
    const Ref table = require_table(self, table_name);
    settle_indexes(table);
    const Ref validated = call_method(self, names::validate_row, {table, data});
    const Ref row = make_row(table, validated);

    const Ref rows = get_attribute(table, names::rows);
    Ref row_id = integer(length(rows));
    AppendedRow appended(rows, row);
    appended.put();
    IndexAddition listed(row_id);
    listed.add(table, row);
    require_in_place(table, row_id, row);
    listed.keep();
    appended.keep();

    call_method(self, names::save);
    return row_id;
}

}  // namespace jdb::store
