// One open adapter: its hidraw device, the command and response buffers, the
// reader thread that sorts every input report into responses and pin events,
// and the pin event thread that calls the application's pin callback.
//
// Locking: mMutex guards open, close and the queries; the API object holds it
// around every pin and I2C call. The reader thread never takes it.
//
// Who reads the node: the reader thread, except while commands run. A
// command takes the node over (mCommandOwnsNode) and reads its answer on its
// own thread, sorting any pin event it meets into the event queue, so an
// answer costs no thread hand-off. The reader thread stands aside until no
// command has started for cNodeLingerMs, then takes the node back. Close and
// RegisterPinEventCallback stop the pin event thread before taking it, so a
// pin callback may call into the library while they wait for it.
#pragma once

#include <sys/types.h>

#include <atomic>

#include "karvex/karvex_api.h"
#include "karvex_api_linux/KarvexDeviceEnumeratorLx.h"
#include "karvex_api_linux/KarvexReportBufferLx.h"
#include "karvex_api_linux/KarvexStaticQueueLx.h"
#include "liblinux/LxHidRawDeviceInterface.h"
#include "libposix/PxMutex.h"
#include "libposix/PxPipe.h"
#include "libposix/PxThread.h"
#include "libtb/TbTypes.h"

class KarvexDevice {
public:
    // Largest report hidraw moves in one transfer (HID_MAX_BUFFER_SIZE of the
    // kernel). Longer report lengths only come from a broken descriptor and are
    // refused before anything is allocated for them.
    static constexpr unsigned int cMaxReportLength = 16384;

    KarvexDevice();
    ~KarvexDevice();

    TSTATUS Open(KarvexDeviceEnumerator& enumerator, unsigned int deviceIndex);
    void Close();
    bool IsOpen() const { return mHidDevice.IsOpen(); }

    TSTATUS CheckDeviceConnection();
    TSTATUS GetDeviceUsbInfo(unsigned int* usbVendorId, unsigned int* usbProductId, unsigned int* usbRevisionCode);
    TSTATUS GetDeviceSerialNumber(T_UNICHAR* serialNumber, unsigned int stringBufferSize);

    TSTATUS SetPinMode(unsigned int pinId, KARVEX_GPIOMode mode);
    TSTATUS SetPinState(unsigned int pinId, KARVEX_GPIOState state);
    TSTATUS GetPinState(unsigned int pinId, KARVEX_GPIOState& state);
    TSTATUS GetPinMode(unsigned int pinId, KARVEX_GPIOMode& mode);

    TSTATUS I2cTransaction(unsigned int i2cBus, unsigned int i2cSpeed, unsigned int i2cSlaveAddress,
                           const unsigned char* writeData, unsigned int bytesToWrite, unsigned char* readBuffer,
                           unsigned int bytesToRead, unsigned int timeoutInterval);

    TSTATUS RegisterPinEventCallback(KARVEXCB_InputPinEvent* callback, void* callbackContext);

    // True on the device's own pin event thread (where the application's pin
    // callback runs): stopping that thread from itself is refused.
    bool IsPinEventThread();
    // The device whose pin event thread is the calling thread, or null when
    // the caller is not on any device's pin event thread.
    static KarvexDevice* CurrentPinEventDevice();

    // Device number (st_rdev) of the open hidraw node, 0 while closed.
    dev_t DeviceNumber() const { return mDeviceNumber; }

    // Serialises the device's transactions; taken by the API object around
    // every pin and I2C call.
    PxMutex mMutex;

private:
    KarvexDevice(const KarvexDevice&) = delete;
    KarvexDevice& operator=(const KarvexDevice&) = delete;

    void EnterCritSec() { mMutex.Lock(); }
    void LeaveCritSec() { mMutex.Unlock(); }

    TSTATUS CheckReportLength(const char* direction, unsigned int length);
    // Takes the advisory lock on the opened node; TSTATUS_IN_USE when another
    // open file holds it.
    TSTATUS LockNode(const char* devicePath);
    TSTATUS AllocateResources();
    void FreeResources();

