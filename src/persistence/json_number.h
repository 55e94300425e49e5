// Writing numbers as JSON, in the notation of repr().
#pragma once

#include <cstdint>

namespace jdb::persistence {

// Room for the longest number of each kind.
inline constexpr int kIntegerRoom = 24;
inline constexpr int kFloatRoom = 48;

// Both write at `to`, which has the room above, and return the end of what they wrote.
char* write_integer(char* to, std::int64_t value);
// The shortest digits that read back as the same number, laid out as by repr(); NaN, Infinity and -Infinity as
// json.dump writes them.
char* write_float(char* to, double value);

}  // namespace jdb::persistence
