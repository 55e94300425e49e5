// Looking up global names by the rule for Python functions.
#include "host/module_state.h"

namespace jdb {

Ref global(PyObject* name) {
    Ref found = find_item(module_state.globals, name);
    if (!found) found = find_item(module_state.builtins, name);
    if (!found) raise(PyExc_NameError, "name '%U' is not defined", name);
    return found;
}

}  // namespace jdb
