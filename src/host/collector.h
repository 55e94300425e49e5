// The interpreter's garbage collector. A collection runs finalizers, that is Python code, at any allocation of a
// container.
#pragma once

#include "host/python.h"

namespace jdb {

// No collection starts while it lives; afterwards the collector is as it was found. It spans only what runs no Python
// code: a process that is forked meanwhile would be left without a collector.
class CollectorPaused {
public:
    CollectorPaused() noexcept : was_enabled_(PyGC_Disable() != 0) {}
    ~CollectorPaused() {
        if (was_enabled_) PyGC_Enable();
    }
    CollectorPaused(const CollectorPaused&) = delete;
    CollectorPaused& operator=(const CollectorPaused&) = delete;

private:
    bool was_enabled_;
};

}  // namespace jdb
