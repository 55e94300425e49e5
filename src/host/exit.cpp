// Where a thread waits that the interpreter has ended.
#include "host/exit.h"

#include <unistd.h>

namespace jdb {

// Shows a debugger which threads rest. More important is its storage model: the loader then allocates this module's
// thread-local block with each thread. The C++ library keeps a thread's exceptions in that block. It would otherwise
// allocate it at the thread's first throw, and end the process where there is no memory.
[[gnu::tls_model("initial-exec")]] thread_local bool resting = false;

void rest_until_exit() noexcept {
    resting = true;
    for (;;) pause();
}

}  // namespace jdb
