// Measures the time elapsed since Start() on a POSIX clock (CLOCK_MONOTONIC
// unless changed). One stopwatch serves one measurement.
#pragma once

#include <time.h>

#include "libtb/TbTypes.h"

class LxStopwatch {
public:
    LxStopwatch();
    ~LxStopwatch();

    // TSTATUS_ALREADY_DONE when already started (the first start time stays).
    TSTATUS Start();
    void Stop();
    bool IsStarted() const { return mIsStarted; }
    void SetClockId(clockid_t clockId) { mClockId = clockId; }
    clockid_t ClockId() const { return mClockId; }

    TSTATUS ElapsedTime(timespec& elapsedTime) const;
    // Truncated conversions of ElapsedTime; 0 on any failure.
    long ElapsedSeconds() const;
    long ElapsedMilliseconds() const;
    long ElapsedMicroseconds() const;
    long ElapsedNanoSeconds() const;

    TSTATUS ClockResolution(timespec& resolution);

private:
    // Elapsed time in units of 1/unitsPerSecond s; 0 (traced with the
    // caller's signature) when it cannot be read.
    long Elapsed(const char* signature, long unitsPerSecond) const;
    LxStopwatch(const LxStopwatch&);
    LxStopwatch& operator=(const LxStopwatch&);

    clockid_t mClockId;
    timespec mStartTime;
    bool mIsStarted;
};
