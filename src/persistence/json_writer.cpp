// Values of exactly a built-in type are written without running Python code. Everything else may run some: it is owned
// meanwhile, and containers are walked as by a `for` statement, their size read anew at each step.
#include "persistence/json_writer.h"

#include <datetime.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "host/object.h"
#include "persistence/json_bytes.h"
#include "persistence/json_number.h"
#include "persistence/unpack.h"
#include "tables/walk.h"

namespace jdb::persistence {
namespace {

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

// Writes characters of any width as UTF-8, escaped where JSON asks for it. False when there is a lone surrogate, which
// UTF-8 has no form for; it is written all the same. Not inlined, as nothing rare here: the frequent code then needs
// fewer registers.
template <class Character>
[[gnu::noinline]] bool write_characters(const Character* characters, std::size_t count, OutputBuffer& out) {
    constexpr std::size_t kMaxBytes = 6;
    constexpr std::size_t kStretch = 1024;
    bool encodable = true;
    while (count > 0) {
        const std::size_t stretch = std::min(count, kStretch);
        char* to = out.reserve(stretch * kMaxBytes);
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
                encodable = encodable && (c < 0xD800 || c >= 0xE000);
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
        out.advance(to);
        characters += stretch;
        count -= stretch;
    }
    return encodable;
}

// Copies a string of one or two words, which may overlap. How many bytes at the start certainly need no care. Byte by
// byte, a save of strings of 10 to 15 characters takes 23 % longer.
template <class Word>
std::size_t copy_two_words(const char* from, std::size_t count, char* to) {
    const std::size_t last = count - sizeof(Word);
    const Word words[] = {load_word<Word>(from), load_word<Word>(from + last)};
    std::memcpy(to, &words[0], sizeof(Word));
    std::memcpy(to + last, &words[1], sizeof(Word));
    const Word special[] = {special_bytes(words[0]), special_bytes(words[1])};
    return (special[0] | special[1]) == 0 ? count : bytes_before(special[0]);
}

// Copies the string's start, as far as nothing needs care. How many bytes that is at least; up to
// `count` are written at `to`.
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

// Raises the error that a file raises when it is given this piece.
[[noreturn]] void raise_lone_surrogate(std::string_view piece) {
    const Ref string =
        Ref::steal(python(PyUnicode_DecodeUTF8, piece.data(), static_cast<Py_ssize_t>(piece.size()), "surrogatepass"));
    Ref::steal(python(PyUnicode_AsUTF8String, string));
    assert(false);
    throw PythonError{};
}

// What stands before a value. The standard writer gives a string to the file in one piece with the separator before it,
// except in an object; the error for a lone surrogate shows that piece.
struct Separator {
    static constexpr std::size_t kRoom = 2;

    std::array<char, kRoom> characters;
    std::uint8_t count;
    bool in_one_piece = false;

    char* write(char* to) const {
        std::memcpy(to, characters.data(), kRoom);
        return to + count;
    }
};
constexpr Separator kNone{{}, 0};
constexpr Separator kOpenArray{{'['}, 1, true};
constexpr Separator kNextItem{{',', ' '}, 2, true};
constexpr Separator kOpenObject{{'{'}, 1};
constexpr Separator kNextMember{{',', ' '}, 2};
constexpr Separator kMemberValue{{':', ' '}, 2};

void write_separator(Separator separator, OutputBuffer& out) {
    char* const start = out.reserve(Separator::kRoom);
    out.advance(separator.write(start));
}

// Writes the rest of a string, from the first character that may need care on, and the closing quote. `piece` is where
// the piece begins.
[[gnu::noinline]] void write_rest(PyObject* string, std::size_t from, std::size_t piece, OutputBuffer& out) {
    const std::size_t count = static_cast<std::size_t>(PyUnicode_GET_LENGTH(string)) - from;
    bool encodable = true;
    switch (PyUnicode_KIND(string)) {
        case PyUnicode_1BYTE_KIND: write_characters(PyUnicode_1BYTE_DATA(string) + from, count, out); break;
        case PyUnicode_2BYTE_KIND: encodable = write_characters(PyUnicode_2BYTE_DATA(string), count, out); break;
        default: encodable = write_characters(PyUnicode_4BYTE_DATA(string), count, out);
    }
    out.add("\"");
    if (!encodable) raise_lone_surrogate(out.bytes().substr(piece));
}

// Writes a separator and a quoted string.
void write_string(Separator separator, PyObject* string, OutputBuffer& out) {
    assert(PyUnicode_Check(string));
    check(PyUnicode_READY(string));
    const std::size_t piece = out.size() + (separator.in_one_piece ? 0 : separator.count);
    const bool narrow = PyUnicode_KIND(string) == PyUnicode_1BYTE_KIND;
    const std::size_t count = narrow ? static_cast<std::size_t>(PyUnicode_GET_LENGTH(string)) : 0;
    char* to = separator.write(out.reserve(Separator::kRoom + count + 2));
    *to++ = '"';
    const std::size_t plain =
        narrow ? copy_plain(reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(string)), count, to) : 0;
    to += plain;
    if (narrow && plain == count) {
        *to++ = '"';
        return out.advance(to);
    }
    out.advance(to);
    write_rest(string, plain, piece, out);
}

// ---- Numbers and dates ----

void add_ascii(PyObject* string, OutputBuffer& out) {
    assert(PyUnicode_IS_ASCII(string));
    out.add({reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(string)),
             static_cast<std::size_t>(PyUnicode_GET_LENGTH(string))});
}

