// The signature of a native method, as a `def` statement has it. It gives the method's name, parameters, defaults and
// annotations; what a call's arguments are converted to and tested for follows from the annotations.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "host/ref.h"

namespace jdb {

// What an annotation asks of an argument. Conversions come before the tests of exact types.
enum class Rule : unsigned char { any, integer, truth, string, list, dict };

struct Parameter {
    PyObject* name = nullptr;  // interned; lives as long as the interpreter
    Rule rule = Rule::any;
    bool or_none = false;  // None passes unchanged
};

// What a call is bound and checked by.
struct Signature {
    static constexpr std::size_t kMaxParameters = 5;

    PyObject* name = nullptr;  // the method's; interned, too
    std::array<Parameter, kMaxParameters> parameters;
    std::size_t count = 0;
};

Signature parse_signature(std::string_view text);

// The attributes of a function that its signature gives.
Ref parameter_names(const Signature& signature);  // a tuple
Ref make_defaults(std::string_view text);         // a tuple of constants; an empty Ref where there are none
Ref make_annotations(std::string_view text);      // a dict of strings, the result's under "return"

// The signature with each checked parameter's type before its name.
std::string signature_line(std::string_view text);

}  // namespace jdb
