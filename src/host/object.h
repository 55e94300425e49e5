// Python expressions in C++. Each function does what the expression beside it does, and throws PythonError where that
// raises. Each may run Python code. Results are owned.
#pragma once

#include <initializer_list>
#include <string_view>

#include "host/names.h"
#include "host/python.h"
#include "host/ref.h"

namespace jdb {

// A keyword argument of a call; both borrowed.
struct Keyword {
    PyObject* name;
    PyObject* value;
};

inline Ref get_attribute(PyObject* object, PyObject* name) {  // object.name
    return Ref::steal(python(PyObject_GetAttr, object, name));
}
inline void set_attribute(PyObject* object, PyObject* name, PyObject* value) {  // object.name = value
    check(python(PyObject_SetAttr, object, name, value));
}
Ref get_item(PyObject* container, PyObject* key);       // container[key]
Ref get_item(PyObject* sequence, Py_ssize_t position);  // sequence[position], not negative
Ref find_item(PyObject* dict, PyObject* key);           // dict[key] of a dict, an empty Ref where there is none
Ref find_in_module(PyObject* module, PyObject* name);   // the same of a module's namespace; empty where it is no module
Ref item_if_key(PyObject* container, PyObject* key);    // container[key] if key in container, else an empty Ref
Ref set_default(PyObject* dict, PyObject* key, PyObject* value);             // dict.setdefault(key, value) of a dict
Ref get(PyObject* mapping, PyObject* key);                                   // mapping.get(key)
Ref get(PyObject* mapping, PyObject* key, PyObject* fallback);               // mapping.get(key, fallback)
inline void set_item(PyObject* container, PyObject* key, PyObject* value) {  // container[key] = value
    check(python(PyObject_SetItem, container, key, value));
}
inline bool contains(PyObject* container, PyObject* item) {  // item in container
    return check(python(PySequence_Contains, container, item)) != 0;
}
inline bool truth(PyObject* object) {  // bool(object)
    return check(python(PyObject_IsTrue, object)) != 0;
}
bool equal(PyObject* left, PyObject* right);    // bool(left == right); an object need not equal itself
bool unequal(PyObject* left, PyObject* right);  // bool(left != right)
inline Py_ssize_t length(PyObject* object) {    // len(object)
    const Py_ssize_t size = python(PyObject_Size, object);
    if (size < 0) throw PythonError{};
    return size;
}
inline Ref str_of(PyObject* object) {  // str(object)
    return Ref::steal(python(PyObject_Str, object));
}
Ref format(PyObject* object);                                                           // format(object)
void append(PyObject* list, PyObject* item);                                            // list.append(item)
inline Ref integer(Py_ssize_t value) { return Ref::steal(PyLong_FromSsize_t(value)); }  // a new int
// A new str; UnicodeDecodeError where the bytes are no valid UTF-8.
inline Ref new_string(std::string_view utf8) {
    return Ref::steal(python(PyUnicode_DecodeUTF8, utf8.data(), static_cast<Py_ssize_t>(utf8.size()), nullptr));
}
inline Ref new_list() { return Ref::steal(python(PyList_New, 0)); }
Ref new_list(PyObject* item);  // [item]
inline Ref new_dict() { return Ref::steal(python(PyDict_New)); }

// callable(*positional, **keywords), and object.name(*positional, **keywords). There are at most eight arguments, the
// object included.
Ref call(PyObject* callable, std::initializer_list<PyObject*> positional, std::initializer_list<Keyword> keywords = {});
Ref call_method(PyObject* object, PyObject* name, std::initializer_list<PyObject*> positional = {},
                std::initializer_list<Keyword> keywords = {});

// Runs the handlers of pending signals, and raises what they raise.
inline void check_signals() { check(python(PyErr_CheckSignals)); }

// Checks for pending signals once in kSteps steps of a long walk, so that Ctrl-C need not wait for its end. The
// handlers are Python code; what they raise is raised.
class SignalCheck {
public:
    static constexpr Py_ssize_t kSteps = 4096;

    void step() {
        if (++steps_ % kSteps == 0) check_signals();
    }

private:
    Py_ssize_t steps_ = 0;
};

// `for item in iterable`: a range of owned items, to be walked once. The size of a list is read anew at each step, as
// its iterator does. Pending signals are handled on the way.
class Iteration {
public:
    explicit Iteration(PyObject* iterable);

    struct End {};
    class Iterator {
    public:
        explicit Iterator(Iteration& iteration) : iteration_(&iteration) { ++*this; }
        Iterator& operator++() {
            item_ = iteration_->next();
            return *this;
        }
        [[nodiscard]] const Ref& operator*() const { return item_; }
        [[nodiscard]] bool operator==(End /*end*/) const { return !item_; }

    private:
        Iteration* iteration_;
        Ref item_;
    };
    [[nodiscard]] Iterator begin() { return Iterator(*this); }
    [[nodiscard]] End end() const { return {}; }  // NOLINT(readability-convert-member-functions-to-static)

private:
    [[nodiscard]] Ref next();

    Ref source_;  // the list or tuple itself, otherwise its iterator
    Py_ssize_t position_ = 0;
    SignalCheck signals_;
};

}  // namespace jdb
