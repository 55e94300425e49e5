// One pass over the tables. Between two calls of `hand_on_when_full` no host code runs, so borrowed pointers hold
// there; what is walked across such a call is owned, and its size read anew.
#include "persistence/json_text.h"

#include <datetime.h>

#include <algorithm>
#include <array>
#include <cstdint>

#include "cpython310/own_fields.h"
#include "host/object.h"
#include "persistence/json_bytes.h"
#include "persistence/json_number.h"
#include "tables/walk.h"

namespace jdb::persistence {
namespace {

constexpr int kSafeDepth = 100;

// ---- Strings ----

char* write_escape(char* to, unsigned character) {
    *to++ = '\\';
    switch (character) {
        case '"':
        case '\\': *to++ = static_cast<char>(character); return to;
        case '\n': *to++ = 'n'; return to;
        case '\r': *to++ = 'r'; return to;
        case '\t': *to++ = 't'; return to;
        case '\b': *to++ = 'b'; return to;
        case '\f': *to++ = 'f'; return to;
        default: break;
    }
    constexpr std::string_view digits = "0123456789abcdef";
    *to++ = 'u';
    *to++ = '0';
    *to++ = '0';
    *to++ = digits[character >> 4U];
    *to++ = digits[character & 15U];
    return to;
}

bool is_escaped(unsigned character) { return character < 0x20 || character == '"' || character == '\\'; }

// Characters of any width as UTF-8, escaped where JSON asks for it; false at a lone surrogate. Not inlined, like all
// that is rare here: what is frequent then keeps to few registers.
template <class Character>
[[gnu::noinline]] bool write_characters(const Character* characters, std::size_t count, TextBuffer& text) {
    constexpr std::size_t kMostBytes = 6;
    constexpr std::size_t kStretch = 1024;
    while (count > 0) {
        const std::size_t stretch = std::min(count, kStretch);
        char* const start = text.reserve(stretch * kMostBytes);
        char* to = start;
        for (std::size_t i = 0; i < stretch; ++i) {
            const std::uint32_t c = characters[i];
            if (c < 0x80) {
                if (is_escaped(c)) {
                    to = write_escape(to, c);
                } else {
                    *to++ = static_cast<char>(c);
                }
            } else if (c < 0x800) {
                *to++ = static_cast<char>(0xC0U | (c >> 6U));
                *to++ = static_cast<char>(0x80U | (c & 0x3FU));
            } else if (c < 0x10000) {
                if (c >= 0xD800 && c < 0xE000) return false;
                *to++ = static_cast<char>(0xE0U | (c >> 12U));
                *to++ = static_cast<char>(0x80U | ((c >> 6U) & 0x3FU));
                *to++ = static_cast<char>(0x80U | (c & 0x3FU));
            } else {
                *to++ = static_cast<char>(0xF0U | (c >> 18U));
                *to++ = static_cast<char>(0x80U | ((c >> 12U) & 0x3FU));
                *to++ = static_cast<char>(0x80U | ((c >> 6U) & 0x3FU));
                *to++ = static_cast<char>(0x80U | (c & 0x3FU));
            }
        }
        text.advance(static_cast<std::size_t>(to - start));
        characters += stretch;
        count -= stretch;
    }
    return true;
}

// Copies a text of one or two words, which may overlap; how much of it needs no care, or nothing of the second word.
template <class Word>
std::size_t copy_two_words(const char* from, std::size_t count, char* to) {
    const std::size_t last = count - sizeof(Word);
    const Word words[] = {load_word<Word>(from), load_word<Word>(from + last)};
    std::memcpy(to, &words[0], sizeof(Word));
    std::memcpy(to + last, &words[1], sizeof(Word));
    const Word special[] = {special_bytes(words[0]), special_bytes(words[1])};
    return (special[0] | special[1]) == 0 ? count : bytes_before(special[0]);
}

// Copies the text as far as nothing in it needs care; how much that is at least.
std::size_t copy_plain(const char* from, std::size_t count, char* to) {
    constexpr std::size_t kWord = sizeof(std::uint64_t);
    std::size_t done = 0;
    for (; count - done > 2 * kWord; done += kWord) {
        const auto word = load_word<std::uint64_t>(from + done);
        std::memcpy(to + done, &word, kWord);
        if (const auto special = special_bytes(word); special != 0) return done + bytes_before(special);
    }
    if (count >= kWord) return done + copy_two_words<std::uint64_t>(from + done, count - done, to + done);
    if (count >= sizeof(std::uint32_t)) return copy_two_words<std::uint32_t>(from, count, to);
    for (; done < count && special_bytes(load_word<std::uint8_t>(from + done)) == 0; ++done) to[done] = from[done];
    return done;
}

bool write_string(PyObject* string, TextBuffer& text) {
    if (!PyUnicode_IS_READY(string)) return false;
    const auto count = static_cast<std::size_t>(PyUnicode_GET_LENGTH(string));
    if (PyUnicode_KIND(string) == PyUnicode_1BYTE_KIND) {
        const auto* characters = PyUnicode_1BYTE_DATA(string);
        char* const to = text.reserve(count + 2);
        *to = '"';
        const std::size_t plain = copy_plain(reinterpret_cast<const char*>(characters), count, to + 1);
        text.advance(plain + 1);
        if (plain < count && !write_characters(characters + plain, count - plain, text)) return false;
    } else {
        text.add("\"");
        const bool written = PyUnicode_KIND(string) == PyUnicode_2BYTE_KIND
                                 ? write_characters(PyUnicode_2BYTE_DATA(string), count, text)
                                 : write_characters(PyUnicode_4BYTE_DATA(string), count, text);
        if (!written) return false;
    }
    text.add("\"");
    return true;
}

// ---- Numbers and dates ----

[[gnu::noinline]] bool write_large_int(PyObject* number, TextBuffer& text) {
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(number, &overflow);
    if (overflow == 0) {
        char* to = text.reserve(kIntegerRoom);
        text.advance(static_cast<std::size_t>(write_integer(to, value) - to));
        return true;
    }
    // The host limits how many digits it converts; its error is json.dump's to raise.
    PyObject* converted = python(PyLong_Type.tp_repr, number);
    if (converted == nullptr) {
        if (PyErr_ExceptionMatches(PyExc_ValueError) == 0) throw PythonError{};
        python(PyErr_Clear);
        return false;
    }
    const Ref digits = Ref::steal(converted);
    text.add({reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(converted)),
              static_cast<std::size_t>(PyUnicode_GET_LENGTH(converted))});
    return true;
}

bool write_int(PyObject* number, TextBuffer& text) {
    if (Py_SIZE(number) != 1) return write_large_int(number, text);  // more than one of the host's own digits
    char* const to = text.reserve(kIntegerRoom);
    const auto digit = reinterpret_cast<PyLongObject*>(number)->ob_digit[0];
    text.advance(static_cast<std::size_t>(write_integer(to, digit) - to));
    return true;
}

void write_double(PyObject* number, TextBuffer& text) {
    char* to = text.reserve(kFloatRoom);
    text.advance(static_cast<std::size_t>(write_float(to, PyFloat_AS_DOUBLE(number)) - to));
}

char* write_padded(char* to, int value, int width) {
    for (int i = width; i-- > 0; value /= 10) to[i] = static_cast<char>('0' + value % 10);
    return to + width;
}

bool is_date(PyObject* value) { return PyDateTimeAPI != nullptr && PyDate_CheckExact(value); }
// One with a time zone asks the zone object for its text.
bool is_plain_date_time(PyObject* value) {
    return PyDateTimeAPI != nullptr && PyDateTime_CheckExact(value) && PyDateTime_DATE_GET_TZINFO(value) == Py_None;
}

// The text of a date or a date-time, in quotes.
void write_date(PyObject* value, bool with_time, TextBuffer& text) {
    constexpr std::size_t kRoom = 32;
    char* const start = text.reserve(kRoom);
    char* to = start;
    *to++ = '"';
    to = write_padded(to, PyDateTime_GET_YEAR(value), 4);
    *to++ = '-';
    to = write_padded(to, PyDateTime_GET_MONTH(value), 2);
    *to++ = '-';
    to = write_padded(to, PyDateTime_GET_DAY(value), 2);
    if (with_time) {
        *to++ = ' ';
        to = write_padded(to, PyDateTime_DATE_GET_HOUR(value), 2);
        *to++ = ':';
        to = write_padded(to, PyDateTime_DATE_GET_MINUTE(value), 2);
        *to++ = ':';
        to = write_padded(to, PyDateTime_DATE_GET_SECOND(value), 2);
        if (const int micro = PyDateTime_DATE_GET_MICROSECOND(value); micro != 0) {
            *to++ = '.';
            to = write_padded(to, micro, 6);
        }
    }
    *to++ = '"';
    text.advance(static_cast<std::size_t>(to - start));
}

// ---- Values ----

bool write_value(PyObject* value, TextBuffer& text, int depth);

template <class ItemAt>
bool write_array(Py_ssize_t size, ItemAt item_at, TextBuffer& text, int depth) {
    if (depth >= kSafeDepth) return false;
    text.add("[");
    for (Py_ssize_t i = 0; i < size; ++i) {
        if (i > 0) text.add(", ");
        if (!write_value(item_at(i), text, depth + 1)) return false;
    }
    text.add("]");
    return true;
}

// A member's name: text as it is, numbers and constants as text of their JSON form.
bool write_key(PyObject* key, TextBuffer& text) {
    if (PyUnicode_CheckExact(key)) return write_string(key, text);
    if (!PyLong_CheckExact(key) && !PyFloat_CheckExact(key) && !PyBool_Check(key) && key != Py_None) return false;
    text.add("\"");
    if (!write_value(key, text, 0)) return false;
    text.add("\"");
    return true;
}

bool write_object(PyObject* dict, TextBuffer& text, int depth) {
    if (depth >= kSafeDepth) return false;
    text.add("{");
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    for (bool first = true; PyDict_Next(dict, &position, &key, &value) != 0; first = false) {
        if (!first) text.add(", ");
        if (!write_key(key, text)) return false;
        text.add(": ");
        if (!write_value(value, text, depth + 1)) return false;
    }
    text.add("}");
    return true;
}

[[gnu::noinline]] bool write_other_value(PyObject* value, TextBuffer& text, int depth) {
    PyTypeObject* type = Py_TYPE(value);
    if (type == &PyList_Type) {
        return write_array(
            PyList_GET_SIZE(value), [&](Py_ssize_t i) { return PyList_GET_ITEM(value, i); }, text, depth);
    }
    if (type == &PyTuple_Type) {
        return write_array(
            PyTuple_GET_SIZE(value), [&](Py_ssize_t i) { return PyTuple_GET_ITEM(value, i); }, text, depth);
    }
    if (type == &PyDict_Type) return write_object(value, text, depth);
    const bool date = is_date(value);
    if (!date && !is_plain_date_time(value)) return false;
    write_date(value, !date, text);
    return true;
}

// Values of exactly the built-in types only: a subclass may bring its own text.
bool write_value(PyObject* value, TextBuffer& text, int depth) {
    PyTypeObject* type = Py_TYPE(value);
    if (type == &PyUnicode_Type) return write_string(value, text);
    if (type == &PyLong_Type) return write_int(value, text);
    if (type == &PyFloat_Type) {
        write_double(value, text);
    } else if (value == Py_None) {
        text.add("null");
    } else if (value == Py_True) {
        text.add("true");
    } else if (value == Py_False) {
        text.add("false");
    } else {
        return write_other_value(value, text, depth);
    }
    return true;
}

// ---- The document ----

// `{"name": value, ...}` of a record's fields, separated from what went before.
bool write_field(PyObject* record, Name& field, std::string_view before, TextBuffer& text) {
    PyObject* value = own_field(record, field);
    if (value == nullptr) return false;
    text.add(before);
    return write_value(value, text, 0);
}

bool write_column(PyObject* column, TextBuffer& text) {
    const bool written = write_field(column, names::name, "{\"name\": ", text) &&
                         write_field(column, names::data_type, ", \"data_type\": ", text) &&
                         write_field(column, names::required, ", \"required\": ", text) &&
                         write_field(column, names::unique, ", \"unique\": ", text) &&
                         write_field(column, names::default_value, ", \"default\": ", text) &&
                         write_field(column, names::validation_pattern, ", \"validation_pattern\": ", text);
    text.add("}");
    return written;
}

bool write_columns(PyObject* columns, TextBuffer& text) {
    if (!PyList_CheckExact(columns)) return false;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(columns); ++i) {
        if (i > 0) text.add(", ");
        if (!write_column(PyList_GET_ITEM(columns, i), text)) return false;
    }
    return true;
}