char* write_padded(char* to, int value, int width) {
    for (int i = width; i-- > 0; value /= 10) to[i] = static_cast<char>('0' + value % 10);
    return to + width;
}

bool is_date(PyObject* value) { return PyDateTimeAPI != nullptr && PyDate_CheckExact(value); }
// str() of one with a time zone calls the zone object.
bool is_plain_date_time(PyObject* value) {
    return PyDateTimeAPI != nullptr && PyDateTime_CheckExact(value) && PyDateTime_DATE_GET_TZINFO(value) == Py_None;
}

// Writes str() of a date or a date-time, in quotes.
void write_date(PyObject* value, bool with_time, OutputBuffer& out) {
    constexpr std::size_t kRoom = 32;
    char* to = out.reserve(kRoom);
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
    out.advance(to);
}

// ---- Objects of other types ----

// What an object is for the standard writer's isinstance(): an instance by its type, or by its `__class__`. The
// standard writer reads `__class__` for each question; one look-up answers all here.
class Kind {
public:
    explicit Kind(PyObject* object) : object_(object) {
        PyObject* claimed = python(PyObject_GetAttr, object, names::dunder_class);
        if (claimed == nullptr && PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw PythonError{};
        if (claimed == nullptr) {
            python(PyErr_Clear);
        } else {
            claimed_ = Ref::steal(claimed);
        }
    }
    [[nodiscard]] bool is(PyTypeObject& type) const {
        if (PyType_IsSubtype(Py_TYPE(object_), &type) != 0) return true;
        PyObject* claimed = claimed_;
        return claimed != nullptr && PyType_Check(claimed) &&
               PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(claimed), &type) != 0;
    }

private:
    PyObject* object_;
    Ref claimed_;
};

// int.__repr__(number) or float.__repr__(number), which refuse what is of the type by its `__class__` only.
Ref repr_as(PyTypeObject& type, PyObject* number) {
    const Ref repr = get_attribute(reinterpret_cast<PyObject*>(&type), names::dunder_repr);
    return call(repr, {number});
}

// A float's JSON by the steps of the standard writer, which call the comparisons of a subclass.
Ref float_string(PyObject* number) {
    if (unequal(number, number)) return new_string("NaN");
    for (const double infinity : {HUGE_VAL, -HUGE_VAL}) {
        const Ref infinite = Ref::steal(PyFloat_FromDouble(infinity));
        if (equal(number, infinite)) return new_string(infinity > 0 ? "Infinity" : "-Infinity");
    }
    return repr_as(PyFloat_Type, number);
}

// Refuses what is a str by its `__class__` only, as the standard writer does.
[[noreturn]] void refuse_as_string(PyObject* object) {
    raise(PyExc_TypeError, "first argument must be a string, not %.80s", Py_TYPE(object)->tp_name);
}

// ---- Values ----

