// The one udev context of the process, created on first use and kept until
// the library is unloaded.
#pragma once

#include <mutex>

#include "liblinux/LxUdevContext.h"

class LxUdevContextGlobal {
public:
    // Returns the process-wide context, creating it on the first call. It is
    // returned even when creation failed (the wrappers then report their own
    // failures).
    static LxUdevContext& GetContext();

protected:
    LxUdevContextGlobal() = default;
    ~LxUdevContextGlobal() = default;

private:
    static LxUdevContext sContext;
    // The first use may race between an application thread and a hot-plug
    // thread that starts right after it; creation is serialised here, and the
    // lock also publishes the created handle to every later caller.
    static std::mutex sInitMutex;
};
