// Finding the bytes of a JSON string that need care, several at once: for the writer and the reader.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

namespace jdb::persistence {

static_assert(std::endian::native == std::endian::little, "the first byte of a word is its lowest");

// A word with a bit set in every byte that is a quote, a backslash, a control character or not ASCII. Only the first
// mark is reliable: bytes behind it may be marked without reason.
template <class Word>
Word special_bytes(Word bytes) {
    constexpr Word ones = static_cast<Word>(0x0101010101010101U);
    // Subtracting sets the high bit of a zero byte, and of one below the number subtracted.
    const auto zero_in = [](Word word) { return static_cast<Word>((word - ones) & ~word); };
    const Word quotes = zero_in(bytes ^ static_cast<Word>(ones * '"'));
    const Word backslashes = zero_in(bytes ^ static_cast<Word>(ones * '\\'));
    const auto controls = static_cast<Word>((bytes - static_cast<Word>(ones * 0x20U)) & ~bytes);
    return static_cast<Word>((quotes | backslashes | controls | bytes) & static_cast<Word>(ones << 7U));
}

// How many bytes are before the first marked one; the word's size where none is.
template <class Word>
std::size_t bytes_before(Word special) {
    return static_cast<std::size_t>(std::countr_zero(special)) / 8;
}

// The word at `from`, of any alignment.
template <class Word>
Word load_word(const char* from) {
    Word word = 0;
    std::memcpy(&word, from, sizeof word);
    return word;
}

}  // namespace jdb::persistence