    // IDs run 1..255 and wrap to 1; 0 is never sent.
    T_UINT8 UniqueId()
    {
        mUniqueId = static_cast<T_UINT8>(mUniqueId + 1);
        if (mUniqueId == 0)
            mUniqueId = 1;
        return mUniqueId;
    }
    void BuildCommand(T_UINT8 code, T_UINT16 length);
    // Status, code and length of mResponseReport, traced in the name of the
    // calling operation (function: its __PRETTY_FUNCTION__).
    TSTATUS CheckResponse(const char* function, T_UINT8 expectedCode, T_UINT16 expectedLength,
                          unsigned int statusTraceMask);
    // Not open: traced with the operation's signature, false.
    bool ReadyForCommand(const char* signature);
    // ExecuteCommand on the device's buffers, then the checks of the answer's
    // status, code and length, all traced with the operation's signature.
    TSTATUS Exchange(const char* signature, unsigned int waitTimeout, T_UINT8 expectedCode, T_UINT16 expectedLength,
                     unsigned int statusTraceMask);
    bool PinIdEchoed(const char* signature, unsigned int pinId);
    TSTATUS ExecuteCommand(KarvexReportBuffer& command, KarvexReportBuffer& response, unsigned int waitTimeout);
    // What one look at the node gave a waiting command.
    enum class NodeWait { Report, Nothing, TimedOut, HandedBack };
    // Takes the node from the reader thread (mNodeMutex stays held).
    void TakeNode();
    // Returns the node to the reader thread and releases mNodeMutex.
    void HandBackNode();
    // Waits up to timeoutMs for the node (or Close) and reads one report into
    // report. Anything the reader thread handles better (an error of the
    // node, a failed read) hands the node back.
    NodeWait ReadNode(KarvexReportBuffer& report, unsigned int timeoutMs);
    // A report that passes the checks of ProcessReceivedReport and is no pin event.
    static bool IsAnswer(KarvexReportBuffer& report);
    TSTATUS GetProtocolVersion(T_UINT8& protocolVersionMajor, T_UINT8& protocolVersionMinor);

    TSTATUS StartReaderThread();
    void StopReaderThread();
    // Sorts one report read from the node. Answers read by the reader thread
    // (into mReadReport) go to the response queue; an answer read by a
    // command into its response buffer stays there for that command.
    void ProcessReceivedReport(KarvexReportBuffer& report);
    void* ReadThreadRoutine();
    // The reader thread takes the node back when no command has started
    // since commandsSeen and none is waiting.
    void TakeBackNode(unsigned int& commandsSeen);

    TSTATUS StartPinEventThread();
    void StopPinEventThread();
    void FreePinEventResources();
    void* PinEventThreadRoutine();

    LxHidRawDeviceInterface mHidDevice;
    KarvexReportBuffer mCommandReport;
    KarvexReportBuffer mResponseReport;
    unsigned int mCommandTimeout;
    unsigned int mI2cMinTimeout;
    unsigned int mI2cMaxTimeout;

    PxThread mReaderThread;
    PxThreadCallbackForwarderT<KarvexDevice> mReaderThreadForwarder;
    PxPipe mReaderThreadTerminatePipe;
    // Written by the controlling thread, read by the reader and command threads.
    std::atomic<bool> mReaderThreadIsRunning;
    // Close is waiting for the pin event thread, whose callback may be in a
    // command of this device. While the adapter answers, that command gets
    // its answer; once the reader thread finds the adapter gone, it sets
    // mAbortWaitingCommand and wakes the command, which then gives up at once
    // instead of holding Close until its time-out.
    std::atomic<bool> mCloseRequested;
    std::atomic<bool> mAbortWaitingCommand;
    KarvexReportBuffer mReadReport;
    // Node ownership (see the top of this file). mCommandOwnsNode and
    // mCommandsStarted change only under mNodeMutex, which a command holds for
    // its whole wait and the reader thread for each report it reads.
    PxMutex mNodeMutex;
    std::atomic<bool> mCommandOwnsNode;
    unsigned int mCommandsStarted;
    // A command tells the reader thread to leave (or look again at) the node.
    PxPipe mReaderWakePipe;
    // Close tells a command waiting on the node to give up. Both pipes live
    // from StartReaderThread to FreeResources (under mMutex), so a command,
    // which holds mMutex, never sees them closed.
    PxPipe mCommandWakePipe;
    unsigned int mMaxResponseCount;
    unsigned int mMaxEventCount;
    KarvexStaticQueue mResponseQueue;
    KarvexStaticQueue mEventQueue;

    PxThread mPinEventThread;
    PxThreadCallbackForwarderT<KarvexDevice> mPinEventThreadForwarder;
    std::atomic<bool> mPinEventThreadIsRunning;
    KarvexReportBuffer mEventReport;
    KARVEXCB_InputPinEvent* mPinEventCallback;
    void* mPinEventCallbackContext;
    T_UINT8 mUniqueId;

    // Serialises starting and stopping the pin event thread between
    // RegisterPinEventCallback and Close on different application threads.
    // Never held by the pin event thread, so the callback may call in freely.
    PxMutex mPinEventControlMutex;
    // Held by the reader thread while it tests mPinEventThreadIsRunning and
    // files an event, and by StopPinEventThread while it clears the flag: no
    // event is stored in a queue that is being freed. Taken before the
    // event queue's own mutex; nothing else is taken under it.
    PxMutex mEventQueueGate;
    // Identity of the running pin event thread (for IsPinEventThread).
    std::atomic<unsigned long> mPinEventThreadId;
    dev_t mDeviceNumber;
};
