// The host's `freeze` takes all objects out of the collector's sight and its `unfreeze` puts them among the oldest;
// neither looks at a single one.
#include "host/collector.h"

#include "host/module_state.h"

namespace jdb {
namespace {

// A function of the module gc that takes no arguments, called without whatever could make a call fail.
Ref call_directly(PyObject* function) {
    return Ref::steal(PyCFunction_GET_FUNCTION(function)(PyCFunction_GET_SELF(function), nullptr));
}

bool can_age() {
    for (PyObject* function : {module_state.gc_freeze, module_state.gc_unfreeze, module_state.gc_get_freeze_count}) {
        if (!PyCFunction_CheckExact(function) || PyCFunction_GET_FLAGS(function) != METH_NOARGS) return false;
    }
    // What the host has frozen is not ours to unfreeze.
    const Ref frozen = call_directly(module_state.gc_get_freeze_count);
    return !truth(frozen);
}

}  // namespace

LastingObjects::LastingObjects(bool many) : aging_(many && paused_.was_enabled()) {
    if (!aging_) return;
    const Ref young = integer(1);
    call(module_state.gc_collect, {young});
}

LastingObjects::~LastingObjects() {
    if (!aging_) return;
    const SavedError error;
    attempt([] {
        if (!can_age()) return;
        call_directly(module_state.gc_freeze);
        call_directly(module_state.gc_unfreeze);
    });
}

}  // namespace jdb
