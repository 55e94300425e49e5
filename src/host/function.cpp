// Signatures: read once when the class is made, then what every call is bound by. Binding changes nothing but the
// array that it fills, so a refused call has touched nothing.
#include "host/function.h"

#include <algorithm>

#include "host/object.h"

namespace jdb {
namespace {

// ---- Reading a signature ----

struct Declaration {
    std::string_view name;
    std::string_view annotation;  // empty for none
    std::size_t position;         // of the name in the signature's text
};

// The end of the name, annotation or default that starts at `start`: the first of `stops` outside brackets.
std::size_t end_of(std::string_view text, std::size_t start, std::string_view stops) {
    int depth = 0;
    for (std::size_t at = start; at < text.size(); ++at) {
        if (depth == 0 && stops.find(text[at]) != std::string_view::npos) return at;
        if (text[at] == '[') ++depth;
        if (text[at] == ']') --depth;
    }
    return text.size();
}

// Calls `use` for each parameter that the text declares, in order.
template <class Use>
void each_parameter(std::string_view text, Use use) {
    std::size_t at = text.find('(') + 1;
    while (text[at] != ')') {
        Declaration declaration{{}, {}, at};
        std::size_t end = end_of(text, at, ":=,)");
        declaration.name = text.substr(at, end - at);
        if (text[end] == ':') {
            const std::size_t start = end + 2;
            end = end_of(text, start, "=,)");
            declaration.annotation = text.substr(start, end - start);
            if (text[end] == '=') declaration.annotation.remove_suffix(1);
        }
        use(declaration);
        end = end_of(text, end, ",)");
        at = text[end] == ',' ? end + 2 : end;
    }
}

struct Check {
    Rule rule;
    const char* type_name;  // as messages and documentation show it; null where any object passes
    bool or_none;
};

Check check_of(std::string_view annotation) {
    constexpr std::string_view optional = "Optional[";
    const bool or_none = annotation.starts_with(optional);
    if (or_none) annotation.remove_prefix(optional.size());
    if (annotation.starts_with("str")) return {Rule::string, "str", or_none};
    if (annotation.starts_with("int")) return {Rule::integer, "int", or_none};
    if (annotation.starts_with("bool")) return {Rule::truth, "bool", or_none};
    if (annotation.starts_with("List[")) return {Rule::list, "list", or_none};
    if (annotation.starts_with("Dict[")) return {Rule::dict, "dict", or_none};
    return {Rule::any, nullptr, or_none};
}

Signature parse(std::string_view text) {
    Signature signature;
    signature.name = text.substr(0, text.find('('));
    each_parameter(text, [&](const Declaration& declaration) {
        const Check check = check_of(declaration.annotation);
        PyObject* interned = new_text(declaration.name).release();
        PyUnicode_InternInPlace(&interned);
        signature.parameters.at(signature.count++) = {interned, check.rule, check.or_none};
    });
    return signature;
}

// The first line shows each checked parameter's type before its name; the description follows after an empty line.
std::string documentation(std::string_view class_name, const Method& method) {
    const std::string_view text = method.signature;
    std::string result(class_name);
    result += ".";
    std::size_t copied = 0;
    each_parameter(text, [&](const Declaration& declaration) {
        const Check check = check_of(declaration.annotation);
        if (check.type_name == nullptr) return;
        result.append(text, copied, declaration.position - copied).append(check.type_name).append(" ");
        copied = declaration.position;
    });
    result.append(text, copied);
    if (method.description != nullptr) result.append("\n\n").append(method.description);
    return result;
}

// ---- Binding a call ----

[[noreturn]] void refuse_count(const Signature& signature, std::size_t required, bool too_few, std::size_t given) {
    const bool exact = required == signature.count;
    const std::size_t limit = too_few ? required : signature.count;
    raise(PyExc_TypeError, "%.200s() takes %.8s %zd positional argument%.1s (%zd given)", signature.name.c_str(),
          exact     ? "exactly"
          : too_few ? "at least"
                    : "at most",
          static_cast<Py_ssize_t>(limit), limit == 1 ? "" : "s", static_cast<Py_ssize_t>(given));
}

// The parameter's position, or the count when the keyword names none. Texts are compared without the keyword's own
// `__eq__`, as the host binds its functions.
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
            raise(PyExc_TypeError, "%.200s() keywords must be strings", signature.name.c_str());
        }
        const std::size_t position = find_parameter(signature, keyword);
        if (position == signature.count) {
            raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", signature.name.c_str(), keyword);
        }
        if (bound[position]) {
            raise(PyExc_TypeError, "%s() got multiple values for keyword argument '%U'", signature.name.c_str(),
                  keyword);
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
        argument = Ref::steal(PyNumber_Long(value));
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

vectorcallfunc& call_slot(PyObject* function) {
    char* start = reinterpret_cast<char*>(function);
    return *reinterpret_cast<vectorcallfunc*>(start + Py_TYPE(function)->tp_vectorcall_offset);
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

Ref make_class(const char* name, std::span<const Method> methods, PyObject* globals) {
    std::string source("class ");
    source.append(name).append(":\n");
    for (const Method& method : methods) source.append("    def ").append(method.signature).append(": pass\n");

    PyCompilerFlags flags{.cf_flags = CO_FUTURE_ANNOTATIONS, .cf_feature_version = PY_MINOR_VERSION};
    const Ref code = Ref::steal(Py_CompileStringExFlags(source.c_str(), "<json_database>", Py_file_input, &flags, -1));
    const Ref names = new_dict();
    Ref::steal(PyEval_EvalCode(code, globals, names));
    Ref made = Ref::steal(PyMapping_GetItemString(names, name));

    for (const Method& method : methods) {
        *method.parsed = parse(method.signature);
        const Ref function = Ref::steal(PyObject_GetAttrString(made, method.parsed->name.c_str()));
        const Ref text = new_text(documentation(name, method));
        check(PyObject_SetAttrString(function, "__doc__", text));
        call_slot(function) = method.entry;
    }
    return made;
}

}  // namespace jdb
