#include "liblinux/LxStopwatch.h"

#include <errno.h>

#include "libposix/PxTimeUtils.h"
#include "libposix/PxTrace.h"

LxStopwatch::LxStopwatch() : mClockId(CLOCK_MONOTONIC), mStartTime{0, 0}, mIsStarted(false)
{
}

LxStopwatch::~LxStopwatch()
{
}

TSTATUS LxStopwatch::Start()
{
    if (mIsStarted) {
        PXTRACE_ERROR("%s: already started\n");
        return TSTATUS_ALREADY_DONE;
    }
    if (clock_gettime(mClockId, &mStartTime) != 0) {
        int err = errno;
        PXTRACE_ERROR("%s: clock_gettime failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    mIsStarted = true;
    return TSTATUS_SUCCESS;
}

void LxStopwatch::Stop()
{
    mIsStarted = false;
    mStartTime.tv_sec = 0;
    mStartTime.tv_nsec = 0;
}

TSTATUS LxStopwatch::ElapsedTime(timespec& elapsedTime) const
{
    elapsedTime.tv_sec = 0;
    elapsedTime.tv_nsec = 0;
    if (!mIsStarted) {
        PXTRACE_ERROR("%s: not started\n");
        return TSTATUS_NOT_INITIALIZED;
    }
    timespec now;
    if (clock_gettime(mClockId, &now) != 0) {
        int err = errno;
        PXTRACE_ERROR("%s: clock_gettime failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    timespec diff;
    if (SubtractTimespec(now, mStartTime, diff)) {
        PXTRACE_ERROR("%s: current time lies before start time\n");
        return TSTATUS_NOT_POSSIBLE;
    }
    elapsedTime = diff;
    return TSTATUS_SUCCESS;
}

long LxStopwatch::Elapsed(const char* signature, long unitsPerSecond) const
{
    if (!mIsStarted)
        return 0;
    timespec t;
    const TSTATUS st = ElapsedTime(t);
    if (st != TSTATUS_SUCCESS) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: ElapsedTime failed, err = 0x%08X\n", signature, static_cast<unsigned int>(st));
        return 0;
    }
    // Both parts truncate: the result is never rounded up.
    return static_cast<long>(t.tv_sec) * unitsPerSecond + t.tv_nsec / (1000000000L / unitsPerSecond);
}

long LxStopwatch::ElapsedSeconds() const
{
    return Elapsed(__PRETTY_FUNCTION__, 1L);
}

long LxStopwatch::ElapsedMilliseconds() const
{
    return Elapsed(__PRETTY_FUNCTION__, 1000L);
}

long LxStopwatch::ElapsedMicroseconds() const
{
    return Elapsed(__PRETTY_FUNCTION__, 1000000L);
}

long LxStopwatch::ElapsedNanoSeconds() const
{
    return Elapsed(__PRETTY_FUNCTION__, 1000000000L);
}

TSTATUS LxStopwatch::ClockResolution(timespec& resolution)
{
    resolution.tv_sec = 0;
    resolution.tv_nsec = 0;
    timespec res;
    if (clock_getres(mClockId, &res) != 0) {
        int err = errno;
        PXTRACE_ERROR("%s: clock_getres failed (%d)\n", err);
        return TStatusFromErrno(err);
    }
    resolution = res;
    return TSTATUS_SUCCESS;
}
