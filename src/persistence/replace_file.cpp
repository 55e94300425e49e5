// Order: the new file is made in the old one's directory, written, given the old one's access rights, flushed and
// renamed over the old one; then the directory is flushed. A failure before the rename leaves the old file byte for
// byte and nothing of the new one; after it the new file is in place but may not survive a power cut.
//
// The new file has a name from the start, one of a few, and a lock. A killed process leaves the file but not the lock,
// so the next save finds it and removes it. A file without a name (O_TMPFILE) would leave nothing, but a file system
// without a journal flushes it as a file that nothing leads to, and loses it in a power cut after the rename: it needs
// a third flush, with which a small save takes 1.1 times as long there.
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

constexpr int kReusedNames = 100;
constexpr int kMaxNames = 200;

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

// 0 where the name leads to the open file, with the file's status; else the error number, ENOENT where it leads
// elsewhere.
int compare_name(int directory, const std::string& name, const Descriptor& file, struct stat& status) {
    struct stat named {};
    Outcome looked = run([&] { return fstat(file.number(), &status); });
    if (looked.error == 0) looked = run([&] { return fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW); });
    if (looked.error != 0) return looked.error;
    return status.st_dev == named.st_dev && status.st_ino == named.st_ino ? 0 : ENOENT;
}

// Removes a file of that name that nobody is writing; false when there is none. One whose name leads elsewhere by the
// time it is locked has been renamed: it is the database now.
bool remove_left_over(int directory, const std::string& name) {
    const Outcome found =
        run([&] { return openat(directory, name.c_str(), O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); });
    const Descriptor file(found.result);
    struct stat status {};
    if (found.error != 0 || lock(file).error != 0 || compare_name(directory, name, file, status) != 0) return false;
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) return false;
    return run([&] { return unlinkat(directory, name.c_str(), 0); }).error == 0;
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
    if (new_name_.empty() || check_name() != 0) return;
    run([&] { return unlinkat(target_.directory.number(), new_name_.c_str(), 0); });
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
        // Where there is no old file, one left by a power cut may be all that there is.
        if (made.error == EEXIST && target_.exists && remove_left_over(directory, name)) made = make(name);
        if (made.error != 0) continue;
        new_file_ = Descriptor(made.result);
        new_name_ = std::move(name);
        // Another save may have taken it for a left-over before it was locked. Where there are no locks, none does.
        const int error = lock(new_file_).error == EWOULDBLOCK ? ENOENT : check_name();
        if (error == 0) return;
        if (error != ENOENT) raise_os_error(error, target_.name);
        made.error = EEXIST;
    }
    // Without an old file `open` would fail here too, with the system's message alone.
    const char* remark =
        target_.exists ? directory_remark(made.error, "no new file can be made in its directory") : nullptr;
    raise_os_error(made.error, target_.name, remark);
}

// 0 while the name leads to the new file. Somebody may have removed it, and another save made its own under the name.
int FileReplacement::check_name() const {
    struct stat status {};
    return compare_name(target_.directory.number(), new_name_, new_file_, status);
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
        flush();
    }
    rename();
    flush_directory();
    const int error = new_file_.close();
    if (error != 0) raise_os_error(error, target_.name);
}

void FileReplacement::flush() const {
    const Outcome flushed = run([&] { return fsync(new_file_.number()); });
    if (flushed.error != 0) raise_os_error(flushed.error, target_.name);
}

void FileReplacement::flush_directory() const {
    // A directory that may not be read can't be opened for this; then the whole file system is flushed.
    const Outcome flushed = run(
        [&] { return target_.directory_readable ? fsync(target_.directory.number()) : syncfs(new_file_.number()); });
    // EINVAL: the file system can't flush directories.
    if (flushed.error != 0 && flushed.error != EINVAL) raise_os_error(flushed.error, target_.name);
}

void FileReplacement::copy_access_rights() {
    const int error =
        persistence::copy_access_rights(target_.directory.number(), target_.file, new_file_.number(), old_file_);
    if (error != 0) raise_os_error(error, target_.name);
}

// Whether the old file's may be others than those that were copied.
bool FileReplacement::access_rights_changed() const {
    struct stat now {};
    const Outcome looked =
        run([&] { return fstatat(target_.directory.number(), target_.file.c_str(), &now, AT_SYMLINK_NOFOLLOW); });
    if (looked.error == ENOENT) return false;
    if (looked.error != 0) raise_os_error(looked.error, target_.name);
    const struct stat& then = old_file_.status;
    return now.st_ino != then.st_ino || now.st_ctim.tv_sec != then.st_ctim.tv_sec ||
           now.st_ctim.tv_nsec != then.st_ctim.tv_nsec;
}

void FileReplacement::rename() {
    const int directory = target_.directory.number();
    if (const int error = check_name(); error != 0) {
        raise_os_error(error, target_.name, "the new file has been removed before it was complete");
    }
    // The program may lock its file, which is the new one from the renaming on. So that one is unlocked at once; the
    // old one, which is still open, takes no time to be removed.
    const Outcome renamed = run([&] {
        const int status = renameat(directory, new_name_.c_str(), directory, target_.file.c_str());
        if (status == 0) flock(new_file_.number(), LOCK_UN);
        return status;
    });
    if (renamed.error != 0) {
        raise_os_error(renamed.error, target_.name,
                       directory_remark(renamed.error, "it can't be replaced in its directory"));
    }
    new_name_.clear();
}

}  // namespace jdb::persistence