enum class RowWritten { kept, deleted, gave_up };

RowWritten write_row(PyObject* row, TextBuffer& text) {
    if (!PyList_CheckExact(row)) return RowWritten::gave_up;
    RowWritten result = RowWritten::deleted;
    text.add("[");
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(row); ++i) {
        PyObject* value = PyList_GET_ITEM(row, i);
        if (i > 0) text.add(", ");
        if (value == Py_None) {
            text.add("null");
            continue;
        }
        result = RowWritten::kept;
        if (!write_value(value, text, 1)) return RowWritten::gave_up;
    }
    text.add("]");
    return result;
}

bool write_rows(const Ref& rows, TextBuffer& text) {
    PyObject* list = rows;
    if (!PyList_CheckExact(list)) return false;
    constexpr Py_ssize_t kPrefetched = 8;  // values of each row
    bool first = true;
    for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i) {
        prefetch_rows(list, i, 0, kPrefetched);
        const std::size_t before = text.size();
        if (!first) text.add(", ");
        switch (write_row(PyList_GET_ITEM(list, i), text)) {
            case RowWritten::gave_up: return false;
            case RowWritten::deleted: text.shorten(before); continue;
            case RowWritten::kept: break;
        }
        first = false;
        if (!text.hand_on_when_full()) return false;
    }
    return true;
}

