// The document goes to a new file that takes the old one's place when it is complete; until then the old file is
// untouched. What is no regular file is opened and written as it is, and so is any file when the host has put an `open`
// of its own in place; then the text is complete before that opening.
#include "persistence/save.h"

#include <optional>
#include <string>

#include "host/module_state.h"
#include "persistence/document.h"
#include "persistence/host_file.h"
#include "persistence/json_text.h"
#include "persistence/replace_file.h"
#include "tables/database.h"

namespace jdb::persistence {
namespace {

// The fast road's condition: the module's `json` and its `dump` are those that import found. The rest is decided value
// by value while the text is written.
bool dumps_as_imported(PyObject* json) {
    if (json != module_state.json || !PyModule_CheckExact(json)) return false;
    const Ref dump = find_item(PyModule_GetDict(json), names::dump);
    return dump == module_state.json_dump;
}

Ref dumped_text(PyObject* json, PyObject* tables) {
    const Ref document = make_document(tables);
    const Ref stream = call(module_state.string_io, {});
    call_method(json, names::dump, {document, stream},
                {{names::indent, Py_None},
                 {names::ensure_ascii, Py_False},
                 {names::default_value, reinterpret_cast<PyObject*>(&PyUnicode_Type)}});
    return call_method(stream, names::getvalue);
}

// Where the text goes: nothing is opened before its first piece comes.
class Output {
public:
    explicit Output(PyObject* self) : self_(self) {}

    // A piece of text with more to come. False where the file can't be opened: the plain road then meets that error
    // again, behind any error of the document itself.
    bool take(std::string_view piece) {
        check_signals();
        if (succeeds([&] { open(); })) {
            put(piece);
            return true;
        }
        if (PyErr_ExceptionMatches(PyExc_OSError) == 0) throw PythonError{};
        python(PyErr_Clear);
        return false;
    }

    void finish(std::string_view rest) {
        open();
        put(rest);
        if (replacement_) {
            replacement_->commit();
        } else {
            write_opened();
        }
    }

    // Forgets what was taken; the file is as it was.
    void discard() {
        replacement_.reset();
        whole_.clear();
        opened_ = false;
    }

private:
    void open() {
        if (opened_) return;
        filename_ = get_attribute(self_, names::filename);
        open_ = global(names::open);
        if (open_ == module_state.open) {
            if (auto target = find_replace_target(filename_)) replacement_.emplace(std::move(*target));
        }
        opened_ = true;
    }

    void put(std::string_view text) {
        if (replacement_) {
            replacement_->write(text);
        } else {
            whole_.append(text);
        }
    }

    void write_opened() {
        const Ref text = new_text(whole_);
        const Ref file = call(open_, {filename_, names::mode_write}, {{names::encoding, names::utf8}});
        with_file(file, [&](PyObject* entered) { call_method(entered, names::write, {text}); });
    }

    PyObject* self_;
    Ref filename_;
    Ref open_;
    bool opened_ = false;
    std::optional<FileReplacement> replacement_;
    std::string whole_;  // for a file that is not replaced
};

}  // namespace

Ref save(PyObject* self) {
    const Ref tables = tables_of(self);
    const Ref json = global(names::json);
    Output output(self);
    if (dumps_as_imported(json)) {
        TextBuffer text([&](std::string_view piece) { return output.take(piece); });
        if (write_document(tables, text)) {
            output.finish(text.text());
            return Ref::none();
        }
        output.discard();
    }
    const Ref text = dumped_text(json, tables);
    const Ref bytes = Ref::steal(python(PyUnicode_AsUTF8String, text));
    PyObject* whole = bytes;
    output.finish({PyBytes_AS_STRING(whole), static_cast<std::size_t>(PyBytes_GET_SIZE(whole))});
    return Ref::none();
}

}  // namespace jdb::persistence
