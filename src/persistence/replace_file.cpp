// Order: directory opened, old file found writable, new file created beside it under a name of its own, mode and owner
// taken over, text written, flushed, renamed over the old file, directory flushed. Up to the rename a failure removes
// the new file and leaves the old one byte for byte; after it the new text is there and only its permanence in doubt.
#include "persistence/replace_file.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "host/object.h"

namespace jdb::persistence {
namespace {

constexpr int kMostLinks = 40;  // as many as the system itself follows
constexpr int kMostNames = 100;

// Lets other threads run while it lives. An interpreter that shuts down ends a thread that asks for its lock again by
// unwinding its stack; no host object may be touched then, so such a thread rests here until the process is gone.
class LockReleased {
public:
    LockReleased() noexcept : state_(PyEval_SaveThread()) {}
    ~LockReleased() {
        try {
            PyEval_RestoreThread(state_);
        } catch (abi::__forced_unwind&) {
            for (;;) pause();
        }
    }
    LockReleased(const LockReleased&) = delete;
    LockReleased& operator=(const LockReleased&) = delete;

private:
    PyThreadState* state_;
};

// Runs a system call, again while a signal interrupts it, without the interpreter's lock. Its result is negative on
// failure; the error number is returned beside it.
struct Outcome {
    ssize_t result;
    int error;  // 0 on success
};

template <class SystemCall>
Outcome run(SystemCall system_call) {
    const LockReleased released;
    for (;;) {
        const ssize_t result = system_call();
        if (result >= 0) return {result, 0};
        if (errno != EINTR) return {result, errno};
    }
}

[[noreturn]] void raise_os_error(int error, PyObject* name) {
    errno = error;
    PyErr_SetFromErrnoWithFilenameObject(PyExc_OSError, name);
    throw PythonError{};
}

// What the link says; `error` is set where it can't be read.
std::string read_link(const std::string& path, int& error) {
    std::array<char, 4096> text{};
    const Outcome read = run([&] { return readlink(path.c_str(), text.data(), text.size()); });
    error = read.error;
    if (error != 0) return {};
    if (static_cast<std::size_t>(read.result) == text.size()) error = ENAMETOOLONG;
    return {text.data(), static_cast<std::size_t>(read.result)};
}

// Up to the last slash, which stays; empty without one.
std::string directory_of(const std::string& path) { return path.substr(0, path.rfind('/') + 1); }

// The path behind any links in its last place, which may lead to nothing yet; what lies there goes into `status`.
// `error` is set where they can't be followed.
std::string follow_links(std::string path, struct stat& status, int& error) {
    for (int links = 0; links <= kMostLinks; ++links) {
        const Outcome found = run([&] { return lstat(path.c_str(), &status); });
        error = found.error == ENOENT ? 0 : found.error;
        if (found.error != 0 || !S_ISLNK(status.st_mode)) return path;
        const std::string link = read_link(path, error);
        if (error != 0) return path;
        path = link.starts_with('/') ? std::string() : directory_of(path);
        path += link;
    }
    error = ELOOP;
    return path;
}

// Finds the regular file, or the place for a new one, that the path leads to; false when it leads to something else.
bool find_file(const std::string& path, ReplaceTarget& target) {
    // A link may lead where no path does or may be walked, as those in /proc to open files. Another process that is
    // replacing the file right now makes it look so for a moment, but not many times in a row.
    for (int tries = 0; tries < kMostNames; ++tries) {
        struct stat opened {};
        const Outcome found = run([&] { return stat(path.c_str(), &opened); });
        if (found.error != 0 && found.error != ENOENT) raise_os_error(found.error, target.name);
        target.exists = found.error == 0;
        if (target.exists && !S_ISREG(opened.st_mode)) return false;

        struct stat last {};
        int error = 0;
        const std::string end = follow_links(path, last, error);
        if (error == EACCES && target.exists) return false;
        if (error != 0) raise_os_error(error, target.name);
        if (end.ends_with('/')) return false;
        target.directory = directory_of(end);
        target.file = end.substr(target.directory.size());
        const bool same = target.exists && last.st_dev == opened.st_dev && last.st_ino == opened.st_ino;
        if (same || !target.exists || end == path) return true;
    }
    return false;
}

std::string random_name(PyObject* target_name) {
    std::array<unsigned char, 8> bytes{};
    const Outcome drawn = run([&] { return getrandom(bytes.data(), bytes.size(), 0); });
    if (drawn.error != 0) raise_os_error(drawn.error, target_name);
    std::string name = ".json_database-";
    for (const unsigned char byte : bytes) {
        constexpr std::string_view digits = "0123456789abcdef";
        name += digits[byte >> 4U];
        name += digits[byte & 15U];
    }
    name += ".tmp";
    return name;
}

}  // namespace

std::optional<ReplaceTarget> find_replace_target(PyObject* filename) {
    if (PyNumber_Check(filename) != 0) return std::nullopt;
    ReplaceTarget target{Ref::steal(PyOS_FSPath(filename)), {}, {}, false};
    PyObject* encoded = nullptr;
    if (PyUnicode_FSConverter(target.name, &encoded) == 0) throw PythonError{};
    const Ref owned = Ref::steal(encoded);
    std::string path(PyBytes_AS_STRING(encoded), static_cast<std::size_t>(PyBytes_GET_SIZE(encoded)));

    // Nothing's name, or a directory's, if any; `open` knows the error.
    if (path.empty() || path.ends_with('/')) return std::nullopt;

    if (!find_file(path, target)) return std::nullopt;
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    check(PySys_Audit("open", "Osi", static_cast<PyObject*>(target.name), "w", flags));
    return target;
}

int Descriptor::close() noexcept {
    if (number_ < 0) return 0;
    // An interrupted close has closed all the same.
    const LockReleased released;
    const int status = ::close(std::exchange(number_, -1));
    return status == 0 || errno == EINTR ? 0 : errno;
}

// By way of the other constructor the object is complete from here on: what fails is cleaned up by the destructor.
FileReplacement::FileReplacement(ReplaceTarget target) : FileReplacement() {
    target_ = std::move(target);
    open_directory();
    create();
}

FileReplacement::~FileReplacement() {
    if (new_name_.empty()) return;
    const LockReleased released;
    unlinkat(directory_.number(), new_name_.c_str(), 0);
}

void FileReplacement::open_directory() {
    const auto open_as = [&](int access) {
        const char* path = target_.directory.empty() ? "." : target_.directory.c_str();
        return run([&] { return open(path, access | O_DIRECTORY | O_CLOEXEC); });
    };
    Outcome opened = open_as(O_RDONLY);
    if (opened.error == EACCES) {
        // A directory that may be written but not read can't be flushed; all else works.
        directory_can_be_flushed_ = false;
        opened = open_as(O_PATH);
    }
    if (opened.error != 0) raise_os_error(opened.error, target_.name);
    directory_ = Descriptor(static_cast<int>(opened.result));
}

void FileReplacement::create() {
    Descriptor old_file;
    if (target_.exists) {
        // A file that may not be written stays as it is, even where the directory would allow a rename over it.
        const Outcome opened =
            run([&] { return openat(directory_.number(), target_.file.c_str(), O_WRONLY | O_NOFOLLOW | O_CLOEXEC); });
        target_.exists = opened.error != ENOENT;  // gone by now: the new file is a first one again
        if (target_.exists && opened.error != 0) raise_os_error(opened.error, target_.name);
        old_file = Descriptor(static_cast<int>(opened.result));
    }
    // Closed to others until it has the old file's mode; a first file gets what the process gives new files.
    const mode_t mode = target_.exists ? S_IRUSR | S_IWUSR : S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
    for (int tries = 0; new_name_.empty(); ++tries) {
        std::string name = random_name(target_.name);
        const Outcome created = run([&] {
            return openat(directory_.number(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                          mode);
        });
        if (created.error == EEXIST && tries < kMostNames) continue;
        if (created.error != 0) raise_os_error(created.error, target_.name);
        new_file_ = Descriptor(static_cast<int>(created.result));
        new_name_ = std::move(name);
    }
    if (target_.exists) take_over_mode_and_owner(old_file.number());
}

void FileReplacement::take_over_mode_and_owner(int old_file) {
    struct stat old {};
    struct stat own {};
    Outcome outcome = run([&] { return fstat(old_file, &old); });
    if (outcome.error == 0) outcome = run([&] { return fstat(new_file_.number(), &own); });
    if (outcome.error != 0) raise_os_error(outcome.error, target_.name);

    mode_t mode = old.st_mode & 07777U;
    if (own.st_uid != old.st_uid || own.st_gid != old.st_gid) {
        outcome = run([&] { return fchown(new_file_.number(), old.st_uid, old.st_gid); });
        if (outcome.error == EPERM) {
            outcome = run([&] { return fchown(new_file_.number(), static_cast<uid_t>(-1), old.st_gid); });
            // Another group than the old file's may do no more than others could.
            if (outcome.error == EPERM) mode &= ~(S_IRWXG & ~((old.st_mode & S_IRWXO) << 3U));
        }
        if (outcome.error != 0 && outcome.error != EPERM) raise_os_error(outcome.error, target_.name);
    }
    outcome = run([&] { return fchmod(new_file_.number(), mode); });
    if (outcome.error != 0) raise_os_error(outcome.error, target_.name);
}

void FileReplacement::write(std::string_view bytes) {
    const auto start = static_cast<off64_t>(written_);
    const auto size = static_cast<off64_t>(bytes.size());
    written_ += bytes.size();
    while (!bytes.empty()) {
        const Outcome written = run([&] { return ::write(new_file_.number(), bytes.data(), bytes.size()); });
        if (written.error != 0) raise_os_error(written.error, target_.name);
        bytes.remove_prefix(static_cast<std::size_t>(written.result));
    }
    // The disk may begin while the rest of the text is being made; `commit` is what waits for it, and hears of errors.
    run([&] { return sync_file_range(new_file_.number(), start, size, SYNC_FILE_RANGE_WRITE); });
}

void FileReplacement::commit() {
    Outcome outcome = run([&] { return fsync(new_file_.number()); });
    if (outcome.error != 0) raise_os_error(outcome.error, target_.name);
    const int close_error = new_file_.close();
    if (close_error != 0) raise_os_error(close_error, target_.name);
    check(PyErr_CheckSignals());

    outcome = run(
        [&] { return renameat(directory_.number(), new_name_.c_str(), directory_.number(), target_.file.c_str()); });
    if (outcome.error != 0) raise_os_error(outcome.error, target_.name);
    new_name_.clear();
    if (!directory_can_be_flushed_) return;
    outcome = run([&] { return fsync(directory_.number()); });
    // A file system that has no such operation says so in this way.
    if (outcome.error != 0 && outcome.error != EINVAL) raise_os_error(outcome.error, target_.name);
}

}  // namespace jdb::persistence
