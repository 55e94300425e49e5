// Indexes that came with a file. They name rows by the ids of the database that was saved and their keys have become
// text, so they are rebuilt from the rows before anything relies on them; until then they stay as the file holds them.
#pragma once

#include "host/object.h"

namespace jdb {

// Marks the indexes of a table that a load has just made. The mark lies in the table's own dictionary, where
// copying and pickling keep it; it holds the very object, so that one put in its place by the host is no longer meant.
void mark_indexes_as_read(PyObject* table);

// To be called before an operation relies on the table's indexes or keeps them: rebuilds marked ones, for each unique
// column and each other column that the marked object names. A value that can't be hashed is left unlisted. On an
// error the table is as it was.
void settle_indexes(PyObject* table);

}  // namespace jdb
