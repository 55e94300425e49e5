// The Python strings that this module passes to the C API: names of attributes, methods and keywords, and arguments.
// Each is made and interned once, at its first use.
#pragma once

#include "host/error.h"
#include "host/python.h"

namespace jdb {

class Name {
public:
    explicit constexpr Name(const char* utf8) noexcept : utf8_(utf8) {}
    Name(const Name&) = delete;
    Name& operator=(const Name&) = delete;

    // Borrowed; it lives as long as the process. MemoryError where it can't be made.
    operator PyObject*() {  // NOLINT(google-explicit-constructor)
        if (object_ == nullptr) object_ = PyUnicode_InternFromString(utf8_);
        if (object_ == nullptr) throw PythonError{};
        return object_;
    }

private:
    const char* utf8_;
    PyObject* object_ = nullptr;
};

namespace names {

// Attributes of the database object and its records; they are the member names of the file as well.
inline constinit Name filename{"filename"};
inline constinit Name tables{"tables"};
inline constinit Name name{"name"};
inline constinit Name columns{"columns"};
inline constinit Name rows{"rows"};
inline constinit Name indexes{"indexes"};
inline constinit Name data_type{"data_type"};
inline constinit Name required{"required"};
inline constinit Name unique{"unique"};
inline constinit Name default_value{"default"};
inline constinit Name validation_pattern{"validation_pattern"};

// The entry of a table's own dictionary that marks its indexes for a rebuild.
inline constinit Name indexes_to_rebuild{"_indexes_to_rebuild"};

// Methods of the database object that other methods call.
inline constinit Name load{"load"};
inline constinit Name save{"save"};
inline constinit Name select{"select"};
inline constinit Name build_indexes{"_build_indexes"};
inline constinit Name build_index{"_build_index"};
inline constinit Name row_to_dict{"_row_to_dict"};
inline constinit Name validate_row{"_validate_row"};
inline constinit Name dict_to_row_id{"_dict_to_row_id"};
inline constinit Name project_row{"_project_row"};

// Names of the module's namespace, looked up at each use.
inline constinit Name Column{"Column"};
inline constinit Name Table{"Table"};
inline constinit Name json{"json"};
inline constinit Name os{"os"};
inline constinit Name re{"re"};
inline constinit Name datetime{"datetime"};
inline constinit Name open{"open"};

// The type keywords that have an effect; the third, "date", is named below.
inline constinit Name number{"number"};
inline constinit Name boolean{"boolean"};

// Attributes and methods of other Python objects and modules.
inline constinit Name append{"append"};
inline constinit Name date{"date"};
inline constinit Name datetime_capi{"datetime_CAPI"};
inline constinit Name dump{"dump"};
inline constinit Name dunder_class{"__class__"};
inline constinit Name dunder_enter{"__enter__"};
inline constinit Name dunder_exit{"__exit__"};
inline constinit Name dunder_name{"__name__"};
inline constinit Name dunder_repr{"__repr__"};
inline constinit Name exists{"exists"};
inline constinit Name flush{"flush"};
inline constinit Name get{"get"};
inline constinit Name getvalue{"getvalue"};
inline constinit Name insert{"insert"};
inline constinit Name items{"items"};
inline constinit Name ljust{"ljust"};
inline constinit Name loads{"loads"};
inline constinit Name match{"match"};
inline constinit Name path{"path"};
inline constinit Name read{"read"};
inline constinit Name remove{"remove"};
inline constinit Name strptime{"strptime"};
inline constinit Name write{"write"};

// Keywords of calls.
inline constinit Name default_factory{"default_factory"};
inline constinit Name encoding{"encoding"};
inline constinit Name ensure_ascii{"ensure_ascii"};
inline constinit Name indent{"indent"};
inline constinit Name limit{"limit"};
inline constinit Name update{"update"};

// Strings passed as arguments.
inline constinit Name date_format{"%Y-%m-%d"};
inline constinit Name decimal_point{"."};
inline constinit Name mode_read{"r"};
inline constinit Name mode_read_bytes{"rb"};
inline constinit Name mode_write{"w"};
inline constinit Name utf8{"utf-8"};

}  // namespace names
}  // namespace jdb
