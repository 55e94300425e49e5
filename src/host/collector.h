// The host's garbage collector. A collection runs finalizers, that is host code, at any allocation of a container.
#pragma once

#include "host/python.h"

namespace jdb {

// No collection starts while it lives; afterwards the collector is as it was found.
class CollectorPaused {
public:
    CollectorPaused() noexcept : was_enabled_(PyGC_Disable() != 0) {}
    ~CollectorPaused() {
        if (was_enabled_) PyGC_Enable();
    }
    CollectorPaused(const CollectorPaused&) = delete;
    CollectorPaused& operator=(const CollectorPaused&) = delete;

    [[nodiscard]] bool was_enabled() const noexcept { return was_enabled_; }

private:
    bool was_enabled_;
};

// The same; and where the objects made are many, and stay, they count as old from the start, for they would have grown
// old in the collections that are left out, and the next one need not walk them all. What was young before is collected
// first; that may run host code and throws PythonError when the host could not do it.
class LastingObjects {
public:
    explicit LastingObjects(bool many);
    ~LastingObjects();
    LastingObjects(const LastingObjects&) = delete;
    LastingObjects& operator=(const LastingObjects&) = delete;

private:
    CollectorPaused paused_;
    bool aging_;
};

}  // namespace jdb
