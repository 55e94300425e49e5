// Values of exactly a built-in type are written without running Python code. Everything else may run some: it is owned
// meanwhile, and containers are walked as by a `for` statement, their size read anew at each step.
#include "persistence/json_writer.h"

#include <datetime.h>

#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <string_view>
#include <utility>

#include "host/object.h"
#include "persistence/json_bytes.h"
#include "persistence/json_number.h"
#include "persistence/unpack.h"

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
        char* const start = out.reserve(stretch * kMaxBytes);
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
        out.advance(static_cast<std::size_t>(to - start));
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

// Writes a quoted string. The standard writer gives it to the file in one piece with the separator before it, which
// begins at `piece`; the error for a lone surrogate shows that piece.
void write_string(PyObject* string, std::size_t piece, OutputBuffer& out) {
    assert(PyUnicode_Check(string));
    assert(piece <= out.size());
    check(PyUnicode_READY(string));
    const auto count = static_cast<std::size_t>(PyUnicode_GET_LENGTH(string));
    bool encodable = true;
    if (PyUnicode_KIND(string) == PyUnicode_1BYTE_KIND) {
        const auto* characters = PyUnicode_1BYTE_DATA(string);
        char* const to = out.reserve(count + 2);
        *to = '"';
        const std::size_t plain = copy_plain(reinterpret_cast<const char*>(characters), count, to + 1);
        out.advance(plain + 1);
        if (plain < count) write_characters(characters + plain, count - plain, out);
    } else {
        out.add("\"");
        encodable = PyUnicode_KIND(string) == PyUnicode_2BYTE_KIND
                        ? write_characters(PyUnicode_2BYTE_DATA(string), count, out)
                        : write_characters(PyUnicode_4BYTE_DATA(string), count, out);
    }
    out.add("\"");
    if (!encodable) raise_lone_surrogate(out.bytes().substr(piece));
}

// ---- Numbers and dates ----

void add_ascii(PyObject* string, OutputBuffer& out) {
    assert(PyUnicode_IS_ASCII(string));
    out.add({reinterpret_cast<const char*>(PyUnicode_1BYTE_DATA(string)),
             static_cast<std::size_t>(PyUnicode_GET_LENGTH(string))});
}

void write_int(PyObject* number, OutputBuffer& out) {
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(number, &overflow);
    if (overflow == 0) {
        char* to = out.reserve(kIntegerRoom);
        out.advance(static_cast<std::size_t>(write_integer(to, value) - to));
        return;
    }
    const Ref digits = Ref::steal(PyLong_Type.tp_repr(number));
    add_ascii(digits, out);
}

void write_double(PyObject* number, OutputBuffer& out) {
    char* to = out.reserve(kFloatRoom);
    out.advance(static_cast<std::size_t>(write_float(to, PyFloat_AS_DOUBLE(number)) - to));
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
    char* const start = out.reserve(kRoom);
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
    out.advance(static_cast<std::size_t>(to - start));
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
void require_string(PyObject* object) {
    if (PyUnicode_Check(object)) return;
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

    // Writes a value, in one piece with what was added from `piece` on.
    void write(PyObject* value, const Container* parent, std::size_t piece) {
        PyTypeObject* type = Py_TYPE(value);
        if (type == &PyUnicode_Type) {
            write_string(value, piece, out_);
        } else if (type == &PyLong_Type) {
            write_int(value, out_);
        } else if (type == &PyFloat_Type) {
            write_double(value, out_);
        } else if (value == Py_None) {
            out_.add("null");
        } else if (value == Py_True) {
            out_.add("true");
        } else if (value == Py_False) {
            out_.add("false");
        } else if (is_single_int(value)) {
            out_.add("[");
            write_int(PyList_GET_ITEM(value, 0), out_);
            out_.add("]");
        } else {
            write_other(Ref::borrow(value), parent, piece);
        }
    }
    void write(PyObject* value, const Container* parent = nullptr) { write(value, parent, out_.size()); }

private:
    [[gnu::noinline]] void write_other(const Ref& value, const Container* parent, std::size_t piece) {
        PyTypeObject* type = Py_TYPE(value);
        if (type == &PyList_Type || type == &PyTuple_Type) return write_array(value, parent);
        if (type == &PyDict_Type) return write_object(value, parent);
        if (is_date(value)) return write_date(value, false, out_);
        if (is_plain_date_time(value)) return write_date(value, true, out_);

        const Kind kind(value);
        if (kind.is(PyUnicode_Type)) {
            require_string(value);
            write_string(value, piece, out_);
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
            write_string(string, out_.size(), out_);
        }
    }

    void write_array(const Ref& array, const Container* parent) {
        if (!has_items(array)) return out_.add("[]");
        const Container self(array, parent);
        bool first = true;
        const auto write_item = [&](PyObject* item) {
            const std::size_t piece = out_.size();
            // The bracket is in one piece with the first item, if there still is one.
            if (std::exchange(first, false)) {
                out_.add("[");
            } else {
                out_.add(", ");
            }
            write(item, &self, piece);
            out_.flush_if_full();
        };
        PyObject* list = array;
        if (PyList_CheckExact(list)) {
            for (Py_ssize_t i = 0; i < PyList_GET_SIZE(list); ++i) write_item(PyList_GET_ITEM(list, i));
        } else {
            for (const Ref& item : Iteration(list)) write_item(item);
        }
        out_.add("]");
    }

    void write_object(const Ref& object, const Container* parent) {
        if (!has_items(object)) return out_.add("{}");
        const Container self(object, parent);
        out_.add("{");
        bool first = true;
        const auto write_member = [&](PyObject* key, PyObject* value) {
            if (!std::exchange(first, false)) out_.add(", ");
            write_key(key);
            out_.add(": ");
            write(value, &self);
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
    void write_key(PyObject* key) {
        if (PyUnicode_CheckExact(key)) return write_string(key, out_.size(), out_);
        if (PyLong_CheckExact(key) || PyFloat_CheckExact(key) || PyBool_Check(key) || key == Py_None) {
            out_.add("\"");
            write(key);
            return out_.add("\"");
        }
        const Kind kind(key);
        if (kind.is(PyUnicode_Type)) {
            require_string(key);
            write_string(key, out_.size(), out_);
        } else if (kind.is(PyFloat_Type)) {
            const Ref digits = float_string(key);
            write_string(digits, out_.size(), out_);
        } else if (kind.is(PyLong_Type)) {
            const Ref digits = repr_as(PyLong_Type, key);
            write_string(digits, out_.size(), out_);
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
    Writer(out).write(document);
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
