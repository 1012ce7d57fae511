// The one object behind the exported functions: the supported adapter list,
// the application's snapshot of attached adapters, the open devices and their
// handles, and the hot-plug notificator.
//
// Locking: mApiMutex serialises the calls and guards the handle table. A call
// on one device holds it only to look the device up and mark it in use; the
// device's own mutex serialises its transactions. So a slow transaction
// blocks neither the API nor other adapters, even while further calls for the
// same device queue up behind it. Nothing that waits
// for a callback thread to end (closing a device, re-registering a callback)
// does so while holding mApiMutex or a device mutex: a callback blocked in a
// call into the library could otherwise never finish.
//
// Waits between callback threads. Closing a device or re-registering its pin
// callback joins its pin event thread; re-registering the device change
// callback joins the hot-plug thread. Such a join is allowed only downwards
// in the order application thread > hot-plug thread > pin event thread, so
// no two threads can ever wait for each other: from a pin event callback all
// three calls are refused (TSTATUS_NOT_ALLOWED) whatever device they name;
// from the device change callback only its own re-registration is. A pin
// callback may still make every other call, none of which waits for a
// callback thread.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>

#include "karvex/karvex_api.h"
#include "karvex_api_linux/KarvexDeviceContainerLx.h"
#include "karvex_api_linux/KarvexDeviceEnumeratorLx.h"
#include "karvex_api_linux/KarvexDeviceLx.h"
#include "liblinux/LxHidRawPnPNotificator.h"
#include "liblinux/LxPnPNotificatorCallbackForwarderT.h"
#include "libposix/PxMutex.h"
#include "libtb/TbUsbVidPid.h"

class KarvexApi {
public:
    KarvexApi();
    ~KarvexApi();

    TSTATUS RegisterDeviceChangeCallback(KARVEXCB_DeviceChangeEvent* callback, void* callbackContext);
    TSTATUS EnumerateDevices(unsigned int* deviceCount);
    TSTATUS GetDeviceInstanceId(unsigned int deviceIndex, T_UNICHAR* instanceIdString, unsigned int stringBufferSize);
    TSTATUS OpenDevice(const T_UNICHAR* instanceIdString, KARVEXDeviceHandle* deviceHandle);
    TSTATUS CloseDevice(KARVEXDeviceHandle deviceHandle);
    TSTATUS CheckDeviceConnection(KARVEXDeviceHandle deviceHandle);
    TSTATUS GetDeviceUsbInfo(KARVEXDeviceHandle deviceHandle, unsigned int* usbVendorId, unsigned int* usbProductId,
                             unsigned int* bcdDevice);
    TSTATUS GetDeviceSerialNumber(KARVEXDeviceHandle deviceHandle, T_UNICHAR* serialNumber,
                                  unsigned int stringBufferSize);
    TSTATUS SetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode mode);
    TSTATUS SetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState state);
    TSTATUS GetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState* state);
    TSTATUS GetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode* mode);
    TSTATUS RegisterPinEventCallback(KARVEXDeviceHandle deviceHandle, KARVEXCB_InputPinEvent* callback,
                                     void* callbackContext);
    TSTATUS I2cTransaction(KARVEXDeviceHandle deviceHandle, unsigned int i2cBus, unsigned int i2cSpeed,
                           unsigned int i2cSlaveAddress, const unsigned char* writeData, unsigned int bytesToWrite,
                           unsigned char* readBuffer, unsigned int bytesToRead, unsigned int timeoutInterval);

    // Called by the notificator on its own thread, without any API lock.
    void OnDeviceChangeCallback(LxPnPNotificatorAction action, const char* syspath);

    // The end of the process (or of the library): reports leaked handles,
    // stops the hot-plug thread and closes every device this thread can
    // stop. Returns true when the object may be destroyed now. On a callback
    // thread (the application called exit() in a callback) that thread
    // itself, and whatever may be waiting for it, cannot be stopped: they
    // are left running on live memory, and the object must not be destroyed.
    bool Shutdown();

private:
    KarvexApi(const KarvexApi&) = delete;
    KarvexApi& operator=(const KarvexApi&) = delete;

    // Runs operation(device) with the device's mutex held and mApiMutex not
    // held; TSTATUS_INVALID_HANDLE (traced with the caller's signature) for
    // an unknown handle.
    // Runs operation(device) with no lock held; the device takes its own.
    template <typename TOperation>
    TSTATUS RunInUse(KARVEXDeviceHandle deviceHandle, const char* signature, TOperation operation);
    template <typename TOperation>
    TSTATUS RunLocked(KARVEXDeviceHandle deviceHandle, const char* signature, TOperation operation);
    // Looks the handle up and marks the device in use (see AcquireUse); the
    // caller calls ReleaseUse when done. Null, traced, for an unknown handle.
    KarvexDevice* AcquireDevice(KARVEXDeviceHandle deviceHandle, const char* signature);
    // Marks a device as in use by a call that runs without any lock, so that
    // CloseDevice waits for it before destroying the device. Never allocates:
    // the device's record exists from open to destruction.
    void AcquireUse(KarvexDevice* device);
    void ReleaseUse(KarvexDevice* device);
    // Waits for the calls still using a closed device, then drops its record.
    void WaitUntilUnused(KarvexDevice* device);
    // OpenDevice's work under mApiMutex, traced with its signature; throws
    // std::bad_alloc.
    TSTATUS OpenDeviceLocked(const char* signature, const T_UNICHAR* instanceIdString,
                             KARVEXDeviceHandle* deviceHandle);
    // Adds a freshly opened device to the records and the handle table; 0
    // (nothing kept) when the table is full. Throws std::bad_alloc.
    KARVEXDeviceHandle AddDevice(KarvexDevice* device);
    // True when a device of this process, open or still closing, has the node.
    bool IsNodeInUse(dev_t node);
    // Closes, waits out and destroys a device that has left the handle table.
    void DestroyDevice(KarvexDevice* device);

    PxMutex mApiMutex;
    TbUsbVidPidList mVidPidList;
    KarvexDeviceEnumerator mEnumerator;
    KarvexDeviceContainer mDeviceContainer;
    LxHidRawPnPNotificator mPnpNotificator;
    LxPnPNotificatorCallbackForwarderT<KarvexApi> mPnpNotificatorCallback;
    // Atomic: Shutdown on a pin event thread clears it while the hot-plug
    // thread may be reading it.
    std::atomic<KARVEXCB_DeviceChangeEvent*> mDeviceChangeCallback;
    void* mDeviceChangeCallbackContext;

    // Serialises whole device-change registrations between application
    // threads; never held by the notificator thread.
    std::mutex mRegistrationMutex;
    // Every device from a successful open to its destruction: the calls
    // using it and the device number of its node.
    struct DeviceRecord {
        unsigned int uses;
        dev_t node;
    };
    std::mutex mUseMutex;
    std::condition_variable mUseCondition;
    std::map<KarvexDevice*, DeviceRecord> mDevices;
};

// The process-wide API object, alive from library load to unload (and beyond
// when the process ends on a callback thread, see Shutdown).
extern KarvexApi& gDllApi;
