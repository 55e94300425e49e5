// Order: owner and group, since these decide whom the mode is for; then the mode. Whatever fails, the new file is not
// more open than the old one was.
#include "persistence/access_rights.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "persistence/system_call.h"

namespace jdb::persistence {
namespace {

struct AccessRights {
    struct stat status {};

    [[nodiscard]] mode_t mode() const { return status.st_mode & 07777U; }
};

int read_rights(int directory, const std::string& file, AccessRights& rights) {
    const auto open_as = [&](int access) {
        return run([&] { return openat(directory, file.c_str(), access | O_NOFOLLOW | O_CLOEXEC); });
    };
    const Outcome opened = open_as(O_PATH);
    if (opened.error != 0) return opened.error;
    const Descriptor old_file(opened.result);
    const Outcome looked = run([&] { return fstat(old_file.number(), &rights.status); });
    if (looked.error != 0) return looked.error;
    if (!S_ISREG(rights.status.st_mode)) return ELOOP;  // a link has come into its place, and is to stay one

    return 0;
}

// The old group's members count among the others now, and others have come into the group: both get what both had.
void narrow_to_strangers(AccessRights& rights) {
    mode_t both = (rights.status.st_mode >> 3U) & rights.status.st_mode & S_IRWXO;
    rights.status.st_mode = (rights.status.st_mode & ~static_cast<mode_t>(S_IRWXG | S_IRWXO)) | (both << 3U) | both;
}

int give_owner_and_group(int new_file, AccessRights& rights) {
    struct stat own {};
    const Outcome looked = run([&] { return fstat(new_file, &own); });
    if (looked.error != 0) return looked.error;
    const uid_t user = rights.status.st_uid;
    const gid_t group = rights.status.st_gid;
    if (own.st_uid == user && own.st_gid == group) return 0;

    Outcome given = run([&] { return fchown(new_file, user, group); });
    if (!refused(given.error)) return given.error;
    // What runs under the owner's or group's name is not to run under another.
    rights.status.st_mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    if (own.st_gid == group) return 0;
    given = run([&] { return fchown(new_file, static_cast<uid_t>(-1), group); });
    if (!refused(given.error)) return given.error;
    narrow_to_strangers(rights);
    return 0;
}

int give_mode(int new_file, const AccessRights& rights) {
    struct stat own {};
    const Outcome looked = run([&] { return fstat(new_file, &own); });
    if (looked.error != 0) return looked.error;
    const mode_t mode = own.st_mode & 07777U;
    if (mode == rights.mode()) return 0;
    const Outcome given = run([&] { return fchmod(new_file, rights.mode()); });
    return refused(given.error) && (mode & ~rights.mode()) == 0 ? 0 : given.error;
}

}  // namespace

int take_over_access_rights(int directory, const std::string& file, int new_file) {
    AccessRights rights;
    int error = read_rights(directory, file, rights);
    if (error == ENOENT) return 0;
    if (error == 0) error = give_owner_and_group(new_file, rights);
    if (error == 0) error = give_mode(new_file, rights);
    return error;
}

}  // namespace jdb::persistence
