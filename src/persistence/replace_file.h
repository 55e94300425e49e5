// Replacing a file by a new one, so that its name leads to the complete old or the complete new one at every moment.
#pragma once

#include <string>
#include <string_view>

#include "persistence/access_rights.h"
#include "persistence/replace_target.h"

namespace jdb::persistence {

// The new file while it is being written. Before the rename the old file is untouched, and the destructor removes the
// new one. A killed process leaves it, and the next save over the same file removes it. Only its owner can use it
// until it is complete; a first file, with nothing to replace, has the access rights of any new file from the start.
// Each call may raise OSError, which names the database file; the GIL is released in system calls.
class FileReplacement {
public:
    explicit FileReplacement(ReplaceTarget target);
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    // Appends the bytes to the new file.
    void write(std::string_view bytes);
    // Gives the new file the old one's access rights as far as the process may, flushes it to disk, renames it over the
    // old one and flushes the directory. When it returns, the new file survives a power cut. When it raises, either the
    // old file is as it was, or the new one is in its place and may not survive one.
    void commit();

private:
    FileReplacement() = default;
    void make_new_file();
    [[nodiscard]] int check_name() const;
    void copy_access_rights();
    [[nodiscard]] bool access_rights_changed() const;
    void rename();
    void flush() const;
    void flush_directory() const;

    ReplaceTarget target_;
    std::string new_name_;  // empty while there is none to remove
    Descriptor new_file_;
    OldFile old_file_;
};

}  // namespace jdb::persistence
