#include "libposix/PxEvent.h"

#include <errno.h>

PxEvent::PxEvent(bool autoReset)
    : mMutex(true), mTriggered(false), mIsAutoReset(autoReset)
{
}

void PxEvent::Set()
{
    PxMutexLock lock(mMutex);
    mTriggered = true;
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