// A column's index. Dates as keys are written as their text; beside string keys the two could be the same
// text, which the plain road merges.
bool write_index(const Ref& index, TextBuffer& text) {
    PyObject* dict = index;
    if (!PyDict_CheckExact(dict)) return false;
    text.add("{");
    bool strings = false;
    bool dates = false;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    PyObject* ids = nullptr;
    for (bool first = true; PyDict_Next(dict, &position, &key, &ids) != 0; first = false) {
        if (!first) text.add(", ");
        const bool date = is_date(key);
        if (date || is_plain_date_time(key)) {
            dates = true;
            write_date(key, !date, text);
        } else {
            strings = strings || PyUnicode_CheckExact(key);
            if (!write_key(key, text)) return false;
        }
        if (dates && strings) return false;
        text.add(": ");
        if (!write_value(ids, text, 2) || !text.hand_on_when_full()) return false;
    }
    text.add("}");
    return true;
}

bool write_indexes(const Ref& indexes, TextBuffer& text) {
    PyObject* dict = indexes;
    if (!PyDict_CheckExact(dict)) return false;
    Py_ssize_t position = 0;
    PyObject* name = nullptr;
    PyObject* index = nullptr;
    for (bool first = true; PyDict_Next(dict, &position, &name, &index) != 0; first = false) {
        if (!first) text.add(", ");
        if (!write_key(name, text)) return false;
        text.add(": ");
        if (!write_index(Ref::borrow(index), text)) return false;
    }
    return true;
}

