// Replacing a file by a new one, so that at every moment its name leads to the complete old or the complete new text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "host/ref.h"

namespace jdb::persistence {

// A file to be replaced: links followed, found to be a regular file that may be written, or none yet.
struct ReplaceTarget {
    Ref name;               // the path as the host gave it; errors show it
    std::string directory;  // where the file lies and the new one is made
    std::string file;       // its name in there
    bool exists = false;
};

// What `filename` leads to. Nothing when it leads to what can't be replaced, only opened: a device, a pipe, a
// directory, a descriptor number. Raises what `open` would raise for writing, and reports the opening to audit hooks as
// it does.
std::optional<ReplaceTarget> find_replace_target(PyObject* filename);

// An open descriptor, closed when it goes out of scope.
class Descriptor {
public:
    explicit Descriptor(int number = -1) noexcept : number_(number) {}
    ~Descriptor() { close(); }
    Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    [[nodiscard]] int number() const noexcept { return number_; }
    // Lets other threads run meanwhile. 0, or the error number.
    int close() noexcept;

private:
    int number_;
};

// The new file while it is being written. Until `commit` has renamed it, the old file is untouched and going out of
// scope removes the new one. Each call may raise OSError, which names the database file; the interpreter's lock is
// released while the disk works.
class FileReplacement {
public:
    explicit FileReplacement(ReplaceTarget target);
    ~FileReplacement();
    FileReplacement(const FileReplacement&) = delete;
    FileReplacement& operator=(const FileReplacement&) = delete;

    void write(std::string_view bytes);
    // Flushes the new file to disk, puts it in the old one's place and flushes the directory.
    void commit();

private:
    FileReplacement() = default;
    void open_directory();
    void create();
    void take_over_mode_and_owner(int old_file);

    ReplaceTarget target_;
    Descriptor directory_;
    bool directory_can_be_flushed_ = true;
    std::string new_name_;  // empty while there is no new file to remove
    Descriptor new_file_;
    std::size_t written_ = 0;
};

}  // namespace jdb::persistence
