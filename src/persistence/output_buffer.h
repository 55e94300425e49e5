// Bytes on their way to the file, given to a sink in pieces, so that a large document is never in memory as a whole.
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

// Takes the next piece. It may run Python code and raise PythonError.
using Sink = std::function<void(std::string_view)>;

class OutputBuffer {
public:
    explicit OutputBuffer(const Sink& sink) : sink_(sink) {}

    // Makes room for that many more bytes and returns where they go; `advance` adds those before `end`. std::bad_alloc
    // for lack of memory.
    char* reserve(std::size_t more) {
        if (static_cast<std::size_t>(limit_ - end_) < more) grow(more);
        return end_;
    }
    void advance(char* end) {
        assert(end_ <= end && end <= limit_);
        end_ = end;
    }
    void add(std::string_view bytes) {
        char* to = reserve(bytes.size());
        std::memcpy(to, bytes.data(), bytes.size());
        advance(to + bytes.size());
    }
    [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(end_ - bytes_.get()); }
    [[nodiscard]] std::string_view bytes() const { return {bytes_.get(), size()}; }

    // Both may call the sink, and raise its errors.
    void flush_if_full() {
        if (size() >= kPiece) flush();
    }
    // Also handles pending signals, so that Ctrl-C need not wait for the end.
    void flush() {
        check_signals();
        sink_(bytes());
        end_ = bytes_.get();
    }

private:
    // Small beside the tables, and large enough to make system calls rare: with pieces of 256 KiB an insert into 8.5 MB
    // takes 1.09 times as long.
    static constexpr std::size_t kPiece = std::size_t{1024} * 1024;

    void grow(std::size_t more) {
        const std::size_t used = size();
        const auto capacity = static_cast<std::size_t>(limit_ - bytes_.get());
        const std::size_t larger = std::max({used + more, capacity + capacity / 2, std::size_t{4096}});
        auto* bytes = static_cast<char*>(PyMem_RawRealloc(bytes_.get(), larger));
        if (bytes == nullptr) throw std::bad_alloc();
        static_cast<void>(bytes_.release());
        bytes_.reset(bytes);
        end_ = bytes + used;
        limit_ = bytes + larger;
    }

    struct Free {
        void operator()(char* bytes) const { PyMem_RawFree(bytes); }
    };
    const Sink& sink_;
    std::unique_ptr<char, Free> bytes_;
    char* end_ = nullptr;    // of the bytes
    char* limit_ = nullptr;  // of the room for more
};

}  // namespace jdb::persistence
