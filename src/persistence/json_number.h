// Numbers as JSON text, in the notation of repr().
#pragma once

#include <cstdint>

namespace jdb::persistence {

// More than the longest numbers take.
inline constexpr int kIntegerRoom = 24;
inline constexpr int kFloatRoom = 48;

// Both write at `to`, which has the room named above, and return the end.
char* write_integer(char* to, std::int64_t value);
// The shortest decimal text that reads back as the same number, laid out as repr() does; NaN and the
// infinities as JSON's readers take them.
char* write_float(char* to, double value);

}  // namespace jdb::persistence
