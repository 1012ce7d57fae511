#include "liblinux/LxPnPNotificator.h"

#include <errno.h>
#include <poll.h>
#include <string.h>

#include "liblinux/LxUdevContextGlobal.h"
#include "libposix/PxTrace.h"
#include "libtb/TbStringUtils.h"

namespace {

// Action names in the order they are matched; the index is the
// LxPnPNotificatorAction value.
const char* const cActionNames[] = {"add", "remove", "change", "online", "offline"};

// A descriptor in one of these states can never become readable again:
// polling on would only spin, so the thread treats them all as an error.
const short cPollErrorEvents = POLLERR | POLLHUP | POLLNVAL;

// sysfs paths are bounded by PATH_MAX.
const unsigned cMaxSyspathLength = 4096;

} // namespace

LxPnPNotificator::LxPnPNotificator() : mStarted(false), mTerminate(false), mCallback(nullptr), mMonitorFd(-1)
{
    mThreadForwarder.Init(this, &LxPnPNotificator::ThreadCallback);
}

LxPnPNotificator::~LxPnPNotificator()
{
    // Non-virtual on purpose: the subclass parts are already gone here.
    LxPnPNotificator::Stop();
}

TSTATUS LxPnPNotificator::Start(LxPnPNotificatorCallbackInterface* callback, const char* subsystem,
                                const char* devtype)
{
    if (mStarted)
        return TSTATUS_ALREADY_DONE;

    {
        PxMutexLock udevLock(LxUdevContextGlobal::GetLock());
        if (!mUdevMonitor.InitFromNetLinkUdev(LxUdevContextGlobal::GetContext()))
            return TSTATUS_FAILED;
        // Receiving is enabled before the thread exists: events arriving in
        // between wait in the socket and are served on the first poll.
        if (!mUdevMonitor.FilterAddMatchSubsystemDevtype(subsystem, devtype) || !mUdevMonitor.EnableReceiving()) {
            mUdevMonitor.Deinit();
            return TSTATUS_FAILED;
        }
        mMonitorFd = mUdevMonitor.GetFd();
    }

    int rc = mPipe.Create(true);
    if (rc < 0) {
        PXTRACE_ERROR("%s: mPipe.Create failed (%s)\n", strerror(-rc));
        DeinitMonitor();
        return TSTATUS_FAILED;
    }

    mTerminate = false;
    mCallback = callback;

    int err = mThread.Create(&mThreadForwarder, nullptr);
    if (err != 0) {
        // Create returns a negated error number (or -1), which strerror
        // reports as an unknown error; the raw value is what gets logged.
        PXTRACE_ERROR("%s: mThread.Create failed (%s)\n", strerror(err));
        mPipe.Close();
        DeinitMonitor();
        return TSTATUS_FAILED;
    }

    mStarted = true;
    return TSTATUS_SUCCESS;
}

void LxPnPNotificator::Stop()
{
    if (!mStarted)
        return;

    mTerminate = true;
    mPipe.WriteChar('x');
    // Returns at once when the thread has already ended by itself.
    mThread.Join(nullptr, -1);

    mPipe.Close();
    DeinitMonitor();

    mTerminate = false;
    mCallback = nullptr;
    mStarted = false;
}

void LxPnPNotificator::DeinitMonitor()
{
    PxMutexLock udevLock(LxUdevContextGlobal::GetLock());
    mUdevMonitor.Deinit();
    mMonitorFd = -1;
}

bool LxPnPNotificator::IsStarted()
{
    return mStarted;
}

bool LxPnPNotificator::IsNotificationThread()
{
    // Answered from an id the thread records itself, so that any thread may
    // ask at any time without racing Start and Stop.
    const unsigned long id = mThreadId.load();
    return id != 0 && pthread_equal(static_cast<pthread_t>(id), pthread_self()) != 0;
}

bool LxPnPNotificator::OnFilterDeviceInstance(LxUdevDevice& /*device*/, LxPnPNotificatorAction /*action*/)
{
    return true;
}

void* LxPnPNotificator::ThreadCallback()
{
    mThreadId = static_cast<unsigned long>(pthread_self());
    struct ClearId {
        std::atomic<unsigned long>& id;
        ~ClearId() { id = 0; }
    } clearId{mThreadId};
    for (;;) {
        if (mTerminate)
            return nullptr;

        struct pollfd fds[2];
        fds[0].fd = mPipe.GetReadEnd();
        fds[0].events = POLLIN | POLLERR;
        fds[0].revents = 0;
        fds[1].fd = mMonitorFd;
        fds[1].events = POLLIN | POLLERR;
        fds[1].revents = 0;

        int n = poll(fds, 2, -1);
        if (n == 0) {
            // Cannot happen without a time-out; kept so that a finite one
            // would still honour the flag.
            PXTRACE_ERROR("%s: timeout\n");
            continue;
        }
        if (n < 0) {
            // A signal that reaches this thread anyway (one the application
            // sends to it directly) only interrupts the wait.
            if (errno == EINTR)
                continue;
            PXTRACE_ERROR("%s: poll error (%s)\n", strerror(errno));
            return nullptr;
        }

        // The pipe has priority; after draining it the flag decides.
        if (fds[0].revents & POLLIN) {
            mPipe.ReadDummy();
            continue;
        }
        if (fds[0].revents & cPollErrorEvents) {
            PXTRACE_ERROR("%s: fds[0] error\n");
            return nullptr;
        }

        if (fds[1].revents & POLLIN) {
            // An error reported together with data is left for the next pass.
            fds[1].revents = 0;
            HandlePnPEvent();
            continue;
        }
        if (fds[1].revents & cPollErrorEvents) {
            PXTRACE_ERROR("%s: fds[1] error\n");
            return nullptr;
        }
    }
}

void LxPnPNotificator::HandlePnPEvent()
{
    LxPnPNotificatorAction action;
    // Copied out, so that the device is released under the udev lock and the
    // callback runs without it (an application may enumerate from there).
    char syspath[cMaxSyspathLength];
    bool haveSyspath = false;
    {
        PxMutexLock udevLock(LxUdevContextGlobal::GetLock());
        // Adopts the reference that the monitor hands over; released before
        // the lock (declared after it).
        LxUdevDevice device(mUdevMonitor.ReceiveDevice());
        if (!device.IsInitialized())
            return;

        const char* actionText = device.GetAction();
        int actionIndex = -1;
        if (actionText != nullptr) {
            for (unsigned i = 0; i < sizeof(cActionNames) / sizeof(cActionNames[0]); ++i) {
                if (TbStringEqualIgnoreCase(actionText, cActionNames[i])) {
                    actionIndex = static_cast<int>(i);
                    break;
                }
            }
        }
        if (actionIndex < 0) {
            PXTRACE_WARN("%s: ignore unexpected action %.1024s\n", actionText != nullptr ? actionText : "(null)");
            return;
        }
        action = static_cast<LxPnPNotificatorAction>(actionIndex);

        if (mCallback == nullptr)
            return;
        if (!OnFilterDeviceInstance(device, action))
            return;
        const char* path = device.GetSyspath();
        if (path != nullptr) {
            TbStringNCopy(syspath, path, sizeof(syspath));
            haveSyspath = true;
        }
    }
    mCallback->PnPAction(action, haveSyspath ? syspath : nullptr);
}
