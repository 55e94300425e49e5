// The two data classes, each from one list of its fields. Nothing here refers to them once they are made: methods find
// them by name in the module's namespace.
#include "module/records.h"

#include <span>
#include <string>

#include "host/object.h"

namespace jdb {
namespace {

struct Field {
    const char* name;
    const char* declared_type;
    Ref default_value;  // empty where the field must be given; otherwise a constant or the result of `field`
};

std::string default_repr(PyObject* default_value) {
    if (default_value != Py_None && PyBool_Check(default_value) == 0) return "<factory>";
    const Ref string = str_of(default_value);
    const char* utf8 = PyUnicode_AsUTF8(string);
    if (utf8 == nullptr) throw PythonError{};
    return utf8;
}

// What the decorator would write. It would ask inspect.signature, which takes a tenth of the import's time.
Ref documentation(const char* name, std::span<const Field> fields) {
    std::string docstring(name);
    const char* before = "(";
    for (const Field& field : fields) {
        docstring.append(before).append(field.name).append(": '").append(field.declared_type).append("'");
        if (field.default_value) docstring.append(" = ").append(default_repr(field.default_value));
        before = ", ";
    }
    return new_string(docstring.append(")"));
}

Ref make_record(const char* name, std::span<const Field> fields, PyObject* globals, PyObject* dataclass) {
    const Ref attributes = new_dict();
    const Ref annotations = new_dict();
    const Ref class_name = new_string(name);
    const Ref module_name = Ref::steal(python(PyMapping_GetItemString, globals, "__name__"));
    check(python(PyDict_SetItemString, attributes, "__module__", module_name));
    check(python(PyDict_SetItemString, attributes, "__qualname__", class_name));
    check(python(PyDict_SetItemString, attributes, "__annotations__", annotations));
    for (const Field& field : fields) {
        const Ref declared_type = new_string(field.declared_type);
        check(python(PyDict_SetItemString, annotations, field.name, declared_type));
        if (field.default_value) check(python(PyDict_SetItemString, attributes, field.name, field.default_value));
    }
    const Ref bases = Ref::steal(python(PyTuple_New, 0));
    auto* metaclass = reinterpret_cast<PyObject*>(&PyType_Type);
    const Ref plain_class = call(metaclass, {class_name, bases, attributes});
    const Ref docstring = documentation(name, fields);
    check(python(PyObject_SetAttrString, plain_class, "__doc__", docstring));
    return call(dataclass, {plain_class});
}

}  // namespace

Ref make_column_class(PyObject* globals, PyObject* dataclass) {
    const Field fields[] = {
        {"name", "str", {}},
        {"data_type", "str", {}},
        {"required", "bool", Ref::boolean(true)},
        {"unique", "bool", Ref::boolean(false)},
        {"default", "Any", Ref::none()},
        {"validation_pattern", "Optional[str]", Ref::none()},
    };
    return make_record("Column", fields, globals, dataclass);
}

Ref make_table_class(PyObject* globals, PyObject* dataclass, PyObject* field) {
    const auto made_anew = [&](PyTypeObject& type) {
        return call(field, {}, {{names::default_factory, reinterpret_cast<PyObject*>(&type)}});
    };
    const Field fields[] = {
        {"name", "str", {}},
        {"columns", "List[Column]", {}},
        {"rows", "List[List[Any]]", made_anew(PyList_Type)},
        {"indexes", "Dict[str, Dict[Any, List[int]]]", made_anew(PyDict_Type)},
    };
    return make_record("Table", fields, globals, dataclass);
}

}  // namespace jdb
