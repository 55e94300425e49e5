// Binding the arguments of a call. It fills the array of the caller and changes nothing else, so a refused call leaves
// no trace.
#include "host/function.h"

#include <algorithm>

#include "host/object.h"

namespace jdb {
namespace {

// ---- Binding a call ----

[[noreturn]] void refuse_count(const Signature& signature, std::size_t required, bool too_few, std::size_t given) {
    const bool exact = required == signature.count;
    const std::size_t limit = too_few ? required : signature.count;
    raise(PyExc_TypeError, "%.200U() takes %.8s %zd positional argument%.1s (%zd given)", signature.name,
          exact     ? "exactly"
          : too_few ? "at least"
                    : "at most",
          static_cast<Py_ssize_t>(limit), limit == 1 ? "" : "s", static_cast<Py_ssize_t>(given));
}

// The parameter's position, or the count when the keyword names none. The strings are compared without the keyword's
// own `__eq__`, as the interpreter does for Python functions.
std::size_t find_parameter(const Signature& signature, PyObject* keyword) {
    for (std::size_t i = 0; i < signature.count; ++i) {
        if (signature.parameters[i].name == keyword) return i;
    }
    for (std::size_t i = 0; i < signature.count; ++i) {
        if (PyUnicode_Compare(signature.parameters[i].name, keyword) == 0) return i;
    }
    return signature.count;
}

void bind_keywords(const Signature& signature, PyObject* names, PyObject* const* values, Ref* bound) {
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(names); ++i) {
        PyObject* keyword = PyTuple_GET_ITEM(names, i);
        if (!PyUnicode_Check(keyword)) {
            raise(PyExc_TypeError, "%.200U() keywords must be strings", signature.name);
        }
        const std::size_t position = find_parameter(signature, keyword);
        if (position == signature.count) {
            raise(PyExc_TypeError, "%U() got an unexpected keyword argument '%U'", signature.name, keyword);
        }
        if (bound[position]) {
            raise(PyExc_TypeError, "%U() got multiple values for keyword argument '%U'", signature.name, keyword);
        }
        bound[position] = Ref::borrow(values[i]);
    }
}

// ---- Checking arguments ----

// A number has an integer, index or floating-point conversion; a complex one has none of them.
bool is_number(PyObject* object) {
    const PyNumberMethods* methods = Py_TYPE(object)->tp_as_number;
    return methods != nullptr &&
           (methods->nb_int != nullptr || methods->nb_index != nullptr || methods->nb_float != nullptr);
}

void convert(const Parameter& parameter, Ref& argument) {
    PyObject* value = argument;
    if (parameter.or_none && value == Py_None) return;
    if (parameter.rule == Rule::truth) {
        argument = Ref::boolean(truth(value));
    } else if (parameter.rule == Rule::integer && !PyLong_CheckExact(value)) {
        if (!is_number(value)) {
            raise(PyExc_TypeError, "Argument '%.200U' has incorrect type (expected %.200s, got %.200s)", parameter.name,
                  "int", Py_TYPE(value)->tp_name);
        }
        argument = Ref::steal(python(PyNumber_Long, value));
    }
}

PyTypeObject* expected_type(Rule rule) {
    switch (rule) {
        case Rule::string: return &PyUnicode_Type;
        case Rule::list: return &PyList_Type;
        case Rule::dict: return &PyDict_Type;
        case Rule::integer: return &PyLong_Type;
        case Rule::any:
        case Rule::truth: break;
    }
    return nullptr;
}

void test_type(const Parameter& parameter, PyObject* value) {
    PyTypeObject* expected = expected_type(parameter.rule);
    if (expected == nullptr || Py_TYPE(value) == expected || (parameter.or_none && value == Py_None)) return;
    const bool subclass = PyType_IsSubtype(Py_TYPE(value), expected) != 0;
    raise(PyExc_TypeError, "Argument '%.200U' has incorrect type (expected %.200s, got %.200s)%s", parameter.name,
          expected->tp_name, Py_TYPE(value)->tp_name,
          subclass ? ". Instances of subclasses of built-in types are refused" : "");
}

}  // namespace

void bind_arguments(const Signature& signature, PyObject* function, PyObject* const* arguments, std::size_t count,
                    PyObject* keyword_names, Ref* bound) {
    PyObject* defaults = PyFunction_GetDefaults(function);
    const auto default_count = defaults == nullptr ? 0 : static_cast<std::size_t>(PyTuple_GET_SIZE(defaults));
    const std::size_t required = signature.count - std::min(default_count, signature.count);
    const bool with_keywords = keyword_names != nullptr && PyTuple_GET_SIZE(keyword_names) > 0;

    if (count > signature.count) refuse_count(signature, required, false, count);
    if (!with_keywords && count < required) refuse_count(signature, required, true, count);
    for (std::size_t i = 0; i < count; ++i) bound[i] = Ref::borrow(arguments[i]);
    if (with_keywords) bind_keywords(signature, keyword_names, arguments + count, bound);
    for (std::size_t i = count; i < signature.count; ++i) {
        if (bound[i]) continue;
        if (i < required) refuse_count(signature, required, true, i);
        const std::size_t from_end = signature.count - i;
        bound[i] = Ref::borrow(PyTuple_GET_ITEM(defaults, static_cast<Py_ssize_t>(default_count - from_end)));
    }

    for (std::size_t i = 0; i < signature.count; ++i) convert(signature.parameters[i], bound[i]);
    for (std::size_t i = 0; i < signature.count; ++i) test_type(signature.parameters[i], bound[i]);
}

}  // namespace jdb
