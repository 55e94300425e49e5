// Each function walks the source of the signature anew: it is short, and read only at import.
#include "host/signature.h"

#include <charconv>
#include <vector>

#include "host/object.h"

namespace jdb {
namespace {

// A parameter as it is declared.
struct Declaration {
    std::string_view name;
    std::string_view annotation;     // empty for none
    std::string_view default_value;  // empty for none
};

std::string_view name_of(std::string_view source) { return source.substr(0, source.find('(')); }

std::string_view result_of(std::string_view source) {
    constexpr std::string_view arrow = ") -> ";
    const std::size_t at = source.find(arrow);
    return at == std::string_view::npos ? std::string_view{} : source.substr(at + arrow.size());
}

// The end of the name, annotation or default that starts at `start`: the first of `stops` outside brackets.
std::size_t end_of(std::string_view source, std::size_t start, std::string_view stops) {
    int depth = 0;
    for (std::size_t at = start; at < source.size(); ++at) {
        if (depth == 0 && stops.find(source[at]) != std::string_view::npos) return at;
        if (source[at] == '[') ++depth;
        if (source[at] == ']') --depth;
    }
    return source.size();
}

// Calls `use` for each parameter that the source declares, in order.
template <class Use>
void each_parameter(std::string_view source, Use use) {
    std::size_t at = source.find('(') + 1;
    while (source[at] != ')') {
        Declaration declaration;
        const auto take = [&](std::string_view stops) {
            const std::size_t start = at;
            at = end_of(source, start, stops);
            return source.substr(start, at - start);
        };
        declaration.name = take(":=,)");
        if (source[at] == ':') {
            at += 2;
            declaration.annotation = take("=,)");
        }
        if (source[at] == '=') {
            // There are blanks around the sign where there is an annotation.
            const bool blanks = !declaration.annotation.empty();
            if (blanks) declaration.annotation.remove_suffix(1);
            at += blanks ? 2 : 1;
            declaration.default_value = take(",)");
        }
        use(declaration);
        if (source[at] == ',') at += 2;
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

PyObject* interned(std::string_view source) {
    PyObject* string = new_string(source).release();
    PyUnicode_InternInPlace(&string);
    return string;
}

// The constant that a default's literal denotes: None, False, True, a string in single quotes, or an integer.
Ref constant(std::string_view literal) {
    if (literal == "None") return Ref::none();
    if (literal == "False" || literal == "True") return Ref::boolean(literal == "True");
    if (literal.starts_with('\'')) return new_string(literal.substr(1, literal.size() - 2));
    Py_ssize_t value = 0;
    std::from_chars(literal.data(), literal.data() + literal.size(), value);
    return integer(value);
}

Ref new_tuple(std::size_t size) { return Ref::steal(python(PyTuple_New, static_cast<Py_ssize_t>(size))); }

void fill(PyObject* tuple, std::size_t position, Ref item) {
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(position), item.release());
}

}  // namespace

Signature parse_signature(std::string_view source) {
    Signature signature;
    signature.name = interned(name_of(source));
    each_parameter(source, [&](const Declaration& declaration) {
        const Check check = check_of(declaration.annotation);
        signature.parameters.at(signature.count++) = {interned(declaration.name), check.rule, check.or_none};
    });
    return signature;
}

Ref parameter_names(const Signature& signature) {
    Ref names = new_tuple(signature.count);
    for (std::size_t i = 0; i < signature.count; ++i) fill(names, i, Ref::borrow(signature.parameters[i].name));
    return names;
}

Ref make_defaults(std::string_view source) {
    std::vector<Ref> values;
    each_parameter(source, [&](const Declaration& declaration) {
        if (!declaration.default_value.empty()) values.push_back(constant(declaration.default_value));
    });
    if (values.empty()) return {};
    Ref defaults = new_tuple(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) fill(defaults, i, values[i]);
    return defaults;
}

Ref make_annotations(std::string_view source) {
    Ref annotations = new_dict();
    const auto annotate = [&](std::string_view name, std::string_view annotation) {
        const Ref key = new_string(name);
        const Ref value = new_string(annotation);
        if (!annotation.empty()) set_item(annotations, key, value);
    };
    each_parameter(source, [&](const Declaration& declaration) { annotate(declaration.name, declaration.annotation); });
    annotate("return", result_of(source));
    return annotations;
}

std::string signature_line(std::string_view source) {
    std::string line;
    std::size_t copied = 0;
    each_parameter(source, [&](const Declaration& declaration) {
        const Check check = check_of(declaration.annotation);
        if (check.type_name == nullptr) return;
        const auto position = static_cast<std::size_t>(declaration.name.data() - source.data());
        line.append(source, copied, position - copied).append(check.type_name).append(" ");
        copied = position;
    });
    return line.append(source, copied);
}

}  // namespace jdb
