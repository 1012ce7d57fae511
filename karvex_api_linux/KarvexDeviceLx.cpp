#include "karvex_api_linux/KarvexDeviceLx.h"

#include <poll.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "liblinux/LxStopwatch.h"
#include "libposix/PxTimeUtils.h"
#include "libposix/PxTrace.h"
#include "libtb/TbDebug.h"

namespace {

// Pause of the reader thread after a failed poll or read, so that an
// unplugged adapter does not spin the CPU until the application closes it.
constexpr unsigned int cReaderRetryDelayMs = 50;

// How long the reader thread stands aside after the last command started
// before it takes the node back (at most twice this). Back-to-back commands
// keep the node on their own thread; a pin event arriving between them is
// delivered within this time, one arriving while a command waits at once.
constexpr int cNodeLingerMs = 2;

// The device whose pin event thread this is; set once by the thread itself.
thread_local KarvexDevice* tPinEventDevice = nullptr;

} // namespace

KarvexDevice::KarvexDevice()
    : mMutex(true),
      mCommandTimeout(5000),
      mI2cMinTimeout(1000),
      mI2cMaxTimeout(30000),
      mReaderThreadIsRunning(false),
      mCloseRequested(false),
      mAbortWaitingCommand(false),
      mNodeMutex(true),
      mCommandOwnsNode(false),
      mCommandsStarted(0),
      mMaxResponseCount(2),
      mMaxEventCount(10),
      mPinEventThreadIsRunning(false),
      mPinEventCallback(nullptr),
      mPinEventCallbackContext(nullptr),
      mUniqueId(0),
      mPinEventControlMutex(true),
      mEventQueueGate(true),
      mPinEventThreadId(0),
      mDeviceNumber(0)
{
    mReaderThreadForwarder.Init(this, &KarvexDevice::ReadThreadRoutine);
    mPinEventThreadForwarder.Init(this, &KarvexDevice::PinEventThreadRoutine);
}

KarvexDevice::~KarvexDevice()
{
    Close();
}

// ---------------------------------------------------------------------------
// Open and close

TSTATUS KarvexDevice::CheckReportLength(const char* direction, unsigned int length)
{
    // The minimum check above lets a length of 0 through (length - 1 wraps);
    // such a device has no report in that direction, and every command would be
    // built in, or every answer read into, a buffer with no room for it.
    if (length == 0) {
        PXTRACE_ERROR("%s: Invalid %s report length %u, the device has no %s report\n", direction, length, direction);
        return TSTATUS_INVALID_REPORT_LENGTH;
    }
    if (length > cMaxReportLength) {
        PXTRACE_ERROR("%s: Invalid %s report length %u, max. %u\n", direction, length, cMaxReportLength);
        return TSTATUS_INVALID_REPORT_LENGTH;
    }
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::Open(KarvexDeviceEnumerator& enumerator, unsigned int deviceIndex)
{
    // A failed open ends in Close, which takes the pin event control mutex;
    // taken here first, it keeps the order control mutex -> mMutex that
    // RegisterPinEventCallback and Close use.
    PxMutexLock control(mPinEventControlMutex);
    EnterCritSec();
    struct Leave {
        KarvexDevice* d;
        ~Leave() { d->LeaveCritSec(); }
    } leave{this};

    if (IsOpen()) {
        PXTRACE_ERROR("%s: already open\n");
        return TSTATUS_ALREADY_OPEN;
    }
    TSTATUS st = mHidDevice.OpenHidRawDevice(enumerator, deviceIndex);
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: OpenHidRawDevice failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        Close();
        return st;
    }
    st = LockNode(enumerator.DevicePath(deviceIndex));
    if (st != TSTATUS_SUCCESS) {
        Close();
        return st;
    }
    const unsigned int inputLength = mHidDevice.InputReportByteLength();
    const unsigned int outputLength = mHidDevice.OutputReportByteLength();
    // Report lengths include the report ID byte; the message needs
    // THID_MAX_MESSAGE_SIZE bytes of report data in both directions.
    if (inputLength - 1 < THID_MAX_MESSAGE_SIZE) {
        PXTRACE_ERROR("%s: Invalid input report length %u, min. %u\n", inputLength - 1, THID_MAX_MESSAGE_SIZE);
        Close();
        return TSTATUS_INVALID_REPORT_LENGTH;
    }
    if (outputLength - 1 < THID_MAX_MESSAGE_SIZE) {
        PXTRACE_ERROR("%s: Invalid output report length %u, min. %u\n", outputLength - 1, THID_MAX_MESSAGE_SIZE);
        Close();
        return TSTATUS_INVALID_REPORT_LENGTH;
    }
    st = CheckReportLength("input", inputLength);
    if (st == TSTATUS_SUCCESS)
        st = CheckReportLength("output", outputLength);
    if (st != TSTATUS_SUCCESS) {
        Close();
        return st;
    }
    st = AllocateResources();
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: AllocateResources failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        Close();
        return st;
    }
    st = StartReaderThread();
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: StartReaderThread failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        Close();
        return st;
    }
    T_UINT8 major = 0;
    T_UINT8 minor = 0;
    st = GetProtocolVersion(major, minor);
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: GetProtocolVersion failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        Close();
        return st;
    }
    if (major != THID_PROTOCOL_VERSION_MAJOR) {
        PXTRACE_ERROR("%s: Protocol version %u.%02u is incompatible with expected version %u.%02u\n",
                      static_cast<unsigned int>(major), static_cast<unsigned int>(minor), THID_PROTOCOL_VERSION_MAJOR,
                      THID_PROTOCOL_VERSION_MINOR);
        Close();
        return TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION;
    }
    return TSTATUS_SUCCESS;
}

