// A table of keys becomes a shared one when the values move from its entries into an array of the dictionary's own, and
// its look-up function becomes the one for shared tables. The interpreter does so for the dictionaries of instances.
// Instances are no use here: a class has attributes of its own, and columns may have their names.
#include "cpython310/shared_keys.h"

#include <cassert>
#include <utility>

#include "host/object.h"

namespace jdb {
namespace {

struct Entry {
    Py_hash_t hash;
    PyObject* key;
    PyObject* value;
};

// How many entries the interpreter allows in a hash table with that many slots.
std::size_t max_entries(const DictKeys* keys) { return static_cast<std::size_t>(2 * keys->slots / 3); }

Entry* entries_of(DictKeys* keys) {
    const std::size_t slot_bytes = keys->slots <= 0xFF         ? 1
                                   : keys->slots <= 0xFFFF     ? 2
                                   : keys->slots <= 0xFFFFFFFF ? 4
                                                               : 8;
    char* const first_slot = reinterpret_cast<char*>(keys + 1);
    return reinterpret_cast<Entry*>(first_slot + static_cast<std::size_t>(keys->slots) * slot_bytes);
}

// The look-up function of a dictionary whose table of keys is shared, read from an instance of a class made for that.
// Null where the interpreter shares no tables.
void* shared_look_up() {
    static void* const look_up = [] {
        const Ref name = new_string("SharesKeys");
        const Ref bases = Ref::steal(python(PyTuple_New, 0));
        const Ref attributes = new_dict();
        const Ref type = call(reinterpret_cast<PyObject*>(&PyType_Type), {name, bases, attributes});
        const Ref object = call(type, {});
        set_attribute(object, name, Py_None);
        const Ref dict = Ref::steal(python(PyObject_GenericGetDict, object, nullptr));
        return dict_values(dict) == nullptr ? nullptr : dict_keys(dict)->look_up;
    }();
    return look_up;
}

}  // namespace

Ref make_shared_dict(PyObject* keys) {
    assert(PyTuple_CheckExact(keys));
    const Py_ssize_t count = PyTuple_GET_SIZE(keys);
    Ref dict = new_dict();
    for (Py_ssize_t i = 0; i < count; ++i) {
        assert(PyUnicode_CheckExact(PyTuple_GET_ITEM(keys, i)));
        set_item(dict, PyTuple_GET_ITEM(keys, i), Py_None);
    }
    DictKeys* table = dict_keys(dict);
    const bool as_expected = table->references == 1 && table->entry_count == count && dict_values(dict) == nullptr;
    if (count == 0 || !as_expected || shared_look_up() == nullptr) return {};

    auto* values = static_cast<PyObject**>(PyMem_Calloc(max_entries(table), sizeof(PyObject*)));
    if (values == nullptr) {
        python(PyErr_NoMemory);
        throw PythonError{};
    }
    Entry* const entries = entries_of(table);
    for (Py_ssize_t i = 0; i < count; ++i) {
        assert(entries[i].key == PyTuple_GET_ITEM(keys, i) && entries[i].value == Py_None);
        values[i] = std::exchange(entries[i].value, nullptr);
    }
    table->look_up = shared_look_up();
    table->usable = 0;  // adding a key to a copy gives that copy a table of its own
    dict_values(dict) = values;
    return dict;
}

}  // namespace jdb
