// Withdrawal, validation, the new row, its index entries, the file. Each step but the last is taken back, latest first,
// when one that follows fails.
#include "store/update.h"

#include "tables/database.h"
#include "tables/indexes.h"
#include "tables/loaded_indexes.h"
#include "tables/rows.h"

namespace jdb::store {
namespace {

// A row put in another's place, which gets its place back unless the new one is kept or has been replaced in turn.
class ReplacedRow {
public:
    ReplacedRow(PyObject* rows, PyObject* row_id, PyObject* old_row, PyObject* new_row)
        : rows_(Ref::borrow(rows)),
          row_id_(Ref::borrow(row_id)),
          old_row_(Ref::borrow(old_row)),
          new_row_(Ref::borrow(new_row)) {}
    ~ReplacedRow() {
        if (!replaced_) return;
        const SavedError error;
        attempt([&] {
            const Ref current = get_item(rows_, row_id_);
            if (current == new_row_) set_item(rows_, row_id_, old_row_);
        });
    }
    ReplacedRow(const ReplacedRow&) = delete;
    ReplacedRow& operator=(const ReplacedRow&) = delete;

    void put() {
        replaced_ = true;
        set_item(rows_, row_id_, new_row_);
    }
    void keep() noexcept { replaced_ = false; }

private:
    Ref rows_;
    Ref row_id_;
    Ref old_row_;
    Ref new_row_;
    bool replaced_ = false;
};

}  // namespace

Ref update(PyObject* self, PyObject* table_name, PyObject* row_id, PyObject* new_data) {
    const Ref table = require_table(self, table_name);
    Py_ssize_t position = 0;
    const Ref rows = get_attribute(table, names::rows);
    if (!has_row(rows, row_id, position)) {
        const Ref id_text = text_of(row_id);
        raise(PyExc_IndexError, "Row index %U out of range", static_cast<PyObject*>(id_text));
    }
    settle_indexes(table);

    const Ref old_row = get_item(rows, position);
    IndexWithdrawal withdrawn(table, row_id, old_row);
    withdrawn.withdraw();
    const Ref validated = call_method(self, names::validate_row, {table, new_data}, {{names::update, Py_True}});
    const Ref new_row = make_row(table, validated);
    require_in_place(table, row_id, old_row);
    const Ref current_rows = get_attribute(table, names::rows);
    ReplacedRow replaced(current_rows, row_id, old_row, new_row);
    replaced.put();
    IndexAddition listed(row_id);
    listed.add(table, new_row);
    require_in_place(table, row_id, new_row);
    listed.keep();
    replaced.keep();
    withdrawn.keep();

    call_method(self, names::save);
    return Ref::boolean(true);
}

}  // namespace jdb::store
