// An event: a flag guarded by a recursive mutex plus a condition variable.
// Set() wakes one waiter. An auto-reset event clears the flag for the waiter
// it releases; a manual-reset event stays set until Reset().
#pragma once

#include "libposix/PxCondition.h"
#include "libposix/PxMutex.h"

class PxEvent {
public:
    explicit PxEvent(bool autoReset);

    // Sets the flag and wakes one waiter; the waiter is woken after the
    // event's lock is released, so it does not wake only to block on it.
    void Set();
    // The two halves of Set, for a caller that sets the flag under a lock of
    // its own and wakes the waiter once that lock is released too.
    void MarkSet();
    void Wake();
    void Reset();
    bool IsSet();
    void Wait();
    // false on time-out. Every wake-up that finds the flag clear starts a
    // full time-out again.
    bool WaitWithTimeout(unsigned int timeoutInMilliSecond);

    PxEvent(const PxEvent&) = delete;
    PxEvent& operator=(const PxEvent&) = delete;

private:
    PxMutex mMutex;
    PxCondition mCondition;
    bool mTriggered;
    const bool mIsAutoReset;
};

class PxManualResetEvent : public PxEvent {
public:
    PxManualResetEvent() : PxEvent(false) {}
};
