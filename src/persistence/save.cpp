// The document is complete, as bytes, before the file is touched; then a new file takes the old one's place. What is no
// regular file is opened and written as it is, and so is any file when the host has put an `open` of its own in place.
#include "persistence/save.h"

#include "host/module_state.h"
#include "persistence/document.h"
#include "persistence/host_file.h"
#include "persistence/replace_file.h"
#include "records/database.h"

namespace jdb::persistence {
namespace {

Ref document_text(PyObject* tables) {
    const Ref document = make_document(tables);
    const Ref stream = call(module_state.string_io, {});
    const Ref json = global(names::json);
    call_method(json, names::dump, {document, stream},
                {{names::indent, Py_None},
                 {names::ensure_ascii, Py_False},
                 {names::default_value, reinterpret_cast<PyObject*>(&PyUnicode_Type)}});
    return call_method(stream, names::getvalue);
}

std::string_view bytes_of(PyObject* bytes) {
    return {PyBytes_AS_STRING(bytes), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes))};
}

void write_opened(PyObject* open, PyObject* filename, PyObject* text) {
    const Ref file = call(open, {filename, names::mode_write}, {{names::encoding, names::utf8}});
    with_file(file, [&](PyObject* entered) { call_method(entered, names::write, {text}); });
}

}  // namespace

Ref save(PyObject* self) {
    const Ref tables = tables_of(self);
    const Ref text = document_text(tables);
    const Ref bytes = Ref::steal(PyUnicode_AsUTF8String(text));

    const Ref filename = get_attribute(self, names::filename);
    const Ref open = global(names::open);
    auto target = open == module_state.open ? find_replace_target(filename) : std::nullopt;
    if (!target) {
        write_opened(open, filename, text);
        return Ref::none();
    }
    FileReplacement replacement(std::move(*target));
    replacement.write(bytes_of(bytes));
    replacement.commit();
    return Ref::none();
}

}  // namespace jdb::persistence
