// The document goes to a new file, which replaces the old one when it is complete; until then the old file is
// untouched. What is not a regular file is opened, then written. Where the module's `open` is not the interpreter's,
// opening may do anything to the file, so the JSON is complete before.
#include "persistence/save.h"

#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/module_state.h"
#include "persistence/document.h"
#include "persistence/json_writer.h"
#include "persistence/python_file.h"
#include "persistence/replace_file.h"
#include "persistence/standard_json.h"
#include "tables/database.h"

namespace jdb::persistence {
namespace {

// What the module's json.dump writes, encoded while it writes: then a lone surrogate raises its error in the same place
// as with a file.
Ref dumped_bytes(PyObject* json, PyObject* document) {
    const Ref bytes = call(module_state.bytes_io, {});
    const Ref file = call(module_state.text_io_wrapper, {bytes}, {{names::encoding, names::utf8}});
    call_method(json, names::dump, {document, file},
                {{names::indent, Py_None},
                 {names::ensure_ascii, Py_False},
                 {names::default_value, reinterpret_cast<PyObject*>(&PyUnicode_Type)}});
    call_method(file, names::flush);
    return call_method(bytes, names::getvalue);
}

void write_document(PyObject* document, const Sink& sink) {
    const Ref json = global(names::json);
    if (dumps_as_standard(json)) return write_json(document, sink);
    const Ref dumped = dumped_bytes(json, document);
    PyObject* bytes = dumped;
    sink({PyBytes_AS_STRING(bytes), static_cast<std::size_t>(PyBytes_GET_SIZE(bytes))});
}

Ref document_string(PyObject* document) {
    std::string json;
    write_document(document, [&](std::string_view piece) { json.append(piece); });
    return new_string(json);
}

void replace_file(ReplaceTarget target, PyObject* document) {
    FileReplacement replacement(std::move(target));
    write_document(document, [&](std::string_view piece) { replacement.write(piece); });
    replacement.commit();
}

}  // namespace

Ref save(PyObject* self) {
    const Ref tables = tables_of(self);
    const Ref document = make_document(tables);
    const Ref open = global(names::open);
    const Ref filename = get_attribute(self, names::filename);
    const bool standard = open == module_state.open;
    if (standard) {
        if (std::optional<ReplaceTarget> target = find_replace_target(filename)) {
            replace_file(std::move(*target), document);
            return Ref::none();
        }
    }
    Ref string;
    if (!standard) string = document_string(document);
    const Ref file = call(open, {filename, names::mode_write}, {{names::encoding, names::utf8}});
    with_file(file, [&](PyObject* entered) {
        if (standard) string = document_string(document);
        call_method(entered, names::write, {string});
    });
    return Ref::none();
}

}  // namespace jdb::persistence
