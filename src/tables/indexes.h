// The column indexes of a table: column name to value to a list of the ids of the rows that hold the value, in the
// order in which they were added. The rows are the truth; the indexes follow them, edited in place.
//
// A changing operation calls settle_indexes, then makes a RowChange: withdraw the old row before the new values are
// validated, put or append the new one, add it, keep. What is not kept is undone, latest step first. Where undoing
// fails too, or Python code has put another row in the place meanwhile, the table's indexes are marked like those of a
// loaded file, and rebuilt from the rows at the next use.
//
// Cost: one dictionary access for each indexed column of a row; a withdrawal also searches the ids under the value, of
// which a unique column has one. A rebuild goes once through all rows.
#pragma once

#include <vector>

#include "host/object.h"

namespace jdb {

// ---- The whole of a table's indexes ----

// Marks the table's present indexes for a rebuild. Those of a file need it: their ids are from before deleted rows were
// left out, and their keys have become strings. The mark is an entry in the table's own dictionary, which copies and
// pickles keep; it holds the indexes themselves, so that others assigned in their place are used as they are.
void mark_indexes(PyObject* table);

// table.indexes, fit for use: to be called before an operation relies on the indexes or edits them. Rebuilds marked
// ones, for each column that they name and each unique column; a value that can't be hashed is left unlisted. On an
// error the table is unchanged.
Ref settle_indexes(PyObject* table);

// Makes the marks that failed for lack of memory, for settle_indexes. What fails again raises, and waits for the next
// call.
void make_pending_marks();

// Starts the column's index anew and lists every row that is not deleted. On an error, what was listed so far stays.
void build_index(PyObject* table, PyObject* column_name);

// ---- Looking up ----

// For the first unique column whose index lists the data's value, the first id listed; an empty Ref where no index
// does.
Ref find_unique_value(PyObject* table, PyObject* data);

// ---- One row's change ----

// A change of one row and of its index entries, step by step. The destructor undoes what was not kept. Each step may
// run Python code and raise its errors.
class RowChange {
public:
    RowChange(PyObject* table, PyObject* row_id);
    ~RowChange();
    RowChange(const RowChange&) = delete;
    RowChange& operator=(const RowChange&) = delete;

    // Takes the id of the old row out of the lists under its values, and drops a value whose list is then empty. Once,
    // first.
    void withdraw(PyObject* row);
    // Stores the new row in the place of the withdrawn one, or at the end of the table's rows.
    void put(PyObject* row);
    void append(PyObject* row);
    // Lists the id under each value of the new row, at the end. Once, when the row is stored.
    void add(PyObject* row);
    // Makes the change final; marks the indexes where other code has replaced the row meanwhile.
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
    Ref indexes_;  // the table's when the change began
    Ref old_row_;  // empty until one is withdrawn
    Ref new_row_;  // empty until one is stored
    std::vector<Step> steps_;
    bool agrees_ = true;  // rows and indexes certainly agree once all is done or undone; else the destructor marks them
};

}  // namespace jdb
