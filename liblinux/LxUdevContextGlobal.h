// The one udev context of the process, created on first use and never
// released: the hot-plug thread and the devices of the API object may still
// use it while the process runs its exit handlers, in whatever order static
// objects are destroyed. libudev also forbids using one context (and the
// objects made from it) from two threads at once, so every use in the library
// holds the context's lock.
#pragma once

#include "liblinux/LxUdevContext.h"
#include "libposix/PxMutex.h"

class LxUdevContextGlobal {
public:
    // Returns the process-wide context, creating it on the first call. It is
    // returned even when creation failed (the wrappers then report their own
    // failures).
    static LxUdevContext& GetContext();

    // The recursive lock that serialises every libudev call made on the
    // shared context or on an object derived from it. Held for a whole
    // enumeration pass or a whole hot-plug event, never while an application
    // callback runs. Lock order: after the API and notificator mutexes,
    // before the trace mutex.
    static PxMutex& GetLock();

protected:
    LxUdevContextGlobal() = default;
    ~LxUdevContextGlobal() = default;
};
