// The cyclic garbage collector, kept from running where no Python code may: a collection can start at any allocation
// of a container, and runs finalizers.
#pragma once

#include "host/python.h"

namespace jdb {

// No collection starts while it lives; afterwards the collector is as it was found. Its scope runs no Python code: a
// process forked in there would be left without a collector.
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
