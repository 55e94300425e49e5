#include "host/exit.h"

#include <unistd.h>

namespace jdb {

// Which threads rest, for a debugger. By its model the loader provides this module's thread-local block with each
// thread. The C++ library notes a thread's exceptions in that block, and otherwise asks for its memory at the thread's
// first throw, and ends the process where there is none.
[[gnu::tls_model("initial-exec")]] thread_local bool resting = false;

void rest_until_exit() noexcept {
    resting = true;
    for (;;) pause();
}

}  // namespace jdb
