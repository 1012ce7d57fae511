#include "liblinux/LxUdevContextGlobal.h"

#include "libposix/PxTrace.h"

LxUdevContext LxUdevContextGlobal::sContext;
std::mutex LxUdevContextGlobal::sInitMutex;

LxUdevContext& LxUdevContextGlobal::GetContext()
{
    std::lock_guard<std::mutex> lock(sInitMutex);
    if (!sContext.IsInitialized()) {
        if (!sContext.Init())
            PXTRACE_ERROR("%s: FATAL sContext.Init() failed\n");
    }
    return sContext;
}
