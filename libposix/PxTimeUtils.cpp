#include "libposix/PxTimeUtils.h"

#include <errno.h>
#include <string.h>

#include "libposix/PxTrace.h"

TSTATUS PxSleep(unsigned int milliseconds)
{
    struct timespec ts;
    ts.tv_sec = static_cast<time_t>(milliseconds / 1000U);
    ts.tv_nsec = static_cast<long>((milliseconds % 1000U) * 1000000U);
    if (nanosleep(&ts, nullptr) == 0)
        return TSTATUS_SUCCESS;
    int errnum = errno;
    PXTRACE_ERROR("%s: nanosleep failed (%s)\n", strerror(errnum));
    return TStatusFromErrno(errnum);
}

bool SubtractTimespec(timespec x, timespec y, timespec& result)
{
    // Carry whole seconds into y so that the nanosecond difference is within
    // 0 .. 1e9 before subtracting.
    if (x.tv_nsec < y.tv_nsec) {
        long n = (y.tv_nsec - x.tv_nsec) / 1000000000L + 1;
        y.tv_nsec -= 1000000000L * n;
        y.tv_sec += n;
    }
    if (x.tv_nsec - y.tv_nsec > 1000000000L) {
        long n = (x.tv_nsec - y.tv_nsec) / 1000000000L;
        y.tv_nsec += 1000000000L * n;
        y.tv_sec -= n;
    }
    result.tv_sec = x.tv_sec - y.tv_sec;
    result.tv_nsec = x.tv_nsec - y.tv_nsec;
    return y.tv_sec > x.tv_sec;
}
