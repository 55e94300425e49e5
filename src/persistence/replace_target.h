// Finding the file that a name leads to, when it is to be replaced.
#pragma once

#include <optional>
#include <string>

#include "persistence/system_call.h"

namespace jdb::persistence {

// A file to be replaced, with links followed: a regular file that may be written, or the place for a first one.
struct ReplaceTarget {
    Ref name;                        // the path as Python code gave it, for errors
    Descriptor directory;            // where the file is, and the new one is made
    bool directory_readable = true;  // an unreadable one can't be flushed
    std::string file;                // its name in the directory
    bool exists = false;
};

// Nothing when `filename` is or leads to something that can only be opened: a device, a pipe, a directory, the number
// of a descriptor. Raises what `open` would raise for writing, and reports to audit hooks as `open` does. The old file
// is not opened where that can be avoided: watchers, leases and overlay file systems would notice.
std::optional<ReplaceTarget> find_replace_target(PyObject* filename);

}  // namespace jdb::persistence
