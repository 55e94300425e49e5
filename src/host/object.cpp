// Lists, tuples and dictionaries of exactly the built-in types take a fast path, which differs in nothing but speed.
#include "host/object.h"

#include <array>
#include <cassert>

namespace jdb {
namespace {

constexpr std::size_t kMaxArguments = 8;

// The arguments of one call as the vectorcall protocol wants them: a free slot for the callee, the positional ones, the
// values of the keywords; and the keywords' names in a tuple.
class CallArguments {
public:
    CallArguments(PyObject* receiver, std::initializer_list<PyObject*> positional,
                  std::initializer_list<Keyword> keywords) {
        assert(positional.size() + keywords.size() + (receiver == nullptr ? 0 : 1) <= kMaxArguments);
        if (receiver != nullptr) add(receiver);
        for (PyObject* argument : positional) add(argument);
        positional_ = count_;
        if (keywords.size() == 0) return;
        names_ = Ref::steal(python(PyTuple_New, static_cast<Py_ssize_t>(keywords.size())));
        PyObject* names = names_;
        for (const Keyword& keyword : keywords) {
            PyTuple_SET_ITEM(names, static_cast<Py_ssize_t>(count_ - positional_), Ref::borrow(keyword.name).release());
            add(keyword.value);
        }
    }

    [[nodiscard]] PyObject* const* values() const { return slots_.data() + 1; }
    [[nodiscard]] std::size_t flagged_count() const { return positional_ | PY_VECTORCALL_ARGUMENTS_OFFSET; }
    [[nodiscard]] PyObject* names() const { return names_; }

private:
    void add(PyObject* argument) { slots_[++count_] = argument; }

    std::array<PyObject*, kMaxArguments + 1> slots_{};
    std::size_t count_ = 0;
    std::size_t positional_ = 0;
    Ref names_;
};

bool compare(PyObject* left, PyObject* right, int operation) {
    const Ref result = Ref::steal(python(PyObject_RichCompare, left, right, operation));
    return truth(result);
}

}  // namespace

Ref get_item(PyObject* container, PyObject* key) { return Ref::steal(python(PyObject_GetItem, container, key)); }

Ref get_item(PyObject* sequence, Py_ssize_t position) {
    assert(position >= 0);
    if (PyList_CheckExact(sequence)) {
        PyObject* item = python(PyList_GetItem, sequence, position);
        if (item == nullptr) throw PythonError{};
        return Ref::borrow(item);
    }
    const Ref key = integer(position);
    return get_item(sequence, key);
}

Ref find_item(PyObject* dict, PyObject* key) {
    assert(PyDict_Check(dict));
    PyObject* item = python(PyDict_GetItemWithError, dict, key);
    if (item != nullptr) return Ref::borrow(item);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    return {};
}

Ref find_in_module(PyObject* module, PyObject* name) {
    return PyModule_Check(module) ? find_item(PyModule_GetDict(module), name) : Ref{};
}

Ref item_if_key(PyObject* container, PyObject* key) {
    if (PyDict_CheckExact(container)) return find_item(container, key);
    return contains(container, key) ? get_item(container, key) : Ref{};
}

Ref set_default(PyObject* dict, PyObject* key, PyObject* value) {
    assert(PyDict_Check(dict));
    PyObject* item = python(PyDict_SetDefault, dict, key, value);
    if (item == nullptr) throw PythonError{};
    return Ref::borrow(item);
}

Ref get(PyObject* mapping, PyObject* key) {
    if (!PyDict_CheckExact(mapping)) return call_method(mapping, names::get, {key});
    Ref item = find_item(mapping, key);
    return item ? item : Ref::none();
}

Ref get(PyObject* mapping, PyObject* key, PyObject* fallback) {
    if (!PyDict_CheckExact(mapping)) return call_method(mapping, names::get, {key, fallback});
    Ref item = find_item(mapping, key);
    return item ? item : Ref::borrow(fallback);
}

bool equal(PyObject* left, PyObject* right) { return compare(left, right, Py_EQ); }
bool unequal(PyObject* left, PyObject* right) { return compare(left, right, Py_NE); }

Ref format(PyObject* object) {
    if (PyUnicode_CheckExact(object)) return Ref::borrow(object);
    return Ref::steal(python(PyObject_Format, object, nullptr));
}

void append(PyObject* list, PyObject* item) {
    if (PyList_CheckExact(list)) {
        check(PyList_Append(list, item));
    } else {
        call_method(list, names::append, {item});
    }
}

Ref call(PyObject* callable, std::initializer_list<PyObject*> positional, std::initializer_list<Keyword> keywords) {
    const CallArguments arguments(nullptr, positional, keywords);
    return Ref::steal(
        python(PyObject_Vectorcall, callable, arguments.values(), arguments.flagged_count(), arguments.names()));
}

Ref call_method(PyObject* object, PyObject* name, std::initializer_list<PyObject*> positional,
                std::initializer_list<Keyword> keywords) {
    const CallArguments arguments(object, positional, keywords);
    return Ref::steal(
        python(PyObject_VectorcallMethod, name, arguments.values(), arguments.flagged_count(), arguments.names()));
}

Ref new_list(PyObject* item) {
    Ref list = Ref::steal(python(PyList_New, 1));
    PyList_SET_ITEM(static_cast<PyObject*>(list), 0, Ref::borrow(item).release());
    return list;
}

Iteration::Iteration(PyObject* iterable)
    : source_(PyList_CheckExact(iterable) || PyTuple_CheckExact(iterable)
                  ? Ref::borrow(iterable)
                  : Ref::steal(python(PyObject_GetIter, iterable))) {}

Ref Iteration::next() {
    signals_.step();
    PyObject* source = source_;
    if (PyList_CheckExact(source)) {
        if (position_ >= PyList_GET_SIZE(source)) return {};
        return Ref::borrow(PyList_GET_ITEM(source, position_++));
    }
    if (PyTuple_CheckExact(source)) {
        if (position_ >= PyTuple_GET_SIZE(source)) return {};
        return Ref::borrow(PyTuple_GET_ITEM(source, position_++));
    }
    PyObject* item = python(PyIter_Next, source);
    if (item != nullptr) return Ref::steal(item);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    return {};
}

}  // namespace jdb
