// Each function has a code object, which gives the names of its parameters, and the native entry in its call slot. The
// code object is made without the compiler: CPython 3.10's crashes where memory is lacking, and would take 0.3 ms of an
// import's 1.8 for this class.
#include "cpython310/native_class.h"

#include <opcode.h>

#include <string>
#include <string_view>

#include "host/object.h"

namespace jdb {
namespace {

constinit Name co_argcount{"co_argcount"};
constinit Name co_code{"co_code"};
constinit Name co_consts{"co_consts"};
constinit Name co_flags{"co_flags"};
constinit Name co_linetable{"co_linetable"};
constinit Name co_nlocals{"co_nlocals"};
constinit Name co_stacksize{"co_stacksize"};
constinit Name co_varnames{"co_varnames"};
constinit Name replace{"replace"};

Ref new_bytes(std::string_view bytes) {
    return Ref::steal(PyBytes_FromStringAndSize(bytes.data(), static_cast<Py_ssize_t>(bytes.size())));
}

// The code with a body that raises AssertionError. It runs where the code is run without the call slot, as by a new
// function made from it.
Ref with_raising_body(PyObject* code) {
    constexpr char instructions[] = {LOAD_ASSERTION_ERROR,
                                     0,
                                     LOAD_CONST,
                                     1,
                                     static_cast<char>(CALL_FUNCTION),
                                     1,
                                     static_cast<char>(RAISE_VARARGS),
                                     1};
    constexpr char lines[] = {sizeof(instructions), 0};  // all of them on the first line
    const Ref bytes = new_bytes({instructions, sizeof(instructions)});
    const Ref line_table = new_bytes({lines, sizeof(lines)});
    const Ref message = new_string("the body of this function is native and cannot be run as code");
    const Ref constants = Ref::steal(python(PyTuple_Pack, 2, Py_None, static_cast<PyObject*>(message)));
    const Ref depth = integer(2);
    return call_method(code, replace, {},
                       {{co_code, bytes}, {co_consts, constants}, {co_linetable, line_table}, {co_stacksize, depth}});
}

Ref make_code(const Signature& signature, int line) {
    const char* name = PyUnicode_AsUTF8(signature.name);
    if (name == nullptr) throw PythonError{};
    PyCodeObject* empty = python(PyCode_NewEmpty, "<json_database>", name, line);
    const Ref code = Ref::steal(reinterpret_cast<PyObject*>(empty));
    const Ref names = parameter_names(signature);
    const Ref count = integer(static_cast<Py_ssize_t>(signature.count));
    const Ref flags = integer(CO_OPTIMIZED | CO_NEWLOCALS | CO_FUTURE_ANNOTATIONS);
    Ref declared = call_method(code, replace, {},
                               {{co_argcount, count}, {co_nlocals, count}, {co_varnames, names}, {co_flags, flags}});
    // The instructions are those of 3.10. Empty code raises AssertionError by itself in later versions.
    return std::string_view(Py_GetVersion()).starts_with("3.10.") ? with_raising_body(declared) : declared;
}

vectorcallfunc& call_slot(PyObject* function) {
    char* start = reinterpret_cast<char*>(function);
    return *reinterpret_cast<vectorcallfunc*>(start + Py_TYPE(function)->tp_vectorcall_offset);
}

Ref make_function(std::string_view class_name, const Method& method, int line, PyObject* globals) {
    const Ref code = make_code(*method.parsed, line);
    const Ref qualified_name =
        Ref::steal(PyUnicode_FromFormat("%.200s.%U", std::string(class_name).c_str(), method.parsed->name));
    Ref function = Ref::steal(python(PyFunction_NewWithQualName, code, globals, qualified_name));
    const Ref defaults = make_defaults(method.signature);
    if (defaults) check(python(PyFunction_SetDefaults, function, defaults));
    const Ref annotations = make_annotations(method.signature);
    check(python(PyFunction_SetAnnotations, function, annotations));
    std::string documentation(class_name);
    documentation.append(".").append(signature_line(method.signature));
    if (method.description != nullptr) documentation.append("\n\n").append(method.description);
    const Ref docstring = new_string(documentation);
    check(python(PyObject_SetAttrString, function, "__doc__", docstring));
    call_slot(function) = method.entry;
    return function;
}

}  // namespace

Ref make_class(const char* name, std::span<const Method> methods, PyObject* globals) {
    const Ref class_name = new_string(name);
    const Ref attributes = new_dict();
    const Ref module_name = Ref::steal(python(PyMapping_GetItemString, globals, "__name__"));
    check(python(PyDict_SetItemString, attributes, "__module__", module_name));
    int line = 1;  // as if the class had a method on each line
    for (const Method& method : methods) {
        *method.parsed = parse_signature(method.signature);
        const Ref function = make_function(name, method, ++line, globals);
        set_item(attributes, method.parsed->name, function);
    }
    const Ref bases = Ref::steal(python(PyTuple_New, 0));
    return call(reinterpret_cast<PyObject*>(&PyType_Type), {class_name, bases, attributes});
}

}  // namespace jdb
