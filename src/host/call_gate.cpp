// All of this is read and changed under the interpreter's lock.
#include "host/call_gate.h"

#include <pthread.h>
#include <unistd.h>

#include "host/object.h"

namespace jdb {
namespace {

constexpr int kMostMilliseconds = 2000;

// How deep the calls on this thread are nested. The model is for speed, and for what the C++ library keeps for each
// thread that throws: it lies in the same block, which the loader thus provides with the thread instead of asking for
// memory at the first throw, and ending the process where there is none.
[[gnu::tls_model("initial-exec")]] thread_local int depth = 0;
int threads_inside = 0;
bool closed = false;
unsigned long closing_thread = 0;

// Other threads are not carried over into a new process.
void forget_other_threads() { threads_inside = depth > 0 ? 1 : 0; }

PyObject* close_gate(PyObject* /*self*/, PyObject* /*arguments*/) {
    closed = true;
    closing_thread = PyThread_get_thread_ident();
    const int own = depth > 0 ? 1 : 0;
    for (int waited = 0; threads_inside > own && waited < kMostMilliseconds; ++waited) {
        Py_BEGIN_ALLOW_THREADS;
        usleep(1000);
        Py_END_ALLOW_THREADS;
    }
    Py_RETURN_NONE;
}

PyMethodDef close_gate_definition = {"close_gate", close_gate, METH_NOARGS, nullptr};

}  // namespace

CallGate::CallGate() noexcept {
    if (closed && depth == 0 && PyThread_get_thread_ident() != closing_thread) {
        PyEval_SaveThread();
        for (;;) pause();
    }
    if (depth++ == 0) ++threads_inside;
}

CallGate::~CallGate() {
    if (--depth == 0) --threads_inside;
}

void close_gate_at_exit() {
    const Ref atexit = Ref::steal(PyImport_ImportModule("atexit"));
    const Ref closing = Ref::steal(PyCFunction_New(&close_gate_definition, nullptr));
    call_method(atexit, names::register_, {closing});
    pthread_atfork(nullptr, nullptr, forget_other_threads);
}

}  // namespace jdb
