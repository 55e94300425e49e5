// The signature of a native method, written as in a `def` statement. It gives the method's name, parameters, defaults
// and annotations. The annotations say what arguments are converted to and tested for.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "host/ref.h"

namespace jdb {

// What an annotation asks of an argument. `integer` and `truth` convert; all but `any` and `truth` then test for the
// exact type.
enum class Rule : unsigned char { any, integer, truth, string, list, dict };

struct Parameter {
    PyObject* name = nullptr;  // interned; lives as long as the process
    Rule rule = Rule::any;
    bool or_none = false;  // None passes unchanged
};

// What a call is bound and checked by.
struct Signature {
    static constexpr std::size_t kMaxParameters = 5;

    PyObject* name = nullptr;  // the method's; interned, lives as long as the process
    std::array<Parameter, kMaxParameters> parameters;
    std::size_t count = 0;
};

// All of these read a signature that is written in this module, so it is well-formed: blanks are where a formatter
// puts them. They fail for lack of memory only.
Signature parse_signature(std::string_view source);

// The attributes of a function that its signature gives.
Ref parameter_names(const Signature& signature);  // a tuple
Ref make_defaults(std::string_view source);       // a tuple of constants; an empty Ref where there are none
Ref make_annotations(std::string_view source);    // a dict of strings, the result's under "return"

// The first line of a method's documentation: the signature with each checked parameter's type before its name.
std::string signature_line(std::string_view source);

}  // namespace jdb
