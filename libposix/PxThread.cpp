#include "libposix/PxThread.h"

#include <errno.h>

PxThread::PxThread() : mThread(0), mCallback(nullptr)
{
}

PxThread::~PxThread()
{
}

int PxThread::Create(PxThreadCallbackInterface* callback, const pthread_attr_t* attr)
{
    if (mThread != 0)
        return -1;
    mThreadEvent.Reset();
    mCallback = callback;
    int rc = pthread_create(&mThread, attr, ThreadCallback_static, this);
    if (rc == 0)
        return 0;
    mThread = 0;
    mCallback = nullptr;
    return -rc;
}

void* PxThread::ThreadCallback_static(void* param)
{
    PxThread* self = static_cast<PxThread*>(param);
    void* result = self->mCallback->ThreadRoutine();
    self->mThreadEvent.Set();
    self->mCallback = nullptr;
    return result;
}

int PxThread::Join(void** value_ptr, int timeout)
{
    if (mThread == 0)
        return 0;
    if (timeout >= 0) {
        if (!mThreadEvent.WaitWithTimeout(static_cast<unsigned int>(timeout)))
            return ETIMEDOUT;
    }
    int rc = pthread_join(mThread, value_ptr);
    mThread = 0;
    return rc;
}

bool PxThread::IsRunning()
{
    return mThread != 0 && !mThreadEvent.IsSet();
}

bool PxThread::IsCurrentThread()
{
    return mThread != 0 && pthread_equal(mThread, pthread_self()) != 0;
}
