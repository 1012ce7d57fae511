// Thin wrapper around a POSIX mutex. Every lock of the library is one of
// these, created recursive, so that a thread that already holds a lock may
// re-enter code that takes it again (tracing from inside a trace call, API
// calls made from callbacks on the same thread).
#pragma once

#include <pthread.h>

class PxMutex {
public:
    explicit PxMutex(bool isRecursiveType);
    ~PxMutex();

    // Recursive mutex without any run-time initialisation: usable from other
    // translation units' static initialisers (the trace mutex relies on this).
    struct StaticRecursive {};
    constexpr explicit PxMutex(StaticRecursive)
        : mMutex(PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP)
    {
    }

    void Lock();
    void Unlock();
    bool TryLock();
    pthread_mutex_t* GetMutex() { return &mMutex; }

    PxMutex(const PxMutex&) = delete;
    PxMutex& operator=(const PxMutex&) = delete;

private:
    pthread_mutex_t mMutex;
};

// Scope guard: holds the mutex for the lifetime of the guard, so that the
// lock is released on every return path and during unwinding.
class PxMutexLock {
public:
    explicit PxMutexLock(PxMutex& mutex) : mMutex(mutex) { mMutex.Lock(); }
    ~PxMutexLock() { mMutex.Unlock(); }

    PxMutexLock(const PxMutexLock&) = delete;
    PxMutexLock& operator=(const PxMutexLock&) = delete;

private:
    PxMutex& mMutex;
};
