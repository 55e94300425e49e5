// Numbers as JSON text, in the host's own notation.
#pragma once

#include <cstdint>

namespace jdb::persistence {

// More than the longest texts take: digits are copied in blocks of one size.
inline constexpr int kIntegerRoom = 24;
inline constexpr int kFloatRoom = 48;

// Both write at `to`, which has the room named above, and return the end.
char* write_integer(char* to, std::int64_t value);
// The shortest decimal text that reads back as the same number, laid out as the host's repr does; NaN and the
// infinities as JSON's readers take them.
char* write_float(char* to, double value);

}  // namespace jdb::persistence
