// What a file name leads to, for a file that is to be replaced.
#pragma once

#include <optional>
#include <string>

#include "persistence/system_call.h"

namespace jdb::persistence {

// A file to be replaced: links followed, found to be a regular file that may be written, or none yet.
struct ReplaceTarget {
    Ref name;                        // the path as Python code gave it; errors show it
    Descriptor directory;            // where the file lies and the new one is made
    bool directory_readable = true;  // one that is not can't be flushed
    std::string file;                // its name in there
    bool exists = false;
};

// Nothing when `filename` leads to what can't be replaced, only opened: a device, a pipe, a directory, a descriptor
// number. Raises what `open` would raise for writing, and reports the opening to audit hooks as it does. The old file
// is not opened: watchers, leases and overlay file systems take no notice of a question.
std::optional<ReplaceTarget> find_replace_target(PyObject* filename);

}  // namespace jdb::persistence
