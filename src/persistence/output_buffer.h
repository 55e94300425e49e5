// Text under way to the file, handed on in pieces, so that a large document never lies in memory as a whole.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string_view>

#include "host/object.h"

namespace jdb::persistence {

// Takes a piece of the text. It may run Python code and raise.
using Sink = std::function<void(std::string_view)>;

class OutputBuffer {
public:
    explicit OutputBuffer(const Sink& sink) : sink_(sink) {}

    // Room for that many more bytes, and where they go; `advance` counts those written.
    char* reserve(std::size_t more) {
        if (capacity_ - size_ < more) grow(more);
        return text_.get() + size_;
    }
    void advance(std::size_t written) {
        assert(written <= capacity_ - size_);
        size_ += written;
    }
    void add(std::string_view text) {
        std::memcpy(reserve(text.size()), text.data(), text.size());
        advance(text.size());
    }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] std::string_view text() const { return {text_.get(), size_}; }

    void flush_if_full() {
        if (size_ >= kPiece) flush();
    }
    // Also asks for pending signals, so that an interrupt need not wait for the end.
    void flush() {
        check_signals();
        sink_(text());
        size_ = 0;
    }

private:
    // Small beside the tables, and large enough that the system is seldom asked for much.
    static constexpr std::size_t kPiece = std::size_t{256} * 1024;

    void grow(std::size_t more) {
        const std::size_t capacity = std::max({size_ + more, capacity_ + capacity_ / 2, std::size_t{4096}});
        auto* text = static_cast<char*>(PyMem_RawRealloc(text_.get(), capacity));
        if (text == nullptr) throw std::bad_alloc();
        static_cast<void>(text_.release());
        text_.reset(text);
        capacity_ = capacity;
    }

    struct Free {
        void operator()(char* text) const { PyMem_RawFree(text); }
    };
    const Sink& sink_;
    std::unique_ptr<char, Free> text_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
};

}  // namespace jdb::persistence
