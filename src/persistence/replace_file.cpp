// Order: the new file is made in the old one's directory, written, given the old one's access rights, flushed and
// renamed over the old one; then the directory is flushed. A failure before the rename leaves the old file byte for
// byte and nothing of the new one; after it the new file is in place but may not survive a power cut.
//
// The new file has a name from the start, one of a few, and a lock. A killed process leaves the file but not the lock,
// so the next save finds it and removes it. A file without a name (O_TMPFILE) would leave nothing, but a file system
// without a journal flushes it as a file that nothing leads to, and loses it in a power cut after the rename: it needs
// a third flush, with which a small save takes 1.1 times as long there, and even then a moment remains.
#include "persistence/replace_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <utility>

#include "host/object.h"
#include "persistence/access_rights.h"

namespace jdb::persistence {
namespace {

constexpr int kMaxNames = 100;
constexpr int kReusedNames = 10;

// The new file's name: at first one of a few that belong to the old file's, then, where somebody keeps these, any.
std::string new_name(const std::string& file, int tries) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::uint64_t number = 0xCBF29CE484222325U;  // FNV-1a
    for (const char byte : file) number = (number ^ static_cast<unsigned char>(byte)) * 0x100000001B3U;
    number += static_cast<std::uint64_t>(tries);
    if (tries >= kReusedNames) {
        number += static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count());
    }
    std::string name = ".json_database-";
    for (int digit = 0; digit < 16; ++digit, number >>= 4U) name += digits[number & 15U];
    return name + ".tmp";
}

Outcome lock(const Descriptor& file) {
    return run([&] { return flock(file.number(), LOCK_EX | LOCK_NB); });
}

// Removes a file of that name that nobody is writing; false when there is none. One whose name leads elsewhere by the
// time it is locked has been renamed: it is the database now.
bool remove_left_over(int directory, const char* name) {
    const Outcome found = run([&] { return openat(directory, name, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); });
    const Descriptor file(found.result);
    if (found.error != 0 || lock(file).error != 0) return false;
    struct stat locked {};
    struct stat named {};
    const Outcome looked = run([&] { return fstat(file.number(), &locked); });
    const Outcome looked_again = run([&] { return fstatat(directory, name, &named, AT_SYMLINK_NOFOLLOW); });
    if (looked.error != 0 || looked_again.error != 0) return false;
    if (locked.st_dev != named.st_dev || locked.st_ino != named.st_ino) return false;
    if (!S_ISREG(locked.st_mode) || locked.st_nlink != 1) return false;
    return run([&] { return unlinkat(directory, name, 0); }).error == 0;
}

// The remark where the error is about access rights: without it the message would seem to be about the file's own.
const char* directory_remark(int error, const char* remark) {
    return error == EACCES || error == EPERM ? remark : nullptr;
}

}  // namespace

// After the delegated constructor the destructor runs even when this one throws, and cleans up.
FileReplacement::FileReplacement(ReplaceTarget target) : FileReplacement() {
    target_ = std::move(target);
    make_new_file();
}

FileReplacement::~FileReplacement() {
    if (new_name_.empty()) return;
    const GilReleased released;
    unlinkat(target_.directory.number(), new_name_.c_str(), 0);
}

void FileReplacement::make_new_file() {
    const int directory = target_.directory.number();
    // A first file gets what the process gives new files.
    const mode_t mode = target_.exists ? S_IRUSR | S_IWUSR : S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    const auto make = [&](const std::string& name) {
        return run([&] {
            return openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        });
    };
    Outcome made{-1, EEXIST};
    for (int tries = 0; made.error == EEXIST && tries < kMaxNames; ++tries) {
        std::string name = new_name(target_.file, tries);
        made = make(name);
        if (made.error == EEXIST && remove_left_over(directory, name.c_str())) made = make(name);
        if (made.error != 0) continue;
        new_file_ = Descriptor(made.result);
        new_name_ = std::move(name);
        if (lock(new_file_).error != EWOULDBLOCK && has_name()) return;  // without locks nobody takes it
        new_name_.clear();                                               // another save took it for a left-over
        made.error = EEXIST;
    }
    // Without an old file `open` would fail here too, with the system's message alone.
    const char* remark =
        target_.exists ? directory_remark(made.error, "no new file can be made in its directory") : nullptr;
    raise_os_error(made.error, target_.name, remark);
}

// Whether the new file has not been removed since it was made.
bool FileReplacement::has_name() const {
    struct stat status {};
    const Outcome looked = run([&] { return fstat(new_file_.number(), &status); });
    if (looked.error != 0) raise_os_error(looked.error, target_.name);
    return status.st_nlink > 0;
}

void FileReplacement::write(std::string_view bytes) {
    while (!bytes.empty()) {
        const Outcome written = run([&] { return ::write(new_file_.number(), bytes.data(), bytes.size()); });
        if (written.error != 0) raise_os_error(written.error, target_.name);
        bytes.remove_prefix(static_cast<std::size_t>(written.result));
    }
    // The disk can begin while the rest is being made; `commit` waits for it and gets its errors. Without this an
    // insert into 8.5 MB takes 1.15 to 1.2 times as long on an idle machine, and as long on a busy one.
    run([&] { return sync_file_range(new_file_.number(), 0, 0, SYNC_FILE_RANGE_WRITE); });
}

void FileReplacement::commit() {
    copy_access_rights();
    flush();
    check_signals();
    if (access_rights_changed()) {
        run([&] { return fchmod(new_file_.number(), S_IRUSR | S_IWUSR); });
        copy_access_rights();
    }
    rename();
    // A journal commits the rename with this, in a directory that can't be flushed itself.
    if (!target_.directory_readable) flush();
    flush_directory();
    const int error = new_file_.close();
    if (error != 0) raise_os_error(error, target_.name);
}

void FileReplacement::flush() const {
    const Outcome flushed = run([&] { return fsync(new_file_.number()); });
    if (flushed.error != 0) raise_os_error(flushed.error, target_.name);
}

void FileReplacement::flush_directory() const {
    if (!target_.directory_readable) return;
    const Outcome flushed = run([&] { return fsync(target_.directory.number()); });
    // EINVAL: the file system can't flush directories.
    if (flushed.error != 0 && flushed.error != EINVAL) raise_os_error(flushed.error, target_.name);
}

void FileReplacement::copy_access_rights() {
    const int error =
        persistence::copy_access_rights(target_.directory.number(), target_.file, new_file_.number(), old_status_);
    if (error != 0) raise_os_error(error, target_.name);
}

// Whether the old file's may be others than those that were copied.
bool FileReplacement::access_rights_changed() const {
    struct stat now {};
    const Outcome looked =
        run([&] { return fstatat(target_.directory.number(), target_.file.c_str(), &now, AT_SYMLINK_NOFOLLOW); });
    if (looked.error == ENOENT) return false;
    if (looked.error != 0) raise_os_error(looked.error, target_.name);
    return now.st_ino != old_status_.st_ino || now.st_ctim.tv_sec != old_status_.st_ctim.tv_sec ||
           now.st_ctim.tv_nsec != old_status_.st_ctim.tv_nsec;
}

void FileReplacement::rename() {
    const int directory = target_.directory.number();
    const Outcome renamed =
        run([&] { return renameat(directory, new_name_.c_str(), directory, target_.file.c_str()); });
    if (renamed.error != 0) {
        raise_os_error(renamed.error, target_.name,
                       directory_remark(renamed.error, "it can't be replaced in its directory"));
    }
    new_name_.clear();
    run([&] { return flock(new_file_.number(), LOCK_UN); });  // the program may use locks of its own on its file
}

}  // namespace jdb::persistence
