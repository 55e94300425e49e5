// Preloaded into a tested process, this stands between it and the system. While it is armed it counts the calls by
// which files are replaced, and makes the ones it was told of fail, stop half way, or be the process's last.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace {

enum class Action : int { off, fail, shorten, interrupt, kill_before, kill_after, no_memory, predict };

Action action = Action::off;
int first = 0;
int last = 0;
int error = 0;
int seen = 0;
int written = -1;  // the descriptor last written to
char names[8192];
char lacking[128];  // calls that the system lacks, between blanks: each gives this error number, at any time
int lacking_error = 0;

bool due() {
    ++seen;
    return seen >= first && seen <= last;
}

void note(std::string_view name) {
    const std::size_t used = std::strlen(names);
    if (used + name.size() + 2 > sizeof names) return;
    names[used + name.copy(names + used, name.size())] = ' ';
    names[used + name.size() + 1] = '\0';
}

// Whether the thread keeps the interpreter's other threads from running.
bool holds_lock() {
    static const auto check = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "PyGILState_Check"));
    return check != nullptr && check() != 0;
}

bool lacks(std::string_view name) {
    const std::string_view words(lacking);
    for (std::size_t at = 0; (at = words.find(name, at)) != std::string_view::npos; ++at) {
        if (words[at - 1] == ' ' && words[at + name.size()] == ' ') return true;
    }
    return false;
}

[[noreturn]] void die() {
    kill(getpid(), SIGKILL);
    for (;;) pause();
}

// The call itself, or what was planned in its place. `noted` is the name under which it is counted.
template <class Result, class... Arguments>
Result pass(const char* name, const char* noted, Arguments... arguments) {
    const auto real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
    if (lacks(noted)) {
        errno = lacking_error;
        return -1;
    }
    if (action == Action::off || action == Action::no_memory || action == Action::predict) return real(arguments...);
    note(holds_lock() ? "locked" : noted);
    if (!due()) return real(arguments...);
    if (action == Action::kill_before) die();
    if (action == Action::fail || (action == Action::interrupt && std::strcmp(name, "close") != 0)) {
        if (std::strcmp(name, "close") == 0) real(arguments...);  // a failing close has closed all the same
        errno = action == Action::fail ? error : EINTR;
        return -1;
    }
    const Result result = real(arguments...);
    if (action == Action::kill_after) die();
    return result;
}

}  // namespace

extern "C" {

// Plans for the calls from the first to the last, counted from 1.
void fault_arm(int planned, int from, int to, int error_number) {
    first = from;
    last = to;
    error = error_number;
    seen = 0;
    written = -1;
    names[0] = '\0';
    action = static_cast<Action>(planned);
}

// How many calls were counted.
int fault_disarm() {
    action = Action::off;
    return seen;
}

const char* fault_names() { return names; }

// From now on the named calls fail; without names all of them are there again.
void fault_lack(const char* calls, int error_number) {
    std::snprintf(lacking, sizeof lacking, " %s ", calls);
    lacking_error = error_number;
}

int openat(int directory, const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    // What may be there already, and lead elsewhere, is not a new file.
    const bool shared = (flags & O_CREAT) != 0 && (flags & O_EXCL) == 0;
    const bool unnamed = (flags & O_TMPFILE) == O_TMPFILE;
    return pass<int>("openat", shared ? "shared" : unnamed ? "unnamed" : "openat", directory, path, flags, mode);
}

ssize_t write(int file, const void* bytes, size_t size) {
    if (action != Action::off) written = file;
    if (action == Action::shorten && size > 1) size /= seen + 1 >= first && seen + 1 <= last ? 2 : 1;
    return pass<ssize_t>("write", "write", file, bytes, size);
}

int close(int file) { return pass<int>("close", file == written ? "close" : "release", file); }
int fsync(int file) { return pass<int>("fsync", "fsync", file); }
int fchmod(int file, mode_t mode) { return pass<int>("fchmod", "fchmod", file, mode); }
int fchown(int file, uid_t user, gid_t group) { return pass<int>("fchown", "fchown", file, user, group); }
int fstat(int file, struct stat* status) { return pass<int>("fstat", "fstat", file, status); }
int stat(const char* path, struct stat* status) { return pass<int>("stat", "stat", path, status); }
int fstatat(int directory, const char* path, struct stat* status, int flags) {
    return pass<int>("fstatat", "fstatat", directory, path, status, flags);
}
int faccessat(int directory, const char* path, int mode, int flags) {
    return pass<int>("faccessat", "faccessat", directory, path, mode, flags);
}
int linkat(int from, const char* old_path, int to, const char* new_path, int flags) {
    return pass<int>("linkat", "linkat", from, old_path, to, new_path, flags);
}
ssize_t getxattr(const char* path, const char* name, void* value, size_t size) {
    return pass<ssize_t>("getxattr", "getxattr", path, name, value, size);
}
ssize_t fgetxattr(int file, const char* name, void* value, size_t size) {
    return pass<ssize_t>("fgetxattr", "fgetxattr", file, name, value, size);
}
int fsetxattr(int file, const char* name, const void* value, size_t size, int flags) {
    return pass<int>("fsetxattr", "fsetxattr", file, name, value, size, flags);
}
int fremovexattr(int file, const char* name) { return pass<int>("fremovexattr", "fremovexattr", file, name); }
ssize_t sendfile(int to, int from, off_t* offset, size_t size) {
    if (action != Action::off) written = to;
    if (action == Action::shorten && size > 100) size = 100;
    return pass<ssize_t>("sendfile", "sendfile", to, from, offset, size);
}
int sync_file_range(int file, off64_t offset, off64_t size, unsigned flags) {
    return pass<int>("sync_file_range", "sync_file_range", file, offset, size, flags);
}
int unlinkat(int directory, const char* path, int flags) {
    return pass<int>("unlinkat", "unlinkat", directory, path, flags);
}
int renameat(int from, const char* old_path, int to, const char* new_path) {
    return pass<int>("renameat", "renameat", from, old_path, to, new_path);
}
ssize_t readlinkat(int directory, const char* path, char* text, size_t size) {
    return pass<ssize_t>("readlinkat", "readlinkat", directory, path, text, size);
}
ssize_t getrandom(void* bytes, size_t size, unsigned flags) {
    if (action == Action::predict && due()) return static_cast<ssize_t>(std::memset(bytes, 0, size) ? size : 0);
    return pass<ssize_t>("getrandom", "getrandom", bytes, size, flags);
}

void* __libc_malloc(size_t size);

void* malloc(size_t size) {
    if (action != Action::no_memory || !due()) return __libc_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

}  // extern "C"