// An array or object that is being written, and its parents. Raises ValueError for one that contains itself. Past a
// depth that is always safe, each counts towards the interpreter's recursion limit, as in the standard writer.
class Container {
public:
    Container(PyObject* object, const Container* parent)
        : object_(object), parent_(parent), depth_(parent == nullptr ? 0 : parent->depth_ + 1) {
        for (; parent != nullptr; parent = parent->parent_) {
            if (parent->object_ == object) raise(PyExc_ValueError, "Circular reference detected");
        }
        if (depth_ > kSafeDepth && python(Py_EnterRecursiveCall, " in __instancecheck__") != 0) throw PythonError{};
    }
    ~Container() {
        if (depth_ > kSafeDepth) Py_LeaveRecursiveCall();
    }
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

private:
    static constexpr int kSafeDepth = 20;

    PyObject* object_;
    const Container* parent_;
    int depth_;
};

// The members of a large dictionary may be all over the memory. Prefetching them makes a save of 100,000 indexed rows
// 7 % faster.
constexpr int kPrefetched = 16;
constexpr Py_ssize_t kCached = 32768;  // members that fit in the processor's cache

void prefetch_member(PyObject* dict, Py_ssize_t& position) {
    PyObject* key = nullptr;
    PyObject* value = nullptr;
    if (PyDict_Next(dict, &position, &key, &value) == 0) return;
    __builtin_prefetch(key);
    __builtin_prefetch(reinterpret_cast<char*>(key) + 64);
    __builtin_prefetch(value);
}

// Whether the standard writer would find something in a container.
bool has_items(PyObject* container) {
    if (PyList_CheckExact(container)) return PyList_GET_SIZE(container) > 0;
    return truth(container);
}

// The list of ids of an index key that one row has: a save of 100,000 indexed rows takes 4 % less time when these are
// not treated as any other array.
bool is_single_int(PyObject* value) {
    return PyList_CheckExact(value) && PyList_GET_SIZE(value) == 1 && PyLong_CheckExact(PyList_GET_ITEM(value, 0));
}

class Writer {
public:
    explicit Writer(OutputBuffer& out) : out_(out) {}

    // Writes a separator and a value. Numbers and constants go with the separator in one step: the JSON of 1,000 rows
    // takes 3 % less time so.
    void write(Separator before, PyObject* value, const Container* parent) {
        PyTypeObject* type = Py_TYPE(value);
        if (type == &PyUnicode_Type) return write_string(before, value, out_);
        char* to = before.write(out_.reserve(Separator::kRoom + kFloatRoom));
        int overflow = 0;
        if (type == &PyLong_Type) {
            const long long number = PyLong_AsLongLongAndOverflow(value, &overflow);
            if (overflow != 0) return write_other(before, Ref::borrow(value), parent);
            to = write_integer(to, number);
        } else if (type == &PyFloat_Type) {
            to = write_float(to, PyFloat_AS_DOUBLE(value));
        } else if (value == Py_None) {
            to = write_word(to, "null");
        } else if (value == Py_True) {
            to = write_word(to, "true");
        } else if (value == Py_False) {
            to = write_word(to, "false");
        } else if (is_single_int(value)) {
            const long long number = PyLong_AsLongLongAndOverflow(PyList_GET_ITEM(value, 0), &overflow);
            if (overflow != 0) return write_other(before, Ref::borrow(value), parent);
            *to++ = '[';
            to = write_integer(to, number);
            *to++ = ']';
        } else {
            return write_other(before, Ref::borrow(value), parent);
        }
        out_.advance(to);
    }

private:
    template <std::size_t size>
    static char* write_word(char* to, const char (&word)[size]) {
        std::memcpy(to, word, size - 1);
        return to + size - 1;
    }

    [[gnu::noinline]] void write_other(Separator before, const Ref& value, const Container* parent) {
        PyTypeObject* type = Py_TYPE(value);
        if (PyUnicode_Check(static_cast<PyObject*>(value))) return write_string(before, value, out_);
        write_separator(before, out_);
        if (type == &PyList_Type || type == &PyTuple_Type) return write_array(value, parent);
        if (type == &PyDict_Type) return write_object(value, parent);
        if (is_date(value)) return write_date(value, false, out_);
        if (is_plain_date_time(value)) return write_date(value, true, out_);

        const Kind kind(value);
        if (kind.is(PyUnicode_Type)) {
            refuse_as_string(value);
        } else if (kind.is(PyLong_Type)) {
            const Ref digits = repr_as(PyLong_Type, value);
            add_ascii(digits, out_);
        } else if (kind.is(PyFloat_Type)) {
            const Ref digits = float_string(value);
            add_ascii(digits, out_);
        } else if (kind.is(PyList_Type) || kind.is(PyTuple_Type)) {
            write_array(value, parent);
        } else if (kind.is(PyDict_Type)) {
            write_object(value, parent);
        } else {
            const Ref string = call(reinterpret_cast<PyObject*>(&PyUnicode_Type), {value});
            write_string(kNone, string, out_);
        }
    }

