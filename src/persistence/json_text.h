// The database's JSON text written natively, byte for byte what json.dump writes for it, in one pass and without
// running host code. What it does not know it leaves to json.dump.
#pragma once

#include <cstring>
#include <functional>
#include <memory>
#include <string_view>

#include "host/ref.h"

namespace jdb::persistence {

// Text under way. It is handed on in pieces, so that a large document never lies in memory as a whole.
class TextBuffer {
public:
    // Takes a piece of finished text; false stops the writing. It may run host code.
    using Take = std::function<bool(std::string_view)>;

    explicit TextBuffer(Take take) : take_(std::move(take)) {}

    // Room for that many more bytes, and where they go; `advance` counts those written.
    char* reserve(std::size_t more) {
        if (capacity_ - size_ < more) grow(more);
        return text_.get() + size_;
    }
    void advance(std::size_t written) { size_ += written; }
    void add(std::string_view text) {
        std::memcpy(reserve(text.size()), text.data(), text.size());
        advance(text.size());
    }
    [[nodiscard]] std::size_t size() const { return size_; }
    void shorten(std::size_t size) { size_ = size; }
    [[nodiscard]] std::string_view text() const { return {text_.get(), size_}; }

    // To be called where a piece may end and host code may run.
    bool hand_on_when_full() { return size_ < kPiece || hand_on(); }

private:
    // Small beside the tables, and large enough that the system is seldom asked for much.
    static constexpr std::size_t kPiece = std::size_t{1024} * 1024;

    void grow(std::size_t more);
    bool hand_on();

    struct Free {
        void operator()(char* text) const { PyMem_RawFree(text); }
    };
    Take take_;
    std::unique_ptr<char, Free> text_;
    std::size_t capacity_ = 0;
    std::size_t size_ = 0;
};

// Appends the document of these tables. False when it gives up: at an object that is not exactly of a built-in type, a
// record whose fields can't be read without host code, nesting past a safe depth, or a piece that was not taken.
bool write_document(PyObject* tables, TextBuffer& text);

// Makes the interpreter's own date types known, which are then written natively; to be called once at import with the
// module datetime. The type of dates; an empty Ref where the module has none but types written in Python.
Ref import_date_types(PyObject* datetime);

}  // namespace jdb::persistence
