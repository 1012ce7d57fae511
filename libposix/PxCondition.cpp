#include "libposix/PxCondition.h"

#include <time.h>

PxCondition::PxCondition()
{
    pthread_cond_init(&mCond, nullptr);
}

PxCondition::~PxCondition()
{
    pthread_cond_destroy(&mCond);
}

void PxCondition::Signal()
{
    pthread_cond_signal(&mCond);
}

void PxCondition::Broadcast()
{
    pthread_cond_broadcast(&mCond);
}

void PxCondition::Wait(PxMutex& mtx)
{
    pthread_cond_wait(&mCond, mtx.GetMutex());
}

int PxCondition::WaitWithTimeout(PxMutex& mtx, unsigned int timeoutInMilliSecond)
{
    const time_t seconds = static_cast<time_t>(timeoutInMilliSecond / 1000U);
    const long nanoseconds = static_cast<long>((timeoutInMilliSecond % 1000U) * 1000000U);

    struct timespec deadline = {0, 0};
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    deadline.tv_nsec += nanoseconds;
    if (deadline.tv_nsec > 999999999L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return pthread_cond_timedwait(&mCond, mtx.GetMutex(), &deadline);
}
