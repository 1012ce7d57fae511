#include "liblinux/LxUdevContextGlobal.h"

#include "libposix/PxTrace.h"

PxMutex& LxUdevContextGlobal::GetLock()
{
    // Created once, thread-safely, and deliberately never destroyed (see the
    // header): it stays reachable through this pointer until the process ends.
    static PxMutex* const sLock = new PxMutex(true);
    return *sLock;
}

LxUdevContext& LxUdevContextGlobal::GetContext()
{
    static LxUdevContext* const sContext = new LxUdevContext;
    // The first use may race between an application thread and a hot-plug
    // thread that starts right after it; the lock serialises the creation and
    // publishes the handle to every later caller.
    PxMutexLock lock(GetLock());
    if (!sContext->IsInitialized()) {
        if (!sContext->Init())
            PXTRACE_ERROR("%s: FATAL sContext.Init() failed\n");
    }
    return *sContext;
}
