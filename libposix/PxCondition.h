// POSIX condition variable with default attributes: timed waits measure
// against CLOCK_REALTIME.
#pragma once

#include <pthread.h>

#include "libposix/PxMutex.h"

class PxCondition {
public:
    PxCondition();
    ~PxCondition();

    void Signal();
    void Broadcast();
    // mtx must be held by the caller.
    void Wait(PxMutex& mtx);
    // Waits at most timeoutInMilliSecond from now; returns what
    // pthread_cond_timedwait returned (0, ETIMEDOUT or another error number).
    int WaitWithTimeout(PxMutex& mtx, unsigned int timeoutInMilliSecond);

    PxCondition(const PxCondition&) = delete;
    PxCondition& operator=(const PxCondition&) = delete;

private:
    pthread_cond_t mCond;
};
