// Replacing a file by a new one, so that its name leads to the complete old or the complete new one at every moment.
#pragma once

#include <string>
#include <string_view>

#include "persistence/replace_target.h"

namespace jdb::persistence {

// The new file while it is being written. Where the system has files without names, it has a name only in `commit`,
// just before the rename, so that a killed process leaves nothing behind. Before the rename the old file is untouched,
// only the owner can use the new one, and the destructor removes it. A first file, with nothing to replace, has a name
// and the access rights of any new file from the start. Each call may raise OSError, which names the database file; the
// GIL is released in system calls.
class FileReplacement {
public:
    explicit FileReplacement(ReplaceTarget target);
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    // Appends the bytes to the new file.
    void write(std::string_view bytes);
    // Flushes the new file to disk, gives it the old one's access rights as far as the process may, renames it over the
    // old one and flushes that. When it returns, the new file survives a power cut. When it raises, either the old file
    // is as it was, or the new one is in its place and may not survive one.
    void commit();

private:
    FileReplacement() = default;
    bool make_without_name();
    void make_with_name();
    void give_name();
    void copy_to_named_file();
    void copy_access_rights();
    void rename();
    void flush() const;
    void flush_directory() const;

    template <class Make>
    Outcome under_new_name(Make make);

    ReplaceTarget target_;
    std::string new_name_;  // empty while there is none to remove
    Descriptor new_file_;
    std::size_t written_ = 0;
};

}  // namespace jdb::persistence
