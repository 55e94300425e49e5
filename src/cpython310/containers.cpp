// The layouts are those of CPython 3.10, the only version that the module is built for.
#include "cpython310/containers.h"

#include <vector>

namespace jdb {
namespace {

// The head of a dictionary's table of keys, which the interpreter's headers only name.
struct DictKeys {
    Py_ssize_t references;
    Py_ssize_t size;
    void* look_up;
    Py_ssize_t usable;  // how many more entries fit
};

DictKeys* keys_of(PyObject* dict) {
    return reinterpret_cast<DictKeys*>(reinterpret_cast<PyDictObject*>(dict)->ma_keys);
}

Py_ssize_t room(PyObject* dict) { return keys_of(dict)->usable; }

// How a dictionary looks up that has had other keys than exact strings.
void* general_look_up() {
    static void* const look_up = [] {
        const Ref dict = new_dict();
        set_item(dict, Py_None, Py_None);
        return keys_of(dict)->look_up;
    }();
    return look_up;
}

}  // namespace

void list_remove_at(PyObject* list, Py_ssize_t position) {
    const Ref removed = Ref::borrow(PyList_GET_ITEM(list, position));
    const Py_ssize_t last = PyList_GET_SIZE(list) - 1;
    for (Py_ssize_t i = position; i < last; ++i) PyList_SET_ITEM(list, i, PyList_GET_ITEM(list, i + 1));
    Py_SET_SIZE(reinterpret_cast<PyVarObject*>(list), last);
    Py_DECREF(removed);
}

void list_insert_at(PyObject* list, Py_ssize_t position, PyObject* item) {
    const Py_ssize_t size = PyList_GET_SIZE(list);
    if (reinterpret_cast<PyListObject*>(list)->allocated == size) {
        check(PyList_Insert(list, position, item));
        return;
    }
    Py_SET_SIZE(reinterpret_cast<PyVarObject*>(list), size + 1);
    for (Py_ssize_t i = size; i > position; --i) PyList_SET_ITEM(list, i, PyList_GET_ITEM(list, i - 1));
    PyList_SET_ITEM(list, position, Ref::borrow(item).release());
}

// A full table grows when one more key comes, so keys of no meaning come and go until it has grown.
void dict_make_room(PyObject* dict, Py_ssize_t keys) {
    struct PassingKeys {
        PyObject* dict;
        std::vector<Ref> keys;
        ~PassingKeys() {
            const SavedError error;
            for (const Ref& key : keys) attempt([&] { check(PyDict_DelItem(dict, key)); });
        }
    } passing{dict, {}};
    while (room(dict) < keys) {
        const void* address = &passing;
        Ref key = Ref::steal(PyUnicode_FromFormat("\n%p %zu", address, passing.keys.size()));
        passing.keys.reserve(passing.keys.size() + 1);
        set_item(dict, key, Py_None);
        passing.keys.push_back(std::move(key));
    }
}

bool has_text_keys(PyObject* dict) {
    if (keys_of(dict)->look_up != general_look_up()) return true;
    Py_ssize_t position = 0;
    PyObject* key = nullptr;
    while (PyDict_Next(dict, &position, &key, nullptr) != 0) {
        if (!PyUnicode_CheckExact(key)) return false;
    }
    return true;
}

}  // namespace jdb
