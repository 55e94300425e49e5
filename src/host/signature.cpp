// Each function walks the text anew: it is short, and read at import alone.
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

std::string_view name_of(std::string_view text) { return text.substr(0, text.find('(')); }

std::string_view result_of(std::string_view text) {
    constexpr std::string_view arrow = ") -> ";
    const std::size_t at = text.find(arrow);
    return at == std::string_view::npos ? std::string_view{} : text.substr(at + arrow.size());
}

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
        Declaration declaration;
        const auto take = [&](std::string_view stops) {
            const std::size_t start = at;
            at = end_of(text, start, stops);
            return text.substr(start, at - start);
        };
        declaration.name = take(":=,)");
        if (text[at] == ':') {
            at += 2;
            declaration.annotation = take("=,)");
        }
        if (text[at] == '=') {
            // There are blanks around the sign where there is an annotation.
            const bool blanks = !declaration.annotation.empty();
            if (blanks) declaration.annotation.remove_suffix(1);
            at += blanks ? 2 : 1;
            declaration.default_value = take(",)");
        }
        use(declaration);
        if (text[at] == ',') at += 2;
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

PyObject* interned(std::string_view text) {
    PyObject* string = new_text(text).release();
    PyUnicode_InternInPlace(&string);
    return string;
}

// The constant that a default's literal stands for: None, False, True, a string in single quotes, or an integer.
Ref constant(std::string_view literal) {
    if (literal == "None") return Ref::none();
    if (literal == "False" || literal == "True") return Ref::boolean(literal == "True");
    if (literal.starts_with('\'')) return new_text(literal.substr(1, literal.size() - 2));
    Py_ssize_t value = 0;
    std::from_chars(literal.data(), literal.data() + literal.size(), value);
    return integer(value);
}

Ref new_tuple(std::size_t size) { return Ref::steal(python(PyTuple_New, static_cast<Py_ssize_t>(size))); }

void fill(PyObject* tuple, std::size_t position, Ref item) {
    PyTuple_SET_ITEM(tuple, static_cast<Py_ssize_t>(position), item.release());
}

}  // namespace

Signature parse_signature(std::string_view text) {
    Signature signature;
    signature.name = interned(name_of(text));
    each_parameter(text, [&](const Declaration& declaration) {
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

Ref make_defaults(std::string_view text) {
    std::vector<Ref> values;
    each_parameter(text, [&](const Declaration& declaration) {
        if (!declaration.default_value.empty()) values.push_back(constant(declaration.default_value));
    });
    if (values.empty()) return {};
    Ref defaults = new_tuple(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) fill(defaults, i, values[i]);
    return defaults;
}

Ref make_annotations(std::string_view text) {
    Ref annotations = new_dict();
    const auto annotate = [&](std::string_view name, std::string_view annotation) {
        const Ref key = new_text(name);
        const Ref value = new_text(annotation);
        if (!annotation.empty()) set_item(annotations, key, value);
    };
    each_parameter(text, [&](const Declaration& declaration) { annotate(declaration.name, declaration.annotation); });
    annotate("return", result_of(text));
    return annotations;
}

std::string signature_line(std::string_view text) {
    std::string line;
    std::size_t copied = 0;
    each_parameter(text, [&](const Declaration& declaration) {
        const Check check = check_of(declaration.annotation);
        if (check.type_name == nullptr) return;
        const auto position = static_cast<std::size_t>(declaration.name.data() - text.data());
        line.append(text, copied, position - copied).append(check.type_name).append(" ");
        copied = position;
    });
    return line.append(text, copied);
}

}  // namespace jdb
