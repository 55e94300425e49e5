// The extension module: creation, the checks of an import, and the names that it binds, in their order. The module
// belongs to the interpreter that first created it; an import that fails leaves nothing behind, so that the
// next one starts afresh.
#include "host/call_gate.h"
#include "host/module_state.h"
#include "module/methods.h"
#include "module/records.h"
#include "persistence/json_writer.h"
#include "tables/fields.h"

namespace jdb {
namespace {

int64_t owning_interpreter = -1;
bool initialised = false;

// ---- Creation ----

Ref create_module(PyObject* spec) {
    const int64_t interpreter = PyInterpreterState_GetID(PyInterpreterState_Get());
    if (interpreter < 0) throw PythonError{};
    if (owning_interpreter < 0) owning_interpreter = interpreter;
    if (interpreter != owning_interpreter) {
        raise(PyExc_ImportError,
              "Interpreter change detected - this module can only be loaded into one interpreter per process.");
    }
    if (module_state.module == nullptr) {
        const Ref name = get_attribute(spec, names::name);
        module_state.module = Ref::steal(PyModule_NewObject(name)).release();
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
    check(PyErr_WarnFormat(
        PyExc_RuntimeWarning, 1, "compile time Python version %d.%d of module '%.100s' %s runtime version %d.%d",
        PY_MAJOR_VERSION, PY_MINOR_VERSION, PyModule_GetName(module), "does not match", major, minor));
}

Ref import(const char* name) { return Ref::steal(PyImport_ImportModule(name)); }

void bind(const char* name, PyObject* value) { check(PyDict_SetItemString(module_state.globals, name, value)); }

// `import name`; the module.
Ref bind_module(const char* name) {
    Ref module = import(name);
    bind(name, module);
    return module;
}

// `from module import names`; the last of them.
Ref bind_from(PyObject* module, std::initializer_list<const char*> names) {
    Ref last;
    for (const char* name : names) {
        PyObject* found = PyObject_GetAttrString(module, name);
        if (found == nullptr && PyErr_ExceptionMatches(PyExc_AttributeError) != 0) {
            const HandledError missing;
            raise(PyExc_ImportError, "cannot import name '%s' from '%s'", name, PyModule_GetName(module));
        }
        last = Ref::steal(found);
        bind(name, last);
    }
    return last;
}

void replace(PyObject*& slot, Ref value) {
    PyObject* old = std::exchange(slot, value.release());
    Py_XDECREF(old);
}

void bind_for_good(PyObject* module) {
    const Ref builtins = import("builtins");
    const Ref io = import("io");
    replace(module_state.module, Ref::borrow(module));
    replace(module_state.globals, Ref::borrow(PyModule_GetDict(module)));
    replace(module_state.builtins, Ref::borrow(PyModule_GetDict(builtins)));
    replace(module_state.print, Ref::steal(PyObject_GetAttrString(builtins, "print")));
    replace(module_state.open, Ref::steal(PyObject_GetAttrString(io, "open")));
    replace(module_state.bytes_io, Ref::steal(PyObject_GetAttrString(io, "BytesIO")));
    replace(module_state.text_io_wrapper, Ref::steal(PyObject_GetAttrString(io, "TextIOWrapper")));
    persistence::import_date_types();
}

void bind_names() {
    bind_module("json");
    bind_module("os");
    const Ref typing = import("typing");
    bind_from(typing, {"Dict", "List", "Optional", "Any", "Union"});
    const Ref dataclasses = import("dataclasses");
    const Ref dataclass = bind_from(dataclasses, {"dataclass"});
    const Ref field = bind_from(dataclasses, {"field"});
    bind_module("re");
    const Ref datetime = import("datetime");
    bind_from(datetime, {"datetime"});
    replace(module_state.date_type, get_attribute(datetime, names::date));

    const Ref column_class = make_column_class(module_state.globals, dataclass);
    bind("Column", column_class);
    const Ref table_class = make_table_class(module_state.globals, dataclass, field);
    bind("Table", table_class);
    const Ref database_class = make_class("JSONDatatable", methods(), module_state.globals);
    note_originals(database_class);
    close_gate_at_exit();
    bind("JSONDatatable", database_class);
}

void initialise(PyObject* module) {
    if (initialised) {
        if (module == module_state.module) return;
        raise(PyExc_RuntimeError,
              "Module 'json_database' has already been imported. Re-initialisation is not supported.");
    }
    try {
        check_version(module);
        bind_for_good(module);
        bind_names();
    } catch (const PythonError&) {
        const SavedError error;
        Py_CLEAR(module_state.module);
        throw;
    }
    initialised = true;
}

// ---- What the host calls ----

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
