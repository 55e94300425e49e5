// Order: owner and group, which decide whom the rest applies to; then the access control list, since setting it changes
// the mode; then the mode. Whatever fails, the new file is not more open than the old one.
#include "persistence/access_rights.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

namespace jdb::persistence {
namespace {

constexpr const char* kListName = "system.posix_acl_access";

struct AccessRights {
    struct stat status {};
    std::string list;  // the access control list as the system encodes it; empty when there is none
    bool list_known = false;

    [[nodiscard]] mode_t mode() const { return status.st_mode & 07777U; }
};

// An encoded list has a head, and entries of a tag, rights and an id; numbers are little-endian.
enum Tag : char { owner = 0x01, owning_group = 0x04, others = 0x20 };

template <class Visit>
void visit_entries(std::string& list, Visit visit) {
    constexpr std::size_t head = 4;
    constexpr std::size_t entry = 8;
    for (std::size_t at = head; at + entry <= list.size(); at += entry) visit(list[at], list[at + 2]);
}

// Whether the error says that there is no list: the file has none, or its file system has no lists.
bool means_no_list(int error) { return error == ENODATA || error == EOPNOTSUPP || error == ENOSYS; }

// Reads the list by way of `get(buffer, size)`.
template <class Get>
void read_list(AccessRights& rights, Get get) {
    Outcome read = run([&] { return get(nullptr, 0); });
    if (read.error == 0) {
        rights.list.resize(static_cast<std::size_t>(read.result));
        read = run([&] { return get(rights.list.data(), rights.list.size()); });
    }
    rights.list.resize(read.error == 0 ? static_cast<std::size_t>(read.result) : 0);
    rights.list_known = read.error == 0 || means_no_list(read.error);
}

int read_rights(int directory, const std::string& file, OldFile& old_file, AccessRights& rights) {
    const auto open_as = [&](int access) {
        return run([&] { return openat(directory, file.c_str(), access | O_NOFOLLOW | O_CLOEXEC); });
    };
    const Outcome opened = open_as(O_PATH);
    if (opened.error != 0) return opened.error;
    old_file.descriptor = Descriptor(opened.result);
    const Outcome looked = run([&] { return fstat(old_file.descriptor.number(), &rights.status); });
    if (looked.error != 0) return looked.error;
    old_file.status = rights.status;
    if (!S_ISREG(rights.status.st_mode)) return ELOOP;  // a link has taken its place meanwhile, and is not replaced

    const std::string link = "/proc/self/fd/" + std::to_string(old_file.descriptor.number());
    read_list(rights, [&](void* to, std::size_t size) { return getxattr(link.c_str(), kListName, to, size); });
    if (rights.list_known) return 0;
    // Without /proc the file has to be opened for this.
    const Descriptor readable(open_as(O_RDONLY | O_NONBLOCK).result);
    read_list(rights, [&](void* to, std::size_t size) { return fgetxattr(readable.number(), kListName, to, size); });
    return 0;
}

// The new file has another group. Members of the old one now count among the others, and others are in the group: both
// get only what both had.
void narrow_without_group(AccessRights& rights) {
    mode_t both = (rights.status.st_mode >> 3U) & rights.status.st_mode & S_IRWXO;
    visit_entries(rights.list, [&](char tag, char allowed) {
        if (tag == Tag::owning_group) both &= static_cast<mode_t>(allowed);
    });
    visit_entries(rights.list, [&](char tag, char& allowed) {
        if (tag == Tag::owning_group || tag == Tag::others) allowed = static_cast<char>(both);
    });
    rights.status.st_mode = (rights.status.st_mode & ~static_cast<mode_t>(S_IRWXO)) | both;
    if (rights.list.empty()) rights.status.st_mode &= ~static_cast<mode_t>(S_IRWXG) | (both << 3U);
}

// The new file has no list. Those whom the old one named now count in the group or among the others, and may be some
// whom it kept out; an unreadable list may have kept out anyone.
void narrow_without_list(AccessRights& rights) {
    mode_t everybody = rights.list_known ? rights.status.st_mode & S_IRWXO : 0;
    visit_entries(rights.list, [&](char tag, char allowed) {
        if (tag != Tag::owner) everybody &= static_cast<mode_t>(allowed);
    });
    const mode_t group = (rights.status.st_mode >> 3U) & everybody;
    rights.status.st_mode =
        (rights.status.st_mode & ~static_cast<mode_t>(S_IRWXG | S_IRWXO)) | (group << 3U) | everybody;
}

int give_owner_and_group(int new_file, AccessRights& rights) {
    struct stat own {};
    const Outcome looked = run([&] { return fstat(new_file, &own); });
    if (looked.error != 0) return looked.error;
    const uid_t user = rights.status.st_uid;
    const gid_t group = rights.status.st_gid;
    if (own.st_uid == user && own.st_gid == group) return 0;

    Outcome given = run([&] { return fchown(new_file, user, group); });
    if (!is_unavailable(given.error)) return given.error;
    // A program that ran as the owner or group must not run as another.
    rights.status.st_mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    if (own.st_gid == group) return 0;
    given = run([&] { return fchown(new_file, static_cast<uid_t>(-1), group); });
    if (!is_unavailable(given.error)) return given.error;
    narrow_without_group(rights);
    return 0;
}

int give_list(int new_file, AccessRights& rights) {
    Outcome given{0, rights.list_known ? 0 : EPERM};
    if (!rights.list.empty()) {
        given = run([&] { return fsetxattr(new_file, kListName, rights.list.data(), rights.list.size(), 0); });
    }
    // The directory may have given the new file a list of its own.
    const auto has_list = [&] {
        return !means_no_list(run([&] { return fgetxattr(new_file, kListName, nullptr, 0); }).error);
    };
    if ((rights.list.empty() || given.error != 0) && has_list()) {
        const Outcome removed = run([&] { return fremovexattr(new_file, kListName); });
        if (given.error == 0 && !means_no_list(removed.error)) given = removed;
    }
    if (!is_unavailable(given.error)) return given.error;
    narrow_without_list(rights);
    return 0;
}

int give_mode(int new_file, const AccessRights& rights) {
    struct stat own {};
    const Outcome looked = run([&] { return fstat(new_file, &own); });
    if (looked.error != 0) return looked.error;
    const mode_t mode = own.st_mode & 07777U;
    if (mode == rights.mode()) return 0;
    const Outcome given = run([&] { return fchmod(new_file, rights.mode()); });
    return is_unavailable(given.error) && (mode & ~rights.mode()) == 0 ? 0 : given.error;
}

}  // namespace

int copy_access_rights(int directory, const std::string& file, int new_file, OldFile& old_file) {
    AccessRights rights;
    int error = read_rights(directory, file, old_file, rights);
    if (error == ENOENT) return 0;
    if (error == 0) error = give_owner_and_group(new_file, rights);
    if (error == 0) error = give_list(new_file, rights);
    if (error == 0) error = give_mode(new_file, rights);
    return error;
}

}  // namespace jdb::persistence
