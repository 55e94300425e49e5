// The extension module: its creation, the checks of an import, and the names that an import binds, in their order. The
// module belongs to the interpreter that first creates it. A failing import gives up the module object, so that the
// next one starts anew.
#include <new>
#include <string>
#include <utility>

#include "cpython310/native_class.h"
#include "host/module_state.h"
#include "module/methods.h"
#include "module/records.h"
#include "persistence/json_writer.h"
#include "tables/database.h"

namespace jdb {
namespace {

bool owned = false;  // by an interpreter that has the mark
bool initialised = false;

// ---- Creation ----

// The owner has a mark in its own dictionary. Ids and addresses of interpreters would not do: they are used again when
// the runtime is finalized and started anew.
void check_owner() {
    PyObject* own = PyInterpreterState_GetDict(PyInterpreterState_Get());
    if (own == nullptr) throw std::bad_alloc();
    const Ref mark = new_string("json_database");
    if (!owned) set_item(own, mark, Py_True);
    owned = true;
    if (!contains(own, mark)) {
        raise(PyExc_ImportError,
              "Interpreter change detected - this module can only be loaded into one interpreter per process.");
    }
}

Ref create_module(PyObject* spec) {
    check_owner();
    if (module_state.module == nullptr) {
        const Ref name = get_attribute(spec, names::name);
        module_state.module = Ref::steal(python(PyModule_NewObject, name)).release();
    }
    return Ref::borrow(module_state.module);
}

// ---- Initialisation ----

void check_version(PyObject* module) {
    PyObject* hexversion = PySys_GetObject("hexversion");
    if (hexversion == nullptr) raise(PyExc_RuntimeError, "lost sys.hexversion");
    const unsigned long version = PyLong_AsUnsignedLong(hexversion);
    if (PyErr_Occurred() != nullptr) throw PythonError{};
    const int major = static_cast<int>(version >> 24U);
    const int minor = static_cast<int>((version >> 16U) & 0xFFU);
    if (major == PY_MAJOR_VERSION && minor == PY_MINOR_VERSION) return;
    const Ref name = Ref::steal(python(PyModule_GetNameObject, module));
    check(python(PyErr_WarnFormat, PyExc_RuntimeWarning, 1,
                 "compile time Python version %d.%d of module '%.100U' %s runtime version %d.%d", PY_MAJOR_VERSION,
                 PY_MINOR_VERSION, static_cast<PyObject*>(name), "does not match", major, minor));
}

Ref import(const char* name) { return Ref::steal(python(PyImport_ImportModule, name)); }

void bind(const char* name, PyObject* value) { check(python(PyDict_SetItemString, module_state.globals, name, value)); }

// `import name`; the module.
Ref bind_module(const char* name) {
    Ref module = import(name);
    bind(name, module);
    return module;
}

// A module and the name by which it is imported.
struct Source {
    explicit Source(const char* imported) : name(imported), module(import(imported)) {}

    const char* name;
    Ref module;
};

// `from source import name`. Where the module has no such attribute, the statement itself is run: it also looks for a
// submodule, and words the error.
Ref import_from(const Source& source, const char* name) {
    PyObject* found = python(PyObject_GetAttrString, source.module, name);
    if (found != nullptr) return Ref::steal(found);
    if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw PythonError{};
    python(PyErr_Clear);
    const std::string statement = std::string("from ") + source.name + " import " + name;
    const Ref names = new_dict();
    Ref::steal(python(PyRun_String, statement.c_str(), Py_file_input, names, names));
    return Ref::steal(python(PyMapping_GetItemString, names, name));
}

// The same, bound in the module's namespace.
Ref bind_from(const Source& source, const char* name) {
    Ref value = import_from(source, name);
    bind(name, value);
    return value;
}

void assign(PyObject*& slot, Ref value) { drop(std::exchange(slot, value.release())); }

void fill_module_state(PyObject* module) {
    const Source io("io");
    PyObject* builtins = PyEval_GetBuiltins();
    assign(module_state.module, Ref::borrow(module));
    assign(module_state.globals, Ref::borrow(PyModule_GetDict(module)));
    assign(module_state.builtins, Ref::borrow(builtins));
    assign(module_state.print, Ref::steal(python(PyMapping_GetItemString, builtins, "print")));
    assign(module_state.open, import_from(io, "open"));
    assign(module_state.bytes_io, import_from(io, "BytesIO"));
    assign(module_state.text_io_wrapper, import_from(io, "TextIOWrapper"));
}

void bind_names() {
    bind_module("json");
    bind_module("os");
    const Source typing("typing");
    for (const char* name : {"Dict", "List", "Optional", "Any", "Union"}) bind_from(typing, name);
    const Source dataclasses("dataclasses");
    const Ref dataclass = bind_from(dataclasses, "dataclass");
    const Ref field = bind_from(dataclasses, "field");
    bind_module("re");
    const Source datetime("datetime");
    bind_from(datetime, "datetime");
    assign(module_state.date_type, persistence::import_date_types(datetime.module));

    const Ref column_class = make_column_class(module_state.globals, dataclass);
    bind("Column", column_class);
    const Ref table_class = make_table_class(module_state.globals, dataclass, field);
    bind("Table", table_class);
    const Ref database_class = make_class("JSONDatatable", methods(), module_state.globals);
    note_originals(database_class);
    bind("JSONDatatable", database_class);
}

void initialise(PyObject* module) {
    if (initialised) {
        if (module == module_state.module) return;
        raise(PyExc_RuntimeError,
              "Module 'json_database' has already been imported. Re-initialisation is not supported.");
    }
    initialised = succeeds([&] {
        check_version(module);
        fill_module_state(module);
        bind_names();
    });
    if (initialised) return;
    const SavedError error;
    assign(module_state.module, {});
    throw PythonError{};
}

// ---- What the interpreter calls ----

PyObject* create(PyObject* spec, PyModuleDef* /*definition*/) noexcept {
    return guarded([&] { return create_module(spec).release(); }, static_cast<PyObject*>(nullptr));
}

int execute(PyObject* module) noexcept {
    return guarded(
        [&] {
            initialise(module);
            return 0;
        },
        -1);
}

PyModuleDef_Slot slots[] = {
    {Py_mod_create, reinterpret_cast<void*>(&create)},
    {Py_mod_exec, reinterpret_cast<void*>(&execute)},
    {0, nullptr},
};

PyModuleDef definition = {
    .m_base = PyModuleDef_HEAD_INIT,
    .m_name = "json_database",
    .m_doc = nullptr,
    .m_size = 0,
    .m_methods = nullptr,
    .m_slots = slots,
    .m_traverse = nullptr,
    .m_clear = nullptr,
    .m_free = nullptr,
};

}  // namespace
}  // namespace jdb

PyMODINIT_FUNC PyInit_json_database() { return PyModuleDef_Init(&jdb::definition); }
