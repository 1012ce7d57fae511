// A joinable POSIX thread running a PxThreadCallbackInterface. The owner
// creates it, stops its routine by its own means (flag plus pipe byte or
// event) and joins it; the destructor neither joins nor cancels.
#pragma once

#include <pthread.h>

#include "libposix/PxCondition.h"
#include "libposix/PxEvent.h"
#include "libposix/PxMutex.h"
#include "libposix/PxThreadCallbackForwarderT.h"
#include "libposix/PxThreadCallbackInterface.h"

class PxThread {
public:
    PxThread();
    ~PxThread();

    // 0 on success, -1 when a thread exists (not yet joined), otherwise the
    // negated pthread_create error number.
    int Create(PxThreadCallbackInterface* callback, const pthread_attr_t* attr);
    // 0 when no thread exists; ETIMEDOUT when a non-negative time-out
    // (milliseconds) expires (the thread stays joinable); otherwise the
    // result of pthread_join. A negative time-out waits without limit.
    int Join(void** value_ptr, int timeout);
    bool IsRunning();
    bool IsCurrentThread();

    PxThread(const PxThread&) = delete;
    PxThread& operator=(const PxThread&) = delete;

private:
    static void* ThreadCallback_static(void* param);

    pthread_t mThread;
    PxManualResetEvent mThreadEvent;
    PxThreadCallbackInterface* mCallback;
};
