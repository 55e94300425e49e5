// Handing a file's access rights on to the file that takes its place.
#pragma once

#include <string>

namespace jdb::persistence {

// Gives the new file, which so far nobody but its owner may use, the owner, group, access control list and mode of the
// file that lies under the name. What can't be handed on is narrowed: at no moment has anybody a right that the old
// file did not give, except that one who may not keep the owner becomes it. Where no old file lies, nothing changes.
// 0, or the error number.
int copy_access_rights(int directory, const std::string& file, int new_file);

}  // namespace jdb::persistence
