// The column indexes of a table: column name to value to the ids of the rows that hold it, in the order in which they
// were added. The rows are the truth; the indexes follow them, edited in place.
//
// Order: settle first; withdraw a row once, before its new values are validated; add it once, when it is in its place;
// keep last. What is not kept is undone, latest step first. Where a step of that fails as well, or other code has put
// another row in the row's place meanwhile, the table's indexes are marked, as those of a file are when it is loaded,
// and rebuilt from the rows at the next use.
//
// Cost: one dictionary access for each indexed column of a row; a withdrawal also goes through the ids that share a
// value, of which a unique column has one. A rebuild goes once through all rows.
#pragma once

#include <vector>

#include "host/object.h"

namespace jdb {

// ---- The whole of a table's indexes ----

// Marks the indexes that the table has now as not to be relied on: those of a file name rows by the ids of the database
// that was saved, and their keys have become strings. The mark is an entry in the table's own dictionary, which copies
// and pickles keep; it holds the very indexes, so that others put in their place are taken as they are.
void mark_indexes(PyObject* table);

// To be called before an operation relies on the table's indexes or keeps them: rebuilds marked ones, for each column
// that they name and each unique column. A value that can't be hashed is left unlisted. On an error the table is as it
// was. The result is table.indexes.
Ref settle_indexes(PyObject* table);

// Makes the marks that could not be made for want of memory; settle_indexes calls it.
void make_pending_marks();

// Starts the column's index anew and lists every row that is not deleted. What was listed by the time of an error
// stays.
void build_index(PyObject* table, PyObject* column_name);

// ---- Looking up ----

// The id listed first under the value of a unique column that the data has; an empty Ref when none is listed.
Ref find_unique_value(PyObject* table, PyObject* data);

// ---- One row's change ----

// A change of one row and of its index entries, step by step. Going out of scope undoes what was not kept.
class RowChange {
public:
    RowChange(PyObject* table, PyObject* row_id);
    ~RowChange();
    RowChange(const RowChange&) = delete;
    RowChange& operator=(const RowChange&) = delete;

    // Takes the id out of the lists of the row's values; a value whose list empties is dropped.
    void withdraw(PyObject* row);
    // Puts the row in the place of the id, whatever is there, or at the end of the table's rows.
    void put(PyObject* row);
    void append(PyObject* row);
    // Lists the id under each of the row's values, at the end.
    void add(PyObject* row);
    void keep() noexcept;

private:
    enum class Done : unsigned char { nothing, withdrawn, dropped, put, appended, listed, created };
    struct Step {
        Done done;
        Ref container;  // the column's index, or the rows
        Ref key;        // the value, or the id
        Ref item;       // the list of ids, or the row that was there before or is now at the end
        Py_ssize_t position = 0;
    };

    [[nodiscard]] bool agrees(PyObject* row) const noexcept;
    Step& begin(Ref container, Ref key, Ref item);
    void undo() noexcept;
    void undo_step(const Step& step) const;

    Ref table_;
    Ref row_id_;
    Ref indexes_;  // as the change found them
    Ref old_row_;  // that was withdrawn; empty before
    Ref new_row_;  // that was put or appended; empty before
    std::vector<Step> steps_;
    bool agrees_ = true;  // whether rows and indexes certainly agree once all is done or undone
};

}  // namespace jdb
