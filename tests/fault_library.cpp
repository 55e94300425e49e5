// Preloaded into a tested process, this stands between it and the system. While it is armed it counts the
// calls by which files are replaced, and makes the ones it was told of fail, stop half way, or be the
// process's last.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

enum class Action : int { off, fail, shorten, kill, no_memory };

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

// Whether the thread keeps the interpreter's other threads from running.
bool holds_lock() {
    static const auto check = reinterpret_cast<int (*)()>(dlsym(RTLD_DEFAULT, "PyGILState_Check"));
    return check != nullptr && check() != 0;
}

// The call itself, or what was planned in its place. `noted` is the name under which it is counted.
template <class Result, class... Arguments>
Result pass(const char* name, const char* noted, Arguments... arguments) {
    const auto real = reinterpret_cast<Result (*)(Arguments...)>(dlsym(RTLD_NEXT, name));
    char word[64];
    std::snprintf(word, sizeof word, " %s ", noted);
    if (std::strstr(lacking, word) != nullptr) {
        errno = lacking_error;
        return -1;
    }
    if (action == Action::off || action == Action::no_memory) return real(arguments...);
    const std::size_t used = std::strlen(names);
    std::snprintf(names + used, sizeof names - used, "%s ", holds_lock() ? "locked" : noted);
    if (!due() || action == Action::shorten) return real(arguments...);
    if (action == Action::kill) kill(getpid(), SIGKILL);
    if (std::strcmp(name, "close") == 0) real(arguments...);  // a failing close has closed all the same
    errno = error;
    return -1;
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
    const char* made = (flags & O_CREAT) == 0 ? "openat" : (flags & O_EXCL) == 0 ? "shared" : "new";
    return pass<int>("openat", made, directory, path, flags, mode);
}

ssize_t write(int file, const void* bytes, size_t size) {
    written = file;
    if (action == Action::shorten && size > 1) size /= 2;
    return pass<ssize_t>("write", "write", file, bytes, size);
}

int close(int file) { return pass<int>("close", file == written ? "close" : "release", file); }
int fsync(int file) { return pass<int>("fsync", file == written ? "fsync" : "fsync-folder", file); }

// A call that is only counted: its result, name, parameters and arguments.
#define COUNTED(result, call, parameters, ...) \
    result call parameters { return pass<result>(#call, #call, __VA_ARGS__); }

COUNTED(int, flock, (int file, int operation), file, operation)
COUNTED(int, syncfs, (int file), file)
COUNTED(int, fchmod, (int file, mode_t mode), file, mode)
COUNTED(int, fchown, (int file, uid_t user, gid_t group), file, user, group)
COUNTED(int, fstat, (int file, struct stat* status), file, status)
COUNTED(int, stat, (const char* path, struct stat* status), path, status)
COUNTED(int, fstatat, (int in, const char* path, struct stat* status, int flags), in, path, status, flags)
COUNTED(int, faccessat, (int in, const char* path, int mode, int flags), in, path, mode, flags)
COUNTED(int, renameat, (int in, const char* old, int to, const char* path), in, old, to, path)
COUNTED(int, unlinkat, (int in, const char* path, int flags), in, path, flags)
COUNTED(ssize_t, readlinkat, (int in, const char* path, char* text, size_t size), in, path, text, size)
COUNTED(ssize_t, getxattr, (const char* path, const char* name, void* to, size_t size), path, name, to, size)
COUNTED(ssize_t, fgetxattr, (int file, const char* name, void* to, size_t size), file, name, to, size)
COUNTED(int, fsetxattr, (int file, const char* name, const void* list, size_t size, int flags),
        file, name, list, size, flags)
COUNTED(int, fremovexattr, (int file, const char* name), file, name)
COUNTED(int, sync_file_range, (int file, off64_t at, off64_t size, unsigned flags), file, at, size, flags)

void* __libc_malloc(size_t size);

void* malloc(size_t size) {
    if (action != Action::no_memory || !due()) return __libc_malloc(size);
    errno = ENOMEM;
    return nullptr;
}

}  // extern "C"
