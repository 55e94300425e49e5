// The walk goes from directory to directory by descriptor, as the system's own does: the targets of links may add up to
// more than a path can hold, and what was found stays valid when a directory is renamed. Nothing is changed on disk.
#include "persistence/replace_target.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "host/object.h"

namespace jdb::persistence {
namespace {

constexpr int kMaxLinks = 40;  // as many as the system itself follows
constexpr int kMaxTries = 100;

// Enters the directory of `path`, relative to the one that the walk is in. 0, or the error number.
int enter_directory(const std::string& path, ReplaceTarget& target) {
    const std::size_t name = path.rfind('/') + 1;
    const std::string directory = name == 0 ? "." : path.substr(0, name);
    const auto open_as = [&](int access) {
        return run(
            [&] { return openat(target.directory.number(), directory.c_str(), access | O_DIRECTORY | O_CLOEXEC); });
    };
    Outcome opened = open_as(O_RDONLY);
    target.directory_readable = opened.error != EACCES;
    if (!target.directory_readable) opened = open_as(O_PATH);
    if (opened.error != 0) return opened.error;
    target.directory = Descriptor(opened.result);
    target.file = path.substr(name);
    return 0;
}

// Reads the target of the link that the walk is at. 0, or the error number.
int read_link(const ReplaceTarget& target, std::string& link) {
    std::array<char, 4096> buffer{};
    const Outcome read =
        run([&] { return readlinkat(target.directory.number(), target.file.c_str(), buffer.data(), buffer.size()); });
    if (read.error != 0) return read.error;
    if (static_cast<std::size_t>(read.result) == buffer.size()) return ENAMETOOLONG;
    link.assign(buffer.data(), static_cast<std::size_t>(read.result));
    return 0;
}

struct Walk {
    struct stat end {};  // of what is at the end, if anything
    int links = 0;       // followed at the end
    int error = 0;       // 0, or the error number
};

// Walks to the end of the path and of any links there.
Walk walk(std::string path, ReplaceTarget& target) {
    Walk walked;
    target.directory = Descriptor(AT_FDCWD);
    for (; walked.links <= kMaxLinks; ++walked.links) {
        walked.error = enter_directory(path, target);
        if (walked.error != 0) return walked;
        const Outcome found = run(
            [&] { return fstatat(target.directory.number(), target.file.c_str(), &walked.end, AT_SYMLINK_NOFOLLOW); });
        target.exists = found.error == 0;
        walked.error = found.error == ENOENT ? 0 : found.error;
        if (!target.exists || !S_ISLNK(walked.end.st_mode)) return walked;
        walked.error = read_link(target, path);
        if (walked.error != 0) return walked;
    }
    walked.error = ELOOP;
    return walked;
}

// Compares the walk's end with what the system finds behind the path. False where that is no regular file, or where the
// two keep differing: a link may lead where no path leads or may be walked, as those in /proc to open files. They also
// differ for a moment while another process replaces the file, hence the tries.
bool find_behind_links(const std::string& path, ReplaceTarget& target, Walk walked) {
    for (int tries = 0; tries < kMaxTries; ++tries, walked = walk(path, target)) {
        struct stat opened {};
        const Outcome found = run([&] { return stat(path.c_str(), &opened); });
        if (found.error != 0 && found.error != ENOENT) raise_os_error(found.error, target.name);
        const bool exists = found.error == 0;
        if (exists && !S_ISREG(opened.st_mode)) return false;
        if (walked.error == 0 && exists == target.exists) {
            if (!exists) return !target.file.empty();  // else a directory's, if any; `open` knows the error
            if (walked.end.st_dev == opened.st_dev && walked.end.st_ino == opened.st_ino) return true;
        }
        const bool no_path = walked.error == ENOENT || walked.error == EACCES;
        if (walked.error != 0 && !(exists && no_path)) raise_os_error(walked.error, target.name);
    }
    return false;
}

// Finds the regular file, or the place for a new one, that the path leads to; false when it leads to something else.
bool find_file(const std::string& path, ReplaceTarget& target) {
    const Walk walked = walk(path, target);
    if (walked.links > 0) return find_behind_links(path, target, walked);
    if (walked.error != 0) raise_os_error(walked.error, target.name);
    return !target.exists || S_ISREG(walked.end.st_mode);
}

// A file that may not be written stays as it is, even where the directory would allow a rename over it.
void refuse_unwritable(ReplaceTarget& target) {
    const int directory = target.directory.number();
    const char* file = target.file.c_str();
    Outcome answer = run([&] { return faccessat(directory, file, W_OK, AT_EACCESS); });
    if (answer.error == 0) return;
    // Perhaps only the question is not allowed. Opening the file answers it too.
    answer = run([&] { return openat(directory, file, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC); });
    const Descriptor opened(answer.result);
    target.exists = answer.error != ENOENT;  // gone by now: the new file is a first one
    if (answer.error != 0 && target.exists) raise_os_error(answer.error, target.name);
}

}  // namespace

std::optional<ReplaceTarget> find_replace_target(PyObject* filename) {
    if (PyNumber_Check(filename) != 0) return std::nullopt;
    ReplaceTarget target;
    target.name = Ref::steal(python(PyOS_FSPath, filename));
    PyObject* encoded = nullptr;
    if (python(PyUnicode_FSConverter, target.name, &encoded) == 0) throw PythonError{};
    const Ref owned = Ref::steal(encoded);
    const std::string path(PyBytes_AS_STRING(encoded), static_cast<std::size_t>(PyBytes_GET_SIZE(encoded)));

    if (path.empty()) raise_os_error(ENOENT, target.name);
    if (path.ends_with('/')) return std::nullopt;  // a directory's, if any; `open` knows the error

    if (!find_file(path, target)) return std::nullopt;
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
    check(python(PySys_Audit, "open", "Osi", static_cast<PyObject*>(target.name), "w", flags));
    if (target.exists) refuse_unwritable(target);
    return target;
}

}  // namespace jdb::persistence