void KarvexDevice::Close()
{
    if (IsPinEventThread()) {
        // Stopping the pin event thread from inside its own callback would
        // join itself and free the buffer the callback's event came from.
        PXTRACE_ERROR("%s: not allowed from inside the pin event callback\n");
        return;
    }
    // The pin event thread is joined first; see mAbortWaitingCommand for a
    // callback that waits in a command on an adapter that is gone.
    mCloseRequested = true;
    // Held to the end: a RegisterPinEventCallback on another thread must not
    // start a new pin event thread (or store a callback) in the middle of the close.
    PxMutexLock control(mPinEventControlMutex);
    StopPinEventThread();
    StopReaderThread();
    // A command still waiting for its answer wakes, sees the reader thread
    // gone and returns TSTATUS_ABORTED before we take the mutex below.
    if (mResponseQueue.IsValid())
        mResponseQueue.SetEvent();

    EnterCritSec();
    // Closing the descriptor also drops the lock on the node.
    mHidDevice.CloseHidRawDevice();
    mDeviceNumber = 0;
    FreeResources();
    mPinEventCallback = nullptr;
    mPinEventCallbackContext = nullptr;
    mCloseRequested = false;
    mAbortWaitingCommand = false;
    LeaveCritSec();
}

TSTATUS KarvexDevice::LockNode(const char* devicePath)
{
    // hidraw hands every input report to every open descriptor of the node,
    // and every device object numbers its commands from 1: two users of one
    // adapter would take each other's answers. The advisory lock keeps out a
    // second user, in another program or in this one (the lock belongs to
    // the open file, not to the process).
    const int fd = mHidDevice.GetFileDescriptor();
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        if (err == EWOULDBLOCK) {
            PXTRACE_ERROR("%s: device '%.1024s' is in use by another program\n", devicePath != nullptr ? devicePath : "");
            return TSTATUS_IN_USE;
        }
        // A node that cannot be locked (no lock support) is used unlocked.
        PXTRACE_WARN("%s: flock failed (%d), device '%.1024s' not locked\n", err, devicePath != nullptr ? devicePath : "");
    }
    // Taken from the path, as the API object takes it for its own check.
    struct stat info;
    if (devicePath != nullptr && stat(devicePath, &info) == 0)
        mDeviceNumber = info.st_rdev;
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::AllocateResources()
{
    TB_ASSERT(IsOpen());
    const unsigned int inputLength = mHidDevice.InputReportByteLength();
    const unsigned int outputLength = mHidDevice.OutputReportByteLength();
    mCommandReport.FreeBuffer();
    if (!mCommandReport.AllocateBuffer(outputLength)) {
        PXTRACE_ERROR("%s: allocate mCommandReport failed\n");
        return TSTATUS_NO_MEMORY;
    }
    mResponseReport.FreeBuffer();
    if (!mResponseReport.AllocateBuffer(inputLength)) {
        PXTRACE_ERROR("%s: allocate mResponseReport failed\n");
        return TSTATUS_NO_MEMORY;
    }
    mReadReport.FreeBuffer();
    if (!mReadReport.AllocateBuffer(inputLength)) {
        PXTRACE_ERROR("%s: allocate mReadReport failed\n");
        return TSTATUS_NO_MEMORY;
    }
    TSTATUS st = mResponseQueue.Allocate(inputLength, mMaxResponseCount);
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: mResponseQueue.Allocate failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        return st;
    }
    // The last Close set the queue's event to release a waiting command, and
    // allocating does not reset it: a command of the reopened device would
    // find it set with nothing queued and spin through its waits.
    mResponseQueue.Clear();
    return TSTATUS_SUCCESS;
}

void KarvexDevice::FreeResources()
{
    mReaderWakePipe.Close();
    mCommandWakePipe.Close();
    mResponseQueue.Free();
    mReadReport.FreeBuffer();
    mResponseReport.FreeBuffer();
    mCommandReport.FreeBuffer();
}

// ---------------------------------------------------------------------------
// Queries

TSTATUS KarvexDevice::CheckDeviceConnection()
{
    PxMutexLock lock(mMutex);
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not opened\n");
        return TSTATUS_NOT_OPENED;
    }
    return mHidDevice.IsConnected() ? TSTATUS_SUCCESS : TSTATUS_DEVICE_REMOVED;
}

TSTATUS KarvexDevice::GetDeviceUsbInfo(unsigned int* usbVendorId, unsigned int* usbProductId,
                                       unsigned int* usbRevisionCode)
{
    PxMutexLock lock(mMutex);
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not opened\n");
        return TSTATUS_NOT_OPENED;
    }
    if (usbVendorId != nullptr)
        *usbVendorId = mHidDevice.UsbVid();
    if (usbProductId != nullptr)
        *usbProductId = mHidDevice.UsbPid();
    if (usbRevisionCode != nullptr)
        *usbRevisionCode = mHidDevice.UsbRevision();
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::GetDeviceSerialNumber(T_UNICHAR* serialNumber, unsigned int stringBufferSize)
{
    PxMutexLock lock(mMutex);
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not opened\n");
        return TSTATUS_NOT_OPENED;
    }
    TSTATUS st = mHidDevice.GetSerialNumberString(serialNumber, stringBufferSize);
    if (st == TSTATUS_NOT_SUPPORTED)
        PXTRACE_INFO("%s: Serial number string not supported by the device\n");
    else if (st != TSTATUS_SUCCESS)
        PXTRACE_ERROR("%s: GetSerialNumberString failed, err = 0x%08X\n", static_cast<unsigned int>(st));
    return st;
}

