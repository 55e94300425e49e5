// The end of the interpreter, seen from a thread that is still at work. A thread that asks for the interpreter's lock
// then has its stack unwound, through native frames that may touch no host object any more. So the gate closes first:
// calls under way are waited for, and a thread that comes later rests until the process is gone.
#pragma once

namespace jdb {

// Held for the length of each call from the host. Resting is the one way in which entering does not return.
class CallGate {
public:
    CallGate() noexcept;
    ~CallGate();
    CallGate(const CallGate&) = delete;
    CallGate& operator=(const CallGate&) = delete;
};

// Has the host close the gate when it exits.
void close_gate_at_exit();

}  // namespace jdb
