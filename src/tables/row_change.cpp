// A log of steps. Each is entered before it is taken, so that lack of memory comes before a change, and gets its kind
// when it is done. After a failure the steps done are undone, latest first; what can't be undone is mended by a rebuild
// of the marked indexes.
#include <algorithm>
#include <cassert>
#include <utility>
#include <vector>

#include "tables/indexes.h"
#include "tables/rows.h"

namespace jdb {
namespace {

// Tables whose mark could not be made for lack of memory; it is made before any indexes are used again. Room for them
// is reserved when a change begins.
std::vector<Ref>& pending_marks() {
    static auto& tables = *new std::vector<Ref>();
    return tables;
}

int changes_under_way = 0;

// The position of the first item equal to the row id, -1 when there is none.
Py_ssize_t find_id(PyObject* ids, PyObject* row_id) {
    Py_ssize_t position = 0;
    for (const Ref& id : Iteration(ids)) {
        if (check(python(PyObject_RichCompareBool, id, row_id, Py_EQ)) != 0) return position;
        ++position;
    }
    return -1;
}

void remove_at(PyObject* ids, Py_ssize_t position, PyObject* row_id) {
    if (PyList_CheckExact(ids)) {
        check(python(PySequence_DelItem, ids, position));
    } else {
        call_method(ids, names::remove, {row_id});
    }
}

void insert_at(PyObject* ids, Py_ssize_t position, PyObject* row_id) {
    if (PyList_CheckExact(ids)) {
        check(PyList_Insert(ids, position, row_id));
    } else {
        const Ref place = integer(position);
        call_method(ids, names::insert, {place, row_id});
    }
}

// The position of that very object, searched from the end; -1 when it is not there. An equal one is another's.
Py_ssize_t find_last(PyObject* list, PyObject* object) {
    for (Py_ssize_t i = length(list); i-- > 0;) {
        const Ref item = get_item(list, i);
        if (item == object) return i;
    }
    return -1;
}

// Calls `use(index, value)` for each value that the row has in an indexed column, in column order.
template <class Use>
void each_indexed_value(PyObject* table, PyObject* row, Use use) {
    Py_ssize_t position = -1;
    const Ref columns = get_attribute(table, names::columns);
    for (const Ref& column : Iteration(columns)) {
        ++position;
        const Ref name = get_attribute(column, names::name);
        const Ref indexes = get_attribute(table, names::indexes);
        if (!contains(indexes, name)) continue;
        const Ref value = get_item(row, position);
        const Ref index = get_item(indexes, name);
        use(index, value);
    }
}

// Removes an appended row. Where other code has added rows behind it, a deleted row takes its place, so that they keep
// their ids.
void take_off(PyObject* rows, PyObject* row) {
    const Py_ssize_t position = find_last(rows, row);
    if (position < 0) return;
    if (position == length(rows) - 1) {
        check(python(PySequence_DelItem, rows, position));
    } else {
        const Ref tombstone = make_tombstone(row);
        check(python(PySequence_SetItem, rows, position, tombstone));
    }
}

}  // namespace

void make_pending_marks() {
    while (!pending_marks().empty()) {
        const Ref table = std::move(pending_marks().back());
        pending_marks().pop_back();  // before Python code may run and make the marks itself
        if (succeeds([&] { mark_indexes(table); })) continue;
        pending_marks().push_back(table);
        throw PythonError{};
    }
}

RowChange::RowChange(PyObject* table, PyObject* row_id)
    : table_(Ref::borrow(table)), row_id_(Ref::borrow(row_id)), indexes_(get_attribute(table, names::indexes)) {
    pending_marks().reserve(pending_marks().size() + static_cast<std::size_t>(changes_under_way) + 1);
    ++changes_under_way;
}

RowChange::~RowChange() {
    const SavedError error;
    if (!steps_.empty()) undo();
    --changes_under_way;
    if (agrees_) return;
    if (succeeds([&] { mark_indexes(table_); })) return;
    python(PyErr_Clear);
    pending_marks().push_back(table_);
}

// Whether the row is at its id, and the table has the indexes that the change began with: then no other code has worked
// on the row meanwhile.
bool RowChange::agrees(PyObject* row) const noexcept {
    bool agrees = false;
    const bool known = succeeds([&] {
        const Ref rows = get_attribute(table_, names::rows);
        const Ref found = get_item(rows, row_id_);
        const Ref indexes = get_attribute(table_, names::indexes);
        agrees = found == row && indexes == indexes_;
    });
    if (!known) python(PyErr_Clear);  // there is no such row any more
    return agrees;
}

RowChange::Step& RowChange::begin(Ref container, Ref key, Ref item) {
    steps_.push_back({Done::nothing, std::move(container), std::move(key), std::move(item)});
    return steps_.back();
}

void RowChange::withdraw(PyObject* row) {
    assert(!old_row_ && !new_row_);
    old_row_ = Ref::borrow(row);
    each_indexed_value(table_, row, [&](const Ref& index, const Ref& value) {
        const Ref ids = item_if_key(index, value);
        if (!ids) return;
        const Py_ssize_t position = find_id(ids, row_id_);
        if (position < 0) return;
        Step& step = begin(index, value, ids);
        step.position = position;
        remove_at(ids, position, row_id_);
        step.done = Done::withdrawn;
        if (length(ids) != 0) return;
        check(python(PyObject_DelItem, index, value));
        step.done = Done::dropped;
    });
}

void RowChange::put(PyObject* row) {
    assert(old_row_ && !new_row_);
    const Ref rows = get_attribute(table_, names::rows);
    Step& step = begin(rows, row_id_, get_item(rows, row_id_));
    agrees_ = agrees_ && step.item == old_row_;
    set_item(rows, row_id_, row);
    step.done = Done::put;
    new_row_ = Ref::borrow(row);
}

void RowChange::append(PyObject* row) {
    assert(!old_row_ && !new_row_);
    const Ref rows = get_attribute(table_, names::rows);
    Step& step = begin(rows, row_id_, Ref::borrow(row));
    jdb::append(rows, row);
    step.done = Done::appended;
    new_row_ = Ref::borrow(row);
}

void RowChange::add(PyObject* row) {
    assert(new_row_ == row);
    each_indexed_value(table_, row, [&](const Ref& index, const Ref& value) {
        Ref ids = item_if_key(index, value);
        const bool is_new = !ids;
        if (is_new) ids = new_list();
        Step& step = begin(index, value, ids);
        if (is_new) {
            set_item(index, value, ids);
            step.done = Done::created;
        }
        jdb::append(ids, row_id_);
        if (!is_new) step.done = Done::listed;
    });
}

void RowChange::keep() noexcept {
    assert(new_row_);
    agrees_ = agrees_ && agrees(new_row_);
    steps_.clear();
}

void RowChange::undo() noexcept {
    for (; !steps_.empty(); steps_.pop_back()) {
        const Step& step = steps_.back();
        const bool was_withdrawn = step.done == Done::withdrawn || step.done == Done::dropped;
        if (was_withdrawn && agrees_) agrees_ = agrees(old_row_);
        if (was_withdrawn && !agrees_) continue;
        if (succeeds([&] { undo_step(step); })) continue;
        python(PyErr_Clear);  // the caller sees the first error; the rebuild makes up for this one
        agrees_ = false;
    }
}

void RowChange::undo_step(const Step& step) const {
    Ref ids = step.item;
    switch (step.done) {
        case Done::nothing: break;
        case Done::dropped:
            if (const Ref current = item_if_key(step.container, step.key)) {
                ids = current;
            } else {
                set_item(step.container, step.key, ids);
            }
            [[fallthrough]];
        case Done::withdrawn: insert_at(ids, std::min(step.position, length(ids)), row_id_); break;
        case Done::put: {
            const Ref current = get_item(step.container, row_id_);
            if (current == new_row_) set_item(step.container, row_id_, step.item);
            break;
        }
        case Done::appended: take_off(step.container, step.item); break;
        case Done::created:
        case Done::listed: {
            const Py_ssize_t position = find_last(ids, row_id_);
            if (position >= 0) remove_at(ids, position, row_id_);
            if (step.done == Done::listed || length(ids) != 0) break;
            const Ref current = item_if_key(step.container, step.key);
            if (current == ids) check(python(PyObject_DelItem, step.container, step.key));
            break;
        }
    }
}

}  // namespace jdb