// ---------------------------------------------------------------------------
// Commands

void KarvexDevice::BuildCommand(T_UINT8 code, T_UINT16 length)
{
    mCommandReport.ZeroBuffer();
    THID_MsgHeader* header = mCommandReport.MessageHeader();
    header->messageCode = code;
    header->messageLength.Set(length);
    header->uniqueId = UniqueId();
}

TSTATUS KarvexDevice::CheckResponse(const char* function, T_UINT8 expectedCode, T_UINT16 expectedLength,
                                    unsigned int statusTraceMask)
{
    // The lines name the operation whose answer is checked (function), not
    // this helper. A failure status wins over a wrong code, and a wrong code
    // over a wrong length.
    if (mResponseReport.MessageStatus() != 0) {
        if (PxTraceEnabled(statusTraceMask))
            tprint("%s: Failure response received, st = 0x%02X\n", function,
                   static_cast<unsigned int>(mResponseReport.MessageStatus()));
        return ResponseStatusToTStatus(mResponseReport.MessageStatus());
    }
    if (mResponseReport.MessageCode() != expectedCode) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: unexpected response code 0x%02X, exp. 0x%02X\n", function,
                   static_cast<unsigned int>(mResponseReport.MessageCode()), static_cast<unsigned int>(expectedCode));
        return TSTATUS_UNEXPECTED_DEVICE_RESPONSE;
    }
    if (mResponseReport.MessageLength() != expectedLength) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: unexpected length %u, exp. %u\n", function,
                   static_cast<unsigned int>(mResponseReport.MessageLength()), static_cast<unsigned int>(expectedLength));
        return TSTATUS_LENGTH_MISMATCH;
    }
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::ExecuteCommand(KarvexReportBuffer& command, KarvexReportBuffer& response, unsigned int waitTimeout)
{
    TB_ASSERT(IsOpen());
    TB_ASSERT(0 != waitTimeout);

    LxStopwatch watch;
    TSTATUS st = watch.Start();
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: watch.Start failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        return st;
    }
    PXTRACE(KARVEX_TRACE_PROTOCOL, "%s: Execute command 0x%02X, msg. length %u, timeout %u\n",
            static_cast<unsigned int>(command.MessageCode()), static_cast<unsigned int>(command.MessageLength()),
            waitTimeout);
    if (PxTraceEnabled(KARVEX_TRACE_PROTODUMP))
        DumpBytesEx(command.Buffer(), command.BufferSize(), 16);

    // The node is taken before the command goes out, so that the reader
    // thread cannot read its answer. Stale answers are not flushed: those the
    // reader thread queued before are taken from the queue first, those still
    // on the node are read like any other; the unique ID check below skips
    // them, and they spend this command's time budget like any foreign response.
    TakeNode();
    bool onNode = true;      // this thread reads the node
    bool queueFirst = true;  // answers the reader thread queued before are still to be looked at
    st = mHidDevice.WriteReport(command);
    if (st != TSTATUS_SUCCESS) {
        mNodeMutex.Unlock();
        PXTRACE_ERROR("%s: WriteReport failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        return st;
    }
    for (;;) {
        const long elapsedTime = watch.ElapsedMilliseconds();
        TB_ASSERT(elapsedTime >= 0);
        if (static_cast<unsigned long>(waitTimeout) <= static_cast<unsigned long>(elapsedTime)) {
            st = TSTATUS_TIMEOUT;
            PXTRACE_ERROR("%s: timeout expires after %u ms\n", waitTimeout);
            break;
        }
        const unsigned int remainingTimeout = waitTimeout - static_cast<unsigned int>(elapsedTime);
        if (onNode) {
            if (!mReaderThreadIsRunning.load() || mAbortWaitingCommand.load()) {
                st = TSTATUS_ABORTED;
                PXTRACE_ERROR("%s: operation aborted\n");
                break;
            }
            if (queueFirst && mResponseQueue.Get(response.Buffer(), response.BufferSize())) {
                // a queued answer: checked below
            } else {
                queueFirst = false;
                const NodeWait got = ReadNode(response, remainingTimeout);
                if (got == NodeWait::TimedOut) {
                    st = TSTATUS_TIMEOUT;
                    PXTRACE_ERROR("%s: WaitWithTimeout(%u ms) timed out\n", remainingTimeout);
                    break;
                }
                if (got == NodeWait::HandedBack)
                    onNode = false;
                if (got != NodeWait::Report)
                    continue;
                ProcessReceivedReport(response);
                if (!IsAnswer(response))
                    continue;
            }
        } else {
            // The reader thread reads the node and queues the answers.
            // Close wakes us by setting the queue's event, but a Get that
            // empties the queue resets it: after a skipped answer, look at the
            // flag before waiting again, or Close would wait for this
            // command's time-out.
            if (mReaderThreadIsRunning.load() && !mAbortWaitingCommand.load() &&
                !mResponseQueue.WaitWithTimeout(remainingTimeout)) {
                st = TSTATUS_TIMEOUT;
                PXTRACE_ERROR("%s: WaitWithTimeout(%u ms) timed out\n", remainingTimeout);
                break;
            }
            if (!mReaderThreadIsRunning.load() || mAbortWaitingCommand.load()) {
                st = TSTATUS_ABORTED;
                PXTRACE_ERROR("%s: operation aborted\n");
                break;
            }
            if (!mResponseQueue.Get(response.Buffer(), response.BufferSize())) {
                PXTRACE_WARN("%s: No response available, continue waiting\n");
                continue;
            }
        }
        if (response.UniqueId() == command.UniqueId())
            break;
        PXTRACE_INFO("%s: unique ID mismatch, got %u, exp. %u\n", static_cast<unsigned int>(response.UniqueId()),
                     static_cast<unsigned int>(command.UniqueId()));
    }
    // The node stays with this thread after the command (see TakeBackNode).
    if (onNode)
        mNodeMutex.Unlock();
    if (st != TSTATUS_SUCCESS)
        return st;
    PXTRACE(KARVEX_TRACE_PROTOCOL, "%s: Receive response 0x%02X, msg. length %u\n",
            static_cast<unsigned int>(response.MessageCode()), static_cast<unsigned int>(response.MessageLength()));
    if (PxTraceEnabled(KARVEX_TRACE_PROTODUMP))
        DumpBytesEx(response.Buffer(), response.BufferSize(), 16);
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::GetProtocolVersion(T_UINT8& protocolVersionMajor, T_UINT8& protocolVersionMinor)
{
    TB_ASSERT(IsOpen());
    protocolVersionMajor = 0;
    protocolVersionMinor = 0;
    TB_ASSERT(mCommandReport.ReportDataSize() >= THID_MAX_MESSAGE_SIZE);
    TB_ASSERT(mResponseReport.ReportDataSize() >= THID_MAX_MESSAGE_SIZE);

    BuildCommand(THID_CMD_GET_PROTOCOL_VERSION, THID_MSG_LEN_HEADER_ONLY);
    const TSTATUS st = Exchange(__PRETTY_FUNCTION__, mCommandTimeout, THID_RSP_GET_PROTOCOL_VERSION,
                                THID_MSG_LEN_PROTOCOL_VERSION, KARVEX_TRACE_ERROR);
    if (st != TSTATUS_SUCCESS)
        return st;
    const THID_ProtocolVersion* version = mResponseReport.Payload<THID_ProtocolVersion>();
    protocolVersionMajor = version->protocolVersionMj;
    protocolVersionMinor = version->protocolVersionMn;
    return TSTATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// The node between commands and the reader thread

void KarvexDevice::TakeNode()
{
    mNodeMutex.Lock();
    ++mCommandsStarted;
    if (!mCommandOwnsNode.load()) {
        mCommandOwnsNode = true;
        // The reader thread sleeps in poll() on the node; woken, it finds the
        // node taken and stands aside.
        mReaderWakePipe.WriteChar('x');
    }
}

void KarvexDevice::HandBackNode()
{
    mCommandOwnsNode = false;
    mNodeMutex.Unlock();
    mReaderWakePipe.WriteChar('x');
}

KarvexDevice::NodeWait KarvexDevice::ReadNode(KarvexReportBuffer& report, unsigned int timeoutMs)
{
    struct pollfd fds[2];
    fds[0].fd = mCommandWakePipe.GetReadEnd();
    fds[0].events = POLLIN;
    fds[0].revents = 0;
    fds[1].fd = mHidDevice.GetFileDescriptor();
    fds[1].events = POLLIN | POLLERR;
    fds[1].revents = 0;
    // A budget too large for poll's int is waited for in parts.
    const int rc = poll(fds, 2, timeoutMs > 0x7FFFFFFFU ? 0x7FFFFFFF : static_cast<int>(timeoutMs));
    if (rc == 0)
        return NodeWait::TimedOut;
    if (rc < 0) {
        if (errno == EINTR)
            return NodeWait::Nothing; // the caller computes the rest of its budget
        HandBackNode();
        return NodeWait::HandedBack;
    }
    // Close: the caller finds the reader thread stopped.
    if (fds[0].revents != 0)
        return NodeWait::Nothing;
    // An unplugged adapter, and what the reader thread does about it (its
    // trace lines, the abort of a command a closing device waits for), are
    // left to the reader thread, as is any read that fails.
    if ((fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0 || (fds[1].revents & POLLIN) == 0) {
        HandBackNode();
        return NodeWait::HandedBack;
    }
    if (mHidDevice.ReadReport(report) != TSTATUS_SUCCESS) {
        HandBackNode();
        return NodeWait::HandedBack;
    }
    return NodeWait::Report;
}

bool KarvexDevice::IsAnswer(KarvexReportBuffer& report)
{
    const unsigned int transferred = report.BytesTransferred();
    const unsigned int messageBytes = transferred > 0 ? transferred - 1 : 0;
    return messageBytes >= sizeof(THID_MsgHeader) && messageBytes >= report.MessageLength() &&
           report.MessageCode() != THID_EVT_PIN_STATE_CHANGED;
}

void KarvexDevice::TakeBackNode(unsigned int& commandsSeen)
{
    // A command waiting on the node holds the mutex: not now.
    if (!mNodeMutex.TryLock())
        return;
    if (mCommandsStarted == commandsSeen)
        mCommandOwnsNode = false;
    commandsSeen = mCommandsStarted;
    mNodeMutex.Unlock();
}

// ---------------------------------------------------------------------------
// Reader thread

TSTATUS KarvexDevice::StartReaderThread()
{
    int rc = mReaderThreadTerminatePipe.Create(true);
    if (rc < 0) {
        PXTRACE_ERROR("%s: mReaderThreadTerminatePipe.Create failed (%d)\n", -rc);
        return TStatusFromErrno(-rc);
    }
    mReaderWakePipe.Close();
    mCommandWakePipe.Close();
    rc = mReaderWakePipe.Create(true);
    if (rc == 0)
        rc = mCommandWakePipe.Create(true);
    if (rc < 0) {
        PXTRACE_ERROR("%s: wake pipe Create failed (%d)\n", -rc);
        mReaderThreadTerminatePipe.Close();
        return TStatusFromErrno(-rc);
    }
    // A fresh reader thread reads the node until a command takes it.
    mCommandOwnsNode = false;
    // Set before the thread exists: it reads the flag in its loop.
    mReaderThreadIsRunning = true;
    rc = mReaderThread.Create(&mReaderThreadForwarder, nullptr);
    if (rc != 0) {
        mReaderThreadIsRunning = false;
        PXTRACE_ERROR("%s: mReaderThread.Create failed (%d)\n", rc < 0 ? -rc : rc);
        mReaderThreadTerminatePipe.Close();
        return TStatusFromErrno(rc < 0 ? -rc : rc);
    }
    return TSTATUS_SUCCESS;
}

void KarvexDevice::StopReaderThread()
{
    if (!mReaderThreadIsRunning.load())
        return;
    mReaderThreadIsRunning = false;
    // A command waiting on the node wakes and sees the flag.
    mCommandWakePipe.WriteChar('x');
    mReaderThreadTerminatePipe.WriteChar('x');
    mReaderThread.Join(nullptr, -1);
    mReaderThreadTerminatePipe.Close();
}

void* KarvexDevice::ReadThreadRoutine()
{
    unsigned int commandsSeen = 0;
    // When the reader last looked whether commands still come. Measured, not
    // left to poll's time-out: a stream of signals or wake-ups would restart
    // that time-out for ever and keep the node (and its events) unread.
    LxStopwatch sinceCheck;
    sinceCheck.Start();
    for (;;) {
        // While a command has the node, stand aside and look again every
        // cNodeLingerMs (a negative descriptor is skipped by poll).
        const bool ownsNode = !mCommandOwnsNode.load();
        int lingerLeftMs = cNodeLingerMs;
        if (!ownsNode) {
            const long waited = sinceCheck.ElapsedMilliseconds();
            if (waited < 0 || waited >= cNodeLingerMs) {
                TakeBackNode(commandsSeen);
                sinceCheck.Stop();
                sinceCheck.Start();
                continue;
            }
            lingerLeftMs = cNodeLingerMs - static_cast<int>(waited);
        }
        struct pollfd fds[3];
        fds[0].fd = mReaderThreadTerminatePipe.GetReadEnd();
        fds[0].events = POLLIN | POLLERR;
        fds[0].revents = 0;
        fds[1].fd = ownsNode ? mHidDevice.GetFileDescriptor() : -1;
        fds[1].events = POLLIN | POLLERR;
        fds[1].revents = 0;
        fds[2].fd = mReaderWakePipe.GetReadEnd();
        fds[2].events = POLLIN;
        fds[2].revents = 0;
        const int rc = poll(fds, 3, ownsNode ? -1 : lingerLeftMs);
        if (rc < 0) {
            // An interrupted wait simply resumes; only a real failure is
            // traced and slowed down.
            if (errno == EINTR)
                continue;
            PXTRACE_ERROR("%s: poll failed (%d)\n", errno);
            PxSleep(cReaderRetryDelayMs);
            continue;
        }
        // Termination has priority over data.
        if (fds[0].revents & POLLIN)
            break;
        if (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            PXTRACE_ERROR("%s: fds[0] (pipe) POLLERR event\n");
            PxSleep(cReaderRetryDelayMs);
            continue;
        }
        if (fds[2].revents != 0) {
            // A command took the node or gave it back: look again.
            mReaderWakePipe.ReadDummy();
            continue;
        }
        if (!ownsNode)
            continue; // the check at the top of the loop takes the node back
        // POLLHUP and POLLNVAL are reported whether asked for or not; treated
        // like POLLERR they keep an unplugged device from spinning this loop.
        if (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) {
            PXTRACE_ERROR("%s: fds[1] (device) POLLERR event\n");
            // No answer comes any more. A command a closing device still
            // waits for (in a pin callback Close has to wait for) is let go.
            if (mCloseRequested.load() && !mAbortWaitingCommand.exchange(true))
                mResponseQueue.SetEvent();
            PxSleep(cReaderRetryDelayMs);
            continue;
        }
        if (fds[1].revents & POLLIN) {
            mNodeMutex.Lock();
            // A command may have taken the node since poll() returned; the
            // report is then its to read.
            if (mCommandOwnsNode.load()) {
                mNodeMutex.Unlock();
                continue;
            }
            const TSTATUS st = mHidDevice.ReadReport(mReadReport);
            if (st != TSTATUS_SUCCESS) {
                mNodeMutex.Unlock();
                PXTRACE_ERROR("%s: ReadReport failed, err = 0x%08X\n", static_cast<unsigned int>(st));
                PxSleep(cReaderRetryDelayMs);
                continue;
            }
            ProcessReceivedReport(mReadReport);
            mNodeMutex.Unlock();
        }
    }
    mReaderThreadTerminatePipe.ReadDummy();
    PXTRACE_INFO("%s: terminate reader thread\n");
    return nullptr;
}

void KarvexDevice::ProcessReceivedReport(KarvexReportBuffer& report)
{
    const unsigned int transferred = report.BytesTransferred();
    const unsigned int messageBytes = transferred > 0 ? transferred - 1 : 0;
    if (messageBytes < sizeof(THID_MsgHeader)) {
        PXTRACE_ERROR("%s:  bytes transferred %u too small, min. %u\n", messageBytes,
                      static_cast<unsigned int>(sizeof(THID_MsgHeader)));
        return;
    }
    const unsigned int messageLength = report.MessageLength();
    if (messageBytes < messageLength) {
        PXTRACE_ERROR("%s: unexpected bytes transferred %u, exp. min. %u\n", messageBytes, messageLength);
        return;
    }
    if (report.MessageCode() != THID_EVT_PIN_STATE_CHANGED) {
        PXTRACE_INFO("%s: Response received\n");
        // A full queue loses this answer: the waiting command times out, or a
        // later stale answer is skipped by its unique ID. An answer a command
        // read itself stays in its buffer.
        if (&report == &mReadReport)
            mResponseQueue.Put(report.Buffer(), report.BufferSize());
        return;
    }
    PXTRACE_INFO("%s: Pin event received\n");
    bool queued = false;
    bool overrun = false;
    {
        // The flag test and the store are one step for StopPinEventThread,
        // which frees the queue once it has cleared the flag.
        PxMutexLock gate(mEventQueueGate);
        if (mPinEventThreadIsRunning.load()) {
            queued = true;
            overrun = !mEventQueue.PutForceOverwrite(report.Buffer(), report.BufferSize());
        }
    }
    if (overrun)
        PXTRACE_ERROR("%s: Event Queue overrun occurred\n");
    if (!queued)
        PXTRACE_WARN("%s: Ignore pin event, no callback registered\n");
}

// ---------------------------------------------------------------------------
// Common steps of every command; the trace lines carry the signature of the
// operation that runs the command.

bool KarvexDevice::ReadyForCommand(const char* signature)
{
    if (!IsOpen()) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: not opened\n", signature);
        return false;
    }
    TB_ASSERT(mCommandReport.ReportDataSize() >= THID_MAX_MESSAGE_SIZE);
    TB_ASSERT(mResponseReport.ReportDataSize() >= THID_MAX_MESSAGE_SIZE);
    return true;
}

TSTATUS KarvexDevice::Exchange(const char* signature, unsigned int waitTimeout, T_UINT8 expectedCode,
                               T_UINT16 expectedLength, unsigned int statusTraceMask)
{
    const TSTATUS st = ExecuteCommand(mCommandReport, mResponseReport, waitTimeout);
    if (st != TSTATUS_SUCCESS) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: ExecuteCommand failed, err = 0x%08X\n", signature, static_cast<unsigned int>(st));
        return st;
    }
    return CheckResponse(signature, expectedCode, expectedLength, statusTraceMask);
}

bool KarvexDevice::PinIdEchoed(const char* signature, unsigned int pinId)
{
    // THID_PinMode and THID_PinState both start with the pin id.
    const unsigned int echoed = mResponseReport.Payload<THID_PinState>()->pinId.Get();
    if (echoed == pinId)
        return true;
    if (PxTraceEnabled(KARVEX_TRACE_ERROR))
        tprint("%s: Pin ID mismatch, got %u, exp. %u\n", signature, echoed, pinId);
    return false;
}

// ---------------------------------------------------------------------------
// Pin operations

TSTATUS KarvexDevice::SetPinMode(unsigned int pinId, KARVEX_GPIOMode mode)
{
    if (!ReadyForCommand(__PRETTY_FUNCTION__))
        return TSTATUS_NOT_OPENED;
    // The unique ID is drawn before the mode is checked: a refused mode uses
    // one up, and the adapter then sees the IDs skip a value.
    BuildCommand(THID_CMD_SET_PIN_MODE, THID_MSG_LEN_PIN);
    THID_PinMode* payload = mCommandReport.Payload<THID_PinMode>();
    payload->pinId.Set(pinId);
    if (mode < GPIOMode_Input || mode > GPIOMode_Output_High) {
        PXTRACE_ERROR("%s: unsupported pin mode %d\n", static_cast<int>(mode));
        return TSTATUS_INVALID_PARAMETER;
    }
    payload->pinMode = static_cast<T_UINT8>(mode);
    return Exchange(__PRETTY_FUNCTION__, mCommandTimeout, THID_RSP_ACK, THID_MSG_LEN_HEADER_ONLY, KARVEX_TRACE_ERROR);
}

TSTATUS KarvexDevice::SetPinState(unsigned int pinId, KARVEX_GPIOState state)
{
    if (!ReadyForCommand(__PRETTY_FUNCTION__))
        return TSTATUS_NOT_OPENED;
    BuildCommand(THID_CMD_SET_PIN_STATE, THID_MSG_LEN_PIN);
    THID_PinState* payload = mCommandReport.Payload<THID_PinState>();
    payload->pinId.Set(pinId);
    if (state < GPIOState_Low || state > GPIOState_High) {
        PXTRACE_ERROR("%s: unsupported pin state %d\n", static_cast<int>(state));
        return TSTATUS_INVALID_PARAMETER;
    }
    payload->pinState = static_cast<T_UINT8>(state);
    return Exchange(__PRETTY_FUNCTION__, mCommandTimeout, THID_RSP_ACK, THID_MSG_LEN_HEADER_ONLY, KARVEX_TRACE_ERROR);
}

TSTATUS KarvexDevice::GetPinState(unsigned int pinId, KARVEX_GPIOState& state)
{
    if (!ReadyForCommand(__PRETTY_FUNCTION__))
        return TSTATUS_NOT_OPENED;
    state = GPIOState_Low;
    BuildCommand(THID_CMD_GET_PIN_STATE, THID_MSG_LEN_PIN);
    mCommandReport.Payload<THID_PinState>()->pinId.Set(pinId);
    TSTATUS st =
        Exchange(__PRETTY_FUNCTION__, mCommandTimeout, THID_RSP_GET_PIN_STATE, THID_MSG_LEN_PIN, KARVEX_TRACE_ERROR);
    if (st != TSTATUS_SUCCESS)
        return st;
    if (!PinIdEchoed(__PRETTY_FUNCTION__, pinId))
        return TSTATUS_PIN_ID_MISMATCH;
    const T_UINT8 value = mResponseReport.Payload<THID_PinState>()->pinState;
    if (value > GPIOState_High) {
        PXTRACE_ERROR("%s: received unsupported pin state %u\n", static_cast<unsigned int>(value));
        return TSTATUS_UNSUPPORTED_PIN_STATE;
    }
    state = static_cast<KARVEX_GPIOState>(value);
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::GetPinMode(unsigned int pinId, KARVEX_GPIOMode& mode)
{
    if (!ReadyForCommand(__PRETTY_FUNCTION__))
        return TSTATUS_NOT_OPENED;
    mode = GPIOMode_Input;
    BuildCommand(THID_CMD_GET_PIN_MODE, THID_MSG_LEN_PIN);
    mCommandReport.Payload<THID_PinMode>()->pinId.Set(pinId);
    TSTATUS st =
        Exchange(__PRETTY_FUNCTION__, mCommandTimeout, THID_RSP_GET_PIN_MODE, THID_MSG_LEN_PIN, KARVEX_TRACE_ERROR);
    if (st != TSTATUS_SUCCESS)
        return st;
    if (!PinIdEchoed(__PRETTY_FUNCTION__, pinId))
        return TSTATUS_PIN_ID_MISMATCH;
    const T_UINT8 value = mResponseReport.Payload<THID_PinMode>()->pinMode;
    if (value > GPIOMode_Output_High) {
        PXTRACE_ERROR("%s: received unsupported pin mode %u\n", static_cast<unsigned int>(value));
        return TSTATUS_UNSUPPORTED_PIN_MODE;
    }
    mode = static_cast<KARVEX_GPIOMode>(value);
    return TSTATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// I2C

TSTATUS KarvexDevice::I2cTransaction(unsigned int i2cBus, unsigned int i2cSpeed, unsigned int i2cSlaveAddress,
                                     const unsigned char* writeData, unsigned int bytesToWrite,
                                     unsigned char* readBuffer, unsigned int bytesToRead, unsigned int timeoutInterval)
{
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not opened\n");
        return TSTATUS_NOT_OPENED;
    }
    if (i2cBus > 255) {
        PXTRACE_ERROR("%s: i2cBus too large\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (i2cSlaveAddress > 255) {
        PXTRACE_ERROR("%s: i2cSlaveAddress too large\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (timeoutInterval == 0) {
        PXTRACE_ERROR("%s: timeoutInterval is 0\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (timeoutInterval > mI2cMaxTimeout) {
        PXTRACE_ERROR("%s: timeoutInterval too large\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (bytesToWrite > 0 && writeData == nullptr) {
        PXTRACE_ERROR("%s: writeData is NULL\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (bytesToWrite > THID_I2C_MAX_DATA) {
        PXTRACE_ERROR("%s: bytesToWrite  %u exceeds max. %u\n", bytesToWrite, THID_I2C_MAX_DATA);
        return TSTATUS_INVALID_PARAMETER;
    }
    if (bytesToRead > 0 && readBuffer == nullptr) {
        PXTRACE_ERROR("%s: readBuffer is NULL\n");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (bytesToRead > THID_I2C_MAX_DATA) {
        PXTRACE_ERROR("%s: bytesToRead  %u exceeds max. %u\n", bytesToRead, THID_I2C_MAX_DATA);
        return TSTATUS_INVALID_PARAMETER;
    }
    TB_ASSERT(mCommandReport.ReportDataSize() >= THID_MAX_MESSAGE_SIZE);
    TB_ASSERT(mResponseReport.ReportDataSize() >= THID_MAX_MESSAGE_SIZE);

    BuildCommand(THID_CMD_I2C_TRANSACTION, THID_MSG_LEN_I2C);
    THID_I2cTransaction* payload = mCommandReport.Payload<THID_I2cTransaction>();
    payload->i2cBus = static_cast<T_UINT8>(i2cBus);
    payload->i2cSlaveAddress = static_cast<T_UINT8>(i2cSlaveAddress);
    payload->i2cSpeed.Set(i2cSpeed);
    payload->timeoutInterval.Set(timeoutInterval);
    payload->bytesToWrite.Set(static_cast<T_UINT16>(bytesToWrite));
    payload->bytesToRead.Set(static_cast<T_UINT16>(bytesToRead));
    if (bytesToWrite > 0)
        std::memcpy(payload->data, writeData, bytesToWrite);

    // The adapter enforces timeoutInterval on the bus; the host allows twice
    // that for the round trip, but never less than mI2cMinTimeout.
    unsigned int hostTimeout = 2 * timeoutInterval;
    if (hostTimeout < mI2cMinTimeout)
        hostTimeout = mI2cMinTimeout;
    // A failing transfer (say, a slave that does not acknowledge) is an
    // ordinary outcome on a bus, so its status is not traced as an error.
    const TSTATUS st =
        Exchange(__PRETTY_FUNCTION__, hostTimeout, THID_RSP_I2C_TRANSACTION, THID_MSG_LEN_I2C, KARVEX_TRACE_INFO);
    if (st != TSTATUS_SUCCESS)
        return st;
    if (bytesToRead > 0)
        std::memcpy(readBuffer, mResponseReport.Payload<THID_I2cTransaction>()->data, bytesToRead);
    return TSTATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Pin events

KarvexDevice* KarvexDevice::CurrentPinEventDevice()
{
    return tPinEventDevice;
}

bool KarvexDevice::IsPinEventThread()
{
    const unsigned long id = mPinEventThreadId.load();
    return id != 0 && pthread_equal(static_cast<pthread_t>(id), pthread_self());
}

TSTATUS KarvexDevice::RegisterPinEventCallback(KARVEXCB_InputPinEvent* callback, void* callbackContext)
{
    if (IsPinEventThread()) {
        // Stopping the pin event thread from inside its own callback would join itself.
        PXTRACE_ERROR("%s: not allowed from inside the pin event callback\n");
        return TSTATUS_NOT_ALLOWED;
    }
    PxMutexLock control(mPinEventControlMutex);
    // Stopped before the device mutex is taken: a callback still running may
    // be waiting for it. Events not yet delivered are dropped with the queue.
    StopPinEventThread();

    PxMutexLock lock(mMutex);
    if (!IsOpen()) {
        PXTRACE_ERROR("%s: not opened\n");
        return TSTATUS_NOT_OPENED;
    }
    mPinEventCallback = callback;
    mPinEventCallbackContext = callbackContext;
    if (callback == nullptr)
        return TSTATUS_SUCCESS;
    TSTATUS st = StartPinEventThread();
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: StartPinEventThread failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        return st;
    }
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexDevice::StartPinEventThread()
{
    const unsigned int inputLength = mHidDevice.InputReportByteLength();
    mEventReport.FreeBuffer();
    if (!mEventReport.AllocateBuffer(inputLength)) {
        PXTRACE_ERROR("%s: allocate mEventReport failed\n");
        return TSTATUS_NO_MEMORY;
    }
    TSTATUS st = mEventQueue.Allocate(inputLength, mMaxEventCount);
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: mEventQueue.Allocate failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        FreePinEventResources();
        return st;
    }
    // The previous stop set the event to wake its thread; left set, the new
    // thread would find it set with nothing queued and spin.
    mEventQueue.Clear();
    // Raised before the thread starts so that its first test of the flag
    // does not mistake a fresh start for a stop.
    mPinEventThreadIsRunning = true;
    const int rc = mPinEventThread.Create(&mPinEventThreadForwarder, nullptr);
    if (rc != 0) {
        mPinEventThreadIsRunning = false;
        const int err = rc < 0 ? -rc : rc;
        PXTRACE_ERROR("%s: mPinEventThread.Create failed (%d)\n", err);
        FreePinEventResources();
        return TStatusFromErrno(err);
    }
    return TSTATUS_SUCCESS;
}

void KarvexDevice::StopPinEventThread()
{
    if (!mPinEventThreadIsRunning.load())
        return;
    {
        // Once the flag is clear under the gate, the reader thread stores no
        // more events, and the queue can be freed below.
        PxMutexLock gate(mEventQueueGate);
        mPinEventThreadIsRunning = false;
    }
    mEventQueue.SetEvent();
    mPinEventThread.Join(nullptr, -1);
    mPinEventThreadId = 0;
    FreePinEventResources();
}

void KarvexDevice::FreePinEventResources()
{
    TB_ASSERT(!mPinEventThreadIsRunning);
    mEventReport.FreeBuffer();
    mEventQueue.Free();
}

void* KarvexDevice::PinEventThreadRoutine()
{
    tPinEventDevice = this;
    mPinEventThreadId = static_cast<unsigned long>(pthread_self());
    for (;;) {
        // The Get below resets the event when it empties the queue, and so
        // may swallow the wake-up of a stop that came just before it: a
        // stopped thread must not wait again, or its join never returns.
        if (mPinEventThreadIsRunning.load())
            mEventQueue.Wait();
        // Tested before anything is taken: events still queued at stop time
        // are not delivered.
        if (!mPinEventThreadIsRunning.load()) {
            PXTRACE_INFO("%s: terminate pin event thread\n");
            return nullptr;
        }
        if (!mEventQueue.Get(mEventReport.Buffer(), mEventReport.BufferSize()))
            continue;
        TB_ASSERT(mEventReport.MessageCode() == THID_EVT_PIN_STATE_CHANGED);
        if (mEventReport.MessageLength() != THID_MSG_LEN_PIN) {
            PXTRACE_ERROR("%s: Ignore pin event with invalid length %u, exp. %u\n",
                          static_cast<unsigned int>(mEventReport.MessageLength()), THID_MSG_LEN_PIN);
            continue;
        }
        if (mPinEventCallback == nullptr)
            continue;
        const THID_PinState* event = mEventReport.Payload<THID_PinState>();
        KARVEX_GPIOState state;
        if (event->pinState == 0) {
            state = GPIOState_Low;
        } else if (event->pinState == 1) {
            state = GPIOState_High;
        } else {
            PXTRACE_ERROR("%s: ignore pin event with unknown pin state %u\n", static_cast<unsigned int>(event->pinState));
            continue;
        }
        try {
            mPinEventCallback(mPinEventCallbackContext, event->pinId.Get(), state);
        } catch (...) {
            PXTRACE_ERROR("%s: FATAL: Uncaught exception in pin event callback\n");
        }
    }
}
