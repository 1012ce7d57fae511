#include "libposix/PxEvent.h"

#include <errno.h>

PxEvent::PxEvent(bool autoReset)
    : mMutex(true), mTriggered(false), mIsAutoReset(autoReset)
{
}

void PxEvent::Set()
{
    MarkSet();
    Wake();
}

void PxEvent::MarkSet()
{
    PxMutexLock lock(mMutex);
    mTriggered = true;
}

void PxEvent::Wake()
{
    // Signalling without the lock is safe: a waiter tests the flag under the
    // lock before it sleeps, and the flag was set under it. The event object
    // outlives every Set (all events are members of long-lived objects).
    mCondition.Signal();
}

void PxEvent::Reset()
{
    PxMutexLock lock(mMutex);
    mTriggered = false;
}

bool PxEvent::IsSet()
{
    PxMutexLock lock(mMutex);
    return mTriggered;
}

void PxEvent::Wait()
{
    PxMutexLock lock(mMutex);
    while (!mTriggered)
        mCondition.Wait(mMutex);
    if (mIsAutoReset)
        mTriggered = false;
}

bool PxEvent::WaitWithTimeout(unsigned int timeoutInMilliSecond)
{
    PxMutexLock lock(mMutex);
    while (!mTriggered) {
        int rc = mCondition.WaitWithTimeout(mMutex, timeoutInMilliSecond);
        if (rc == ETIMEDOUT)
            return false;
    }
    if (mIsAutoReset)
        mTriggered = false;
    return true;
}