bool write_table(const Ref& table, TextBuffer& text) {
    if (!write_field(table, names::name, "{\"name\": ", text)) return false;
    PyObject* columns = own_field(table, names::columns);
    text.add(", \"columns\": [");
    if (columns == nullptr || !write_columns(columns, text)) return false;
    PyObject* rows = own_field(table, names::rows);
    text.add("], \"rows\": [");
    if (rows == nullptr || !write_rows(Ref::borrow(rows), text)) return false;
    PyObject* indexes = own_field(table, names::indexes);
    text.add("], \"indexes\": {");
    if (indexes == nullptr || !write_indexes(Ref::borrow(indexes), text)) return false;
    text.add("}}");
    return true;
}

}  // namespace

void TextBuffer::grow(std::size_t more) {
    const std::size_t capacity = std::max({size_ + more, capacity_ + capacity_ / 2, std::size_t{4096}});
    auto* text = static_cast<char*>(PyMem_RawRealloc(text_.get(), capacity));
    if (text == nullptr) throw std::bad_alloc();
    static_cast<void>(text_.release());
    text_.reset(text);
    capacity_ = capacity;
}

bool TextBuffer::hand_on() {
    const bool taken = take_(text());
    size_ = 0;
    return taken;
}

bool write_document(PyObject* tables, TextBuffer& text) {
    if (!PyDict_CheckExact(tables)) return false;
    text.add("{\"tables\": {");
    Py_ssize_t position = 0;
    PyObject* name = nullptr;
    PyObject* table = nullptr;
    for (bool first = true; PyDict_Next(tables, &position, &name, &table) != 0; first = false) {
        if (!first) text.add(", ");
        if (!write_key(name, text)) return false;
        text.add(": ");
        if (!write_table(Ref::borrow(table), text)) return false;
    }
    text.add("}}");
    return true;
}

// PyDateTime_IMPORT would import the module anew and hide the error of a failing import behind another.
Ref import_date_types(PyObject* datetime) {
    const Ref capsule = find_in_module(datetime, names::datetime_capi);
    const bool valid = PyCapsule_IsValid(capsule, PyDateTime_CAPSULE_NAME) != 0;
    PyDateTimeAPI =
        valid ? static_cast<PyDateTime_CAPI*>(PyCapsule_GetPointer(capsule, PyDateTime_CAPSULE_NAME)) : nullptr;
    return valid ? Ref::borrow(reinterpret_cast<PyObject*>(PyDateTimeAPI->DateType)) : Ref{};
}

}  // namespace jdb::persistence
