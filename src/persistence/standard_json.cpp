// What json.dump and json.load of CPython 3.10 look up when they run, found in the same way. json.load uses the
// functions `load` and `loads`, a decoder object, two of its methods, and a native scanner. json.dump uses the
// function, a class with its initialiser, one method and two separators, and the names that the method finds in its
// module.
#include "persistence/standard_json.h"

#include <cmath>
#include <string_view>

#include "host/object.h"

namespace jdb::persistence {
namespace {

constinit Name default_decoder{"_default_decoder"};
constinit Name decode{"decode"};
constinit Name encode_basestring{"encode_basestring"};
constinit Name encoder_class{"JSONEncoder"};
constinit Name float_{"float"};
constinit Name infinity{"INFINITY"};
constinit Name init{"__init__"};
constinit Name item_separator{"item_separator"};
constinit Name iterencode{"iterencode"};
constinit Name key_separator{"key_separator"};
constinit Name make_iterencode{"_make_iterencode"};
constinit Name object_hook{"object_hook"};
constinit Name object_pairs_hook{"object_pairs_hook"};
constinit Name parse_constant{"parse_constant"};
constinit Name parse_float{"parse_float"};
constinit Name parse_int{"parse_int"};
constinit Name raw_decode{"raw_decode"};
constinit Name scan_once{"scan_once"};
constinit Name strict{"strict"};
constinit Name type_error{"TypeError"};

bool is_string(PyObject* object, const char* expected) {
    return object != nullptr && PyUnicode_CheckExact(object) && PyUnicode_CompareWithASCIIString(object, expected) == 0;
}

// A Python function that was defined in the module of that name under the name `name`.
bool is_defined_in(PyObject* function, const char* module, const char* name) {
    if (function == nullptr || !PyFunction_Check(function)) return false;
    const auto* code = reinterpret_cast<PyCodeObject*>(PyFunction_GET_CODE(function));
    const Ref defined_in = find_item(PyFunction_GET_GLOBALS(function), names::dunder_name);
    return is_string(code->co_name, name) && is_string(defined_in, module);
}

// The same, and its namespace is this one.
bool is_own_function(PyObject* globals, PyObject* function, const char* module, const char* name) {
    return is_defined_in(function, module, name) && PyFunction_GET_GLOBALS(function) == globals;
}

bool is_native(PyObject* function, std::string_view name) {
    return function != nullptr && PyCFunction_CheckExact(function) &&
           reinterpret_cast<PyCFunctionObject*>(function)->m_ml->ml_name == name;
}

// object.name, an empty Ref where there is none.
Ref find_attribute(PyObject* object, PyObject* name) {
    PyObject* found = python(PyObject_GetAttr, object, name);
    if (found != nullptr) return Ref::steal(found);
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw PythonError{};
    python(PyErr_Clear);
    return {};
}

// The namespace that the attribute's function was defined in, null where it is no function of json.encoder.
PyObject* encoder_namespace(PyObject* encoder) {
    const Ref found = find_attribute(encoder, iterencode);
    PyObject* function = found;
    return is_defined_in(function, "json.encoder", "iterencode") ? PyFunction_GET_GLOBALS(function) : nullptr;
}

bool is_standard_encoder(PyObject* encoder) {
    if (encoder == nullptr || !PyType_CheckExact(encoder)) return false;
    const auto* type = reinterpret_cast<PyTypeObject*>(encoder);
    const bool plain = type->tp_new == PyBaseObject_Type.tp_new && type->tp_getattro == &PyObject_GenericGetAttr &&
                       type->tp_setattro == &PyObject_GenericSetAttr;
    PyObject* globals = plain ? encoder_namespace(encoder) : nullptr;
    if (globals == nullptr) return false;

    const Ref initialiser = find_attribute(encoder, init);
    const Ref between_items = find_attribute(encoder, item_separator);
    const Ref between_key_and_value = find_attribute(encoder, key_separator);
    const Ref make = find_item(globals, make_iterencode);
    const Ref quote = find_item(globals, encode_basestring);
    const Ref infinite = find_item(globals, infinity);
    const Ref own_float = find_item(globals, float_);
    const Ref own_type_error = find_item(globals, type_error);
    PyObject* number = infinite;
    return is_own_function(globals, initialiser, "json.encoder", "__init__") && is_string(between_items, ", ") &&
           is_string(between_key_and_value, ": ") &&
           is_own_function(globals, make, "json.encoder", "_make_iterencode") &&
           is_native(quote, "encode_basestring") && number != nullptr && PyFloat_CheckExact(number) &&
           PyFloat_AS_DOUBLE(number) == HUGE_VAL && !own_float && !own_type_error;
}

// Whether the method is the standard decoder's, called on this decoder.
bool is_decoder_method(PyObject* decoder, Name& name, const char* expected) {
    const Ref found = find_attribute(decoder, name);
    PyObject* method = found;
    return method != nullptr && PyMethod_Check(method) && PyMethod_GET_SELF(method) == decoder &&
           is_defined_in(PyMethod_GET_FUNCTION(method), "json.decoder", expected);
}

// The dictionary from which the native scanner takes NaN and the infinities, if its settings are the standard ones;
// otherwise an empty Ref.
Ref constants_of(PyObject* scanner) {
    // A class written in Python would give its instances a dictionary.
    if (std::string_view(Py_TYPE(scanner)->tp_name) != "_json.Scanner" || Py_TYPE(scanner)->tp_dictoffset != 0)
        return {};
    struct Setting {
        Name& name;
        PyObject* expected;
    };
    const Setting settings[] = {{strict, Py_True},
                                {object_hook, Py_None},
                                {object_pairs_hook, Py_None},
                                {parse_float, reinterpret_cast<PyObject*>(&PyFloat_Type)},
                                {parse_int, reinterpret_cast<PyObject*>(&PyLong_Type)}};
    for (const Setting& setting : settings) {
        const Ref value = find_attribute(scanner, setting.name);
        if (value != setting.expected) return {};
    }
    const Ref look_up = find_attribute(scanner, parse_constant);
    if (!is_native(look_up, "__getitem__")) return {};
    PyObject* constants = PyCFunction_GET_SELF(static_cast<PyObject*>(look_up));
    return PyDict_CheckExact(constants) ? Ref::borrow(constants) : Ref{};
}

}  // namespace

bool dumps_as_standard(PyObject* json) {
    if (!PyModule_CheckExact(json)) return false;
    PyObject* globals = PyModule_GetDict(json);
    const Ref dump = find_item(globals, names::dump);
    const Ref encoder = find_item(globals, encoder_class);
    return is_own_function(globals, dump, "json", "dump") && is_standard_encoder(encoder);
}

Ref standard_constants(PyObject* json) {
    if (!PyModule_CheckExact(json)) return {};
    PyObject* globals = PyModule_GetDict(json);
    const Ref load = find_item(globals, names::load);
    const Ref loads = find_item(globals, names::loads);
    const Ref decoder = find_item(globals, default_decoder);
    if (!is_own_function(globals, load, "json", "load") || !is_own_function(globals, loads, "json", "loads")) return {};
    if (!decoder || !is_decoder_method(decoder, decode, "decode")) return {};
    if (!is_decoder_method(decoder, raw_decode, "raw_decode")) return {};
    const Ref scanner = find_attribute(decoder, scan_once);
    return scanner ? constants_of(scanner) : Ref{};
}

}  // namespace jdb::persistence
