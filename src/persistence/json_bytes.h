// A test that the writer and the reader of JSON strings make on several bytes at once.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace jdb::persistence {

// How many bytes stand before the first that is a quote, a backslash, a control character or no ASCII, in a word of
// bytes; all of them where there is none.
template <class Word>
std::size_t plain_bytes(const char* word) {
    constexpr Word ones = static_cast<Word>(0x0101010101010101U);
    Word bytes = 0;
    std::memcpy(&bytes, word, sizeof bytes);
    // A zero byte borrows from its high bit; so does one below the number that is taken off. A byte behind such a one
    // may be marked for no reason, but never one before it.
    const auto zero_in = [](Word value) { return static_cast<Word>((value - ones) & ~value); };
    const Word quotes = zero_in(bytes ^ static_cast<Word>(ones * '"'));
    const Word backslashes = zero_in(bytes ^ static_cast<Word>(ones * '\\'));
    const auto controls = static_cast<Word>((bytes - static_cast<Word>(ones * 0x20U)) & ~bytes);
    const auto special = static_cast<Word>((quotes | backslashes | controls | bytes) & static_cast<Word>(ones << 7U));
    static_assert(std::endian::native == std::endian::little, "the first byte is the lowest");
    return static_cast<std::size_t>(std::countr_zero(special)) / 8;
}

}  // namespace jdb::persistence