    void write_array(const Ref& array, const Container* parent) {
        if (!has_items(array)) return out_.add("[]");
        const Container self(array, parent);
        Separator before = kOpenArray;
        const auto write_item = [&](PyObject* item) {
            write(std::exchange(before, kNextItem), item, &self);
            out_.flush_if_full();
        };
        PyObject* list = array;
        if (PyList_CheckExact(list)) {
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i) {
                prefetch_rows(list, i, 0, kPrefetched);  // a save of 100,000 rows takes 1 to 2 % less time so
                write_item(PyList_GET_ITEM(list, i));
            }
        } else {
            for (const Ref& item : Iteration(list)) write_item(item);
        }
        out_.add("]");
    }

    void write_object(const Ref& object, const Container* parent) {
        if (!has_items(object)) return out_.add("{}");
        const Container self(object, parent);
        Separator before = kOpenObject;
        const auto write_member = [&](PyObject* key, PyObject* value) {
            write_key(std::exchange(before, kNextMember), key);
            write(kMemberValue, value, &self);
            out_.flush_if_full();
        };
        if (PyDict_CheckExact(static_cast<PyObject*>(object))) {
            each_member(object, write_member);
        } else {
            const Ref items = call_method(object, names::items);
            for (const Ref& item : Iteration(items)) {
                const std::pair<Ref, Ref> member = unpack_pair(item);
                write_member(member.first, member.second);
            }
        }
        out_.add("}");
    }

    // `for key, value in dict.items()`, with the errors that it raises when the dictionary changes.
    template <class Use>
    static void each_member(PyObject* dict, Use use) {
        const Py_ssize_t size = PyDict_GET_SIZE(dict);
        Py_ssize_t position = 0;
        Py_ssize_t ahead = 0;
        for (int i = 0; i < kPrefetched && size > kCached; ++i) prefetch_member(dict, ahead);
        PyObject* key = nullptr;
        PyObject* value = nullptr;
        for (Py_ssize_t left = size;; --left) {
            if (PyDict_GET_SIZE(dict) != size) {
                raise(PyExc_RuntimeError, "dictionary changed size during iteration");
            }
            if (PyDict_Next(dict, &position, &key, &value) == 0) return;
            if (left == 0) raise(PyExc_RuntimeError, "dictionary keys changed during iteration");
            if (size > kCached) prefetch_member(dict, ahead);
            const Ref owned_key = Ref::borrow(key);
            const Ref owned_value = Ref::borrow(value);
            use(key, value);
        }
    }

    // Writes a member's name: a str as such, numbers and constants as a string of their JSON form. TypeError for
    // others.
    void write_key(Separator before, PyObject* key) {
        if (PyUnicode_Check(key)) return write_string(before, key, out_);
        if (PyLong_CheckExact(key) || PyFloat_CheckExact(key) || PyBool_Check(key) || key == Py_None) {
            write_separator(before, out_);
            out_.add("\"");
            write(kNone, key, nullptr);
            return out_.add("\"");
        }
        const Kind kind(key);
        if (kind.is(PyUnicode_Type)) {
            refuse_as_string(key);
        } else if (kind.is(PyFloat_Type)) {
            const Ref digits = float_string(key);
            write_string(before, digits, out_);
        } else if (kind.is(PyLong_Type)) {
            const Ref digits = repr_as(PyLong_Type, key);
            write_string(before, digits, out_);
        } else {
            const Ref key_class = get_attribute(key, names::dunder_class);
            const Ref class_name = get_attribute(key_class, names::dunder_name);
            const Ref name = format(class_name);
            raise(PyExc_TypeError, "keys must be str, int, float, bool or None, not %U", static_cast<PyObject*>(name));
        }
    }

    OutputBuffer& out_;
};

}  // namespace

void write_json(PyObject* document, const Sink& sink) {
    OutputBuffer out(sink);
    Writer(out).write(kNone, document, nullptr);
    out.flush();
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
