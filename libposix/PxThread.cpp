#include "libposix/PxThread.h"

#include <errno.h>
#include <signal.h>

namespace {

// Library threads take no asynchronous signal: a signal the application
// means for itself (SIGCHLD, SIGALRM, a handled SIGUSR1...) goes to one of its
// own threads, and no poll or read of ours is interrupted by it. Signals a
// faulting instruction raises stay deliverable, so a crash in a library
// thread is still reported as one.
void FillLibraryThreadMask(sigset_t& mask)
{
    sigfillset(&mask);
    const int synchronous[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT};
    for (int sig : synchronous)
        sigdelset(&mask, sig);
}

} // namespace

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
    // The new thread inherits the mask in force at pthread_create; the
    // creating thread gets its own mask back at once.
    sigset_t blocked;
    sigset_t previous;
    FillLibraryThreadMask(blocked);
    const int maskRc = pthread_sigmask(SIG_SETMASK, &blocked, &previous);
    int rc = pthread_create(&mThread, attr, ThreadCallback_static, this);
    if (maskRc == 0)
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
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
