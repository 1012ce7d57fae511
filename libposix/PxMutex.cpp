#include "libposix/PxMutex.h"

PxMutex::PxMutex(bool isRecursiveType)
{
    // The results are ignored: with valid attributes these calls cannot fail
    // for lack of anything but memory, and a mutex is never optional here.
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    if (isRecursiveType)
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&mMutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

PxMutex::~PxMutex()
{
    pthread_mutex_destroy(&mMutex);
}

void PxMutex::Lock()
{
    pthread_mutex_lock(&mMutex);
}

void PxMutex::Unlock()
{
    pthread_mutex_unlock(&mMutex);
}

bool PxMutex::TryLock()
{
    return pthread_mutex_trylock(&mMutex) == 0;
}
