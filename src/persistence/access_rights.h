// Giving a file the access rights of the one that it will replace.
#pragma once

#include <sys/stat.h>

#include <string>

#include "persistence/system_call.h"

namespace jdb::persistence {

// The file to be replaced, as it was found when its access rights were read.
struct OldFile {
    Descriptor descriptor;
    struct stat status {};
};

// Gives the new file, which so far only its owner may use, the owner, group, access control list and mode of the file
// of that name in the directory. Where the process may not give one of these, the rest is narrowed: at no moment does
// anyone have a right that the old file did not give when they were read, except that the process's user may become the
// owner. Nothing changes where there is no old file. 0, or the error number.
int copy_access_rights(int directory, const std::string& file, int new_file, OldFile& old_file);

}  // namespace jdb::persistence
