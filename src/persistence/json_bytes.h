// A test that the writer and the reader of JSON strings make on several bytes at once.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

namespace jdb::persistence {

static_assert(std::endian::native == std::endian::little, "the first byte of a word is its lowest");

// A word with a bit set for every byte that is a quote, a backslash, a control character or no ASCII. Behind the first
// such byte others may be marked for no reason.
template <class Word>
Word special_bytes(Word bytes) {
    constexpr Word ones = static_cast<Word>(0x0101010101010101U);
    // A zero byte borrows from its high bit; so does one below the number that is taken off.
    const auto zero_in = [](Word word) { return static_cast<Word>((word - ones) & ~word); };
    const Word quotes = zero_in(bytes ^ static_cast<Word>(ones * '"'));
    const Word backslashes = zero_in(bytes ^ static_cast<Word>(ones * '\\'));
    const auto controls = static_cast<Word>((bytes - static_cast<Word>(ones * 0x20U)) & ~bytes);
    return static_cast<Word>((quotes | backslashes | controls | bytes) & static_cast<Word>(ones << 7U));
}

// How many bytes stand before the first that is marked; all of the word's where none is.
template <class Word>
std::size_t bytes_before(Word special) {
    return static_cast<std::size_t>(std::countr_zero(special)) / 8;
}

template <class Word>
Word load_word(const char* from) {
    Word word = 0;
    std::memcpy(&word, from, sizeof word);
    return word;
}

}  // namespace jdb::persistence
