// A test that the writer and the reader of JSON strings make on eight bytes at once.
#pragma once

#include <cstdint>
#include <cstring>

namespace jdb::persistence {

// Whether any of the eight bytes from there on is a quote, a backslash, a control character or no ASCII.
inline bool has_special(const char* eight_bytes) {
    constexpr std::uint64_t ones = 0x0101010101010101U;
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, eight_bytes, sizeof bytes);
    // A zero byte borrows from its high bit; so does one below the number that is taken off.
    const auto zero_in = [](std::uint64_t word) { return (word - ones) & ~word; };
    const std::uint64_t quotes = zero_in(bytes ^ (ones * '"'));
    const std::uint64_t backslashes = zero_in(bytes ^ (ones * '\\'));
    const std::uint64_t controls = (bytes - ones * 0x20U) & ~bytes;
    return ((quotes | backslashes | controls | bytes) & (ones << 7U)) != 0;
}

}  // namespace jdb::persistence
