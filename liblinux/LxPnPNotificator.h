// Watches the udev event stream of one subsystem (optionally one device type)
// on a monitor thread of its own and reports each recognised event as
// (action, syspath) to a callback object. Subclasses veto or act on events in
// OnFilterDeviceInstance, which runs on the monitor thread before the
// callback.
#pragma once

#include <atomic>

#include "karvex/karvex_api.h"
#include "liblinux/LxPnPNotificatorCallbackInterface.h"
#include "liblinux/LxUdevDevice.h"
#include "liblinux/LxUdevMonitor.h"
#include "libposix/PxPipe.h"
#include "libposix/PxThread.h"

class LxPnPNotificator {
public:
    LxPnPNotificator();
    // Owners stop the notificator before destroying it (a subclass from its
    // own destructor, while its overrides are still intact); the stop done
    // here only guards against a forgotten one.
    virtual ~LxPnPNotificator();

    // Ends the monitor thread (flag, pipe byte, join without time-out) and
    // releases the monitor. Safe when not started; never call it from the
    // callback or the filter, which run on the thread it joins.
    virtual void Stop();

    // TSTATUS_SUCCESS, TSTATUS_ALREADY_DONE when started, or TSTATUS_FAILED
    // (the cause is traced). devtype null watches every device type.
    TSTATUS Start(LxPnPNotificatorCallbackInterface* callback, const char* subsystem, const char* devtype);

    // True from a successful Start until Stop, also when the thread has ended
    // by itself on an error. Call from the owner's thread.
    bool IsStarted();

    // True when the caller runs on this notificator's monitor thread, i.e.
    // inside the filter or the callback; lets the owner refuse operations
    // that would join the calling thread.
    bool IsNotificationThread();

    LxPnPNotificator(const LxPnPNotificator&) = delete;
    LxPnPNotificator& operator=(const LxPnPNotificator&) = delete;

protected:
    // Called on the monitor thread for every recognised event while a
    // callback is set; false drops the event. The base accepts everything.
    virtual bool OnFilterDeviceInstance(LxUdevDevice& device, LxPnPNotificatorAction action);

    // The monitor thread's routine; always returns null.
    void* ThreadCallback();
    // Receives and dispatches one event from the monitor. The udev work
    // (receive, filter) holds the udev lock; the callback runs without it.
    void HandlePnPEvent();
    // Releases the monitor under the udev lock.
    void DeinitMonitor();

    PxThread mThread;
    PxThreadCallbackForwarderT<LxPnPNotificator> mThreadForwarder;
    // Terminate pipe: Stop writes a byte so that the thread wakes from poll.
    PxPipe mPipe;
    LxUdevMonitor mUdevMonitor;
    bool mStarted;
    // Written by Stop, read by the monitor thread after each wake-up.
    std::atomic<bool> mTerminate;
    // pthread_t of the running monitor thread, 0 when none runs.
    std::atomic<unsigned long> mThreadId{0};
    // Not owned. Set by Start before the thread exists, cleared by Stop after
    // it has been joined, so the thread reads it without a lock.
    LxPnPNotificatorCallbackInterface* mCallback;
    // The monitor's socket, read once at Start so that the thread polls it
    // without touching libudev.
    int mMonitorFd;
};
