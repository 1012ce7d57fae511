#include "karvex_api_linux/KarvexApiLx.h"

#include <sys/stat.h>

#include <new>
#include <vector>

#include "libposix/PxTrace.h"
#include "libtb/TbOSEnv.h"
#include "libtb/TbStringUtils.h"

KarvexApi::KarvexApi()
    : mApiMutex(true), mDeviceChangeCallback(nullptr), mDeviceChangeCallbackContext(nullptr)
{
    mPnpNotificatorCallback.Init(this, &KarvexApi::OnDeviceChangeCallback);
    // The supported adapters, in lookup order.
    mVidPidList.AddVidPid(KARVEX_USB_VENDOR_ID, KARVEX_USB_PRODUCT_ID_1);
    mVidPidList.AddVidPid(KARVEX_USB_VENDOR_ID, KARVEX_USB_PRODUCT_ID_2);
    mVidPidList.AddVidPid(KARVEX_USB_VENDOR_ID, KARVEX_USB_PRODUCT_ID_3);
    TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING);
}

KarvexApi::~KarvexApi()
{
    // Normally Shutdown has run already (see karvex_api_lx.cpp); then this
    // finds nothing left to do.
    Shutdown();
}

bool KarvexApi::Shutdown()
{
    // The line keeps the destructor's name: it is what applications see.
    static const char* const cSignature = "KarvexApi::~KarvexApi()";
    KarvexDevice* const ownPinDevice = KarvexDevice::CurrentPinEventDevice();
    const bool onHotPlugThread = mPnpNotificator.IsNotificationThread();
    // No call into the application from the hot-plug thread after this.
    mDeviceChangeCallback = nullptr;
    // The hot-plug thread is joined only from an application thread: on a pin
    // event thread it may be the one waiting for us (closing our device).
    if (ownPinDevice == nullptr && !onHotPlugThread)
        mPnpNotificator.Stop();

    // Take the devices out of the table under the lock, so that a callback
    // still calling in finds no handle; close them without it. The device
    // whose pin event thread this is cannot be stopped from here and stays.
    std::vector<KarvexDevice*> devices;
    {
        PxMutexLock api(mApiMutex);
        if (!mDeviceContainer.IsEmpty() && PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: FATAL: The application has leaked device handles\n", cSignature);
        bool keptOwn = false;
        for (;;) {
            KarvexDevice* device = mDeviceContainer.RemoveFirstObject();
            if (device == nullptr)
                break;
            if (device == ownPinDevice) {
                keptOwn = true;
                continue;
            }
            // Out of memory here, the device is closed and destroyed at once.
            try {
                devices.push_back(device);
            } catch (const std::bad_alloc&) {
                mApiMutex.Unlock();
                DestroyDevice(device);
                mApiMutex.Lock();
            }
        }
        if (keptOwn) {
            // Back into the table: reachable, never destroyed.
            try {
                mDeviceContainer.AddObject(ownPinDevice);
            } catch (const std::bad_alloc&) {
            }
        }
    }
    for (KarvexDevice* device : devices)
        DestroyDevice(device);
    // On a callback thread the caller's own frames, and maybe a hot-plug
    // thread inside the application's callback, still refer to this object.
    return ownPinDevice == nullptr && !onHotPlugThread;
}

// ---------------------------------------------------------------------------
// Helpers

template <typename TOperation>
TSTATUS KarvexApi::RunInUse(KARVEXDeviceHandle deviceHandle, const char* signature, TOperation operation)
{
    KarvexDevice* device = AcquireDevice(deviceHandle, signature);
    if (device == nullptr)
        return TSTATUS_INVALID_HANDLE;
    const TSTATUS st = operation(*device);
    ReleaseUse(device);
    return st;
}

template <typename TOperation>
TSTATUS KarvexApi::RunLocked(KARVEXDeviceHandle deviceHandle, const char* signature, TOperation operation)
{
    KarvexDevice* device = AcquireDevice(deviceHandle, signature);
    if (device == nullptr)
        return TSTATUS_INVALID_HANDLE;
    // Another call may hold the device for a long transaction: wait for it
    // without mApiMutex, so that the API and other adapters stay free. The use
    // mark keeps CloseDevice from destroying the device until we are done.
    device->mMutex.Lock();
    const TSTATUS st = operation(*device);
    device->mMutex.Unlock();
    ReleaseUse(device);
    return st;
}

KarvexDevice* KarvexApi::AcquireDevice(KARVEXDeviceHandle deviceHandle, const char* signature)
{
    PxMutexLock api(mApiMutex);
    KarvexDevice* device = mDeviceContainer.LookupObjectByHandle(deviceHandle);
    if (device == nullptr) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: invalid deviceHandle 0x%08X\n", signature, deviceHandle);
        return nullptr;
    }
    AcquireUse(device);
    return device;
}

void KarvexApi::AcquireUse(KarvexDevice* device)
{
    std::lock_guard<std::mutex> lock(mUseMutex);
    // Every device in the handle table has its record (AddDevice).
    auto it = mDevices.find(device);
    if (it != mDevices.end())
        ++it->second.uses;
}

void KarvexApi::ReleaseUse(KarvexDevice* device)
{
    std::lock_guard<std::mutex> lock(mUseMutex);
    auto it = mDevices.find(device);
    if (it != mDevices.end() && --it->second.uses == 0)
        mUseCondition.notify_all();
}

void KarvexApi::WaitUntilUnused(KarvexDevice* device)
{
    std::unique_lock<std::mutex> lock(mUseMutex);
    mUseCondition.wait(lock, [&] {
        auto it = mDevices.find(device);
        return it == mDevices.end() || it->second.uses == 0;
    });
    // The handle is gone from the table, so no call can mark the device again.
    mDevices.erase(device);
}

KARVEXDeviceHandle KarvexApi::AddDevice(KarvexDevice* device)
{
    {
        std::lock_guard<std::mutex> lock(mUseMutex);
        mDevices.emplace(device, DeviceRecord{0, device->DeviceNumber()});
    }
    KARVEXDeviceHandle handle = 0;
    try {
        handle = mDeviceContainer.AddObject(device);
    } catch (...) {
        std::lock_guard<std::mutex> lock(mUseMutex);
        mDevices.erase(device);
        throw;
    }
    if (handle == 0) {
        std::lock_guard<std::mutex> lock(mUseMutex);
        mDevices.erase(device);
    }
    return handle;
}

bool KarvexApi::IsNodeInUse(dev_t node)
{
    if (node == 0)
        return false;
    std::lock_guard<std::mutex> lock(mUseMutex);
    for (const auto& entry : mDevices) {
        if (entry.second.node == node)
            return true;
    }
    return false;
}

void KarvexApi::DestroyDevice(KarvexDevice* device)
{
    // Close first: it releases a command waiting for an answer (and with it
    // the calls queued behind it, which then find the device closed). Calls
    // that found the device before the handle went still hold their use
    // mark; the device is destroyed once they are all out.
    device->Close();
    WaitUntilUnused(device);
    delete device;
}

// ---------------------------------------------------------------------------
// Hot-plug

TSTATUS KarvexApi::RegisterDeviceChangeCallback(KARVEXCB_DeviceChangeEvent* callback, void* callbackContext)
{
    if (mPnpNotificator.IsNotificationThread()) {
        // Stopping the notificator from its own callback would join itself.
        PXTRACE_ERROR("%s: not allowed from inside the device change callback\n");
        return TSTATUS_NOT_ALLOWED;
    }
    if (KarvexDevice::CurrentPinEventDevice() != nullptr) {
        // The hot-plug thread may be closing this very device, and so be
        // waiting for the pin event thread we would wait on.
        PXTRACE_ERROR("%s: not allowed from inside a pin event callback\n");
        return TSTATUS_NOT_ALLOWED;
    }
    std::lock_guard<std::mutex> registration(mRegistrationMutex);
    // Stopped before mApiMutex is taken: the callback may be waiting for it.
    mPnpNotificator.Stop();

    PxMutexLock api(mApiMutex);
    mDeviceChangeCallback = callback;
    mDeviceChangeCallbackContext = callbackContext;
    if (callback != nullptr) {
        TSTATUS st = mPnpNotificator.StartForHidRawDevices(&mPnpNotificatorCallback, &mVidPidList, true);
        if (st != TSTATUS_SUCCESS) {
            PXTRACE_ERROR("%s: mPnpNotificator.StartForHidRawDevices failed, err = 0x%08X\n",
                          static_cast<unsigned int>(st));
            return st;
        }
    }
    return TSTATUS_SUCCESS;
}

void KarvexApi::OnDeviceChangeCallback(LxPnPNotificatorAction action, const char* syspath)
{
    KARVEXDeviceEvent event;
    switch (action) {
    case Action_add:
    case Action_online:
        PXTRACE_INFO("%s: device attached\n");
        event = KARVEXEvent_DeviceAttached;
        break;
    case Action_remove:
    case Action_offline:
        PXTRACE_INFO("%s: device removed\n");
        event = KARVEXEvent_DeviceRemoved;
        break;
    default:
        PXTRACE_WARN("%s: ignore unknown action %d for device '%.1024s'\n", static_cast<int>(action),
                     syspath != nullptr ? syspath : "(null)");
        return;
    }
    // Written only while the notificator is stopped (or cleared at exit).
    KARVEXCB_DeviceChangeEvent* callback = mDeviceChangeCallback.load();
    if (callback == nullptr)
        return;
    try {
        callback(mDeviceChangeCallbackContext, event);
    } catch (...) {
        PXTRACE_ERROR("%s: FATAL: Uncaught exception in device change callback\n");
    }
}

// ---------------------------------------------------------------------------
// Enumeration, open, close

TSTATUS KarvexApi::EnumerateDevices(unsigned int* deviceCount)
{
    PxMutexLock api(mApiMutex);
    if (deviceCount == nullptr) {
        PXTRACE_ERROR("%s: %s is NULL\n", "deviceCount");
        return TSTATUS_INVALID_PARAMETER;
    }
    *deviceCount = 0;
    TSTATUS st = mEnumerator.EnumerateHidRawDevices(&mVidPidList);
    if (st != TSTATUS_SUCCESS) {
        PXTRACE_ERROR("%s: EnumerateHidRawDevices failed, err = 0x%08X\n", static_cast<unsigned int>(st));
        return st;
    }
    PXTRACE_INFO("%s: Found %u device(s)\n", mEnumerator.DeviceCount());
    *deviceCount = mEnumerator.DeviceCount();
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexApi::GetDeviceInstanceId(unsigned int deviceIndex, T_UNICHAR* instanceIdString,
                                       unsigned int stringBufferSize)
{
    PxMutexLock api(mApiMutex);
    if (instanceIdString == nullptr) {
        PXTRACE_ERROR("%s: %s is NULL\n", "instanceIdString");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (stringBufferSize < 2) {
        PXTRACE_ERROR("%s: stringBufferSize=%u too small\n", stringBufferSize);
        return TSTATUS_BUFFER_TOO_SMALL;
    }
    instanceIdString[0] = '\0';
    const char* path = mEnumerator.DevicePath(deviceIndex);
    if (path == nullptr) {
        PXTRACE_ERROR("%s: invalid index %u\n", deviceIndex);
        return TSTATUS_INVALID_INDEX;
    }
    const unsigned int needed = TbStringLen(path) + 1;
    if (needed > stringBufferSize) {
        PXTRACE_ERROR("%s: Buffer too small, got %u bytes, min. %u bytes\n", stringBufferSize, needed);
        return TSTATUS_BUFFER_TOO_SMALL;
    }
    TbStringNCopy(instanceIdString, path, stringBufferSize);
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexApi::OpenDevice(const T_UNICHAR* instanceIdString, KARVEXDeviceHandle* deviceHandle)
{
    PxMutexLock api(mApiMutex);
    if (instanceIdString == nullptr) {
        PXTRACE_ERROR("%s: %s is NULL\n", "instanceIdString");
        return TSTATUS_INVALID_PARAMETER;
    }
    if (deviceHandle == nullptr) {
        PXTRACE_ERROR("%s: %s is NULL\n", "deviceHandle");
        return TSTATUS_INVALID_PARAMETER;
    }
    *deviceHandle = 0;
    // No exception leaves here: out of memory is a status like any other.
    try {
        return OpenDeviceLocked(__PRETTY_FUNCTION__, instanceIdString, deviceHandle);
    } catch (const std::bad_alloc&) {
        PXTRACE_ERROR("%s: out of memory\n");
        return TSTATUS_NO_MEMORY;
    }
}

TSTATUS KarvexApi::OpenDeviceLocked(const char* signature, const T_UNICHAR* instanceIdString,
                                    KARVEXDeviceHandle* deviceHandle)
{
    // A private snapshot: the application's indexes into mEnumerator stay valid.
    KarvexDeviceEnumerator enumerator;
    TSTATUS st = enumerator.EnumerateHidRawDevices(&mVidPidList);
    if (st != TSTATUS_SUCCESS) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: EnumerateHidRawDevices failed, err = 0x%08X\n", signature, static_cast<unsigned int>(st));
        return st;
    }
    unsigned int index = 0;
    st = enumerator.FindIndexForDevicePath(instanceIdString, index);
    if (st != TSTATUS_SUCCESS) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: FindIndexForDeviceInstanceId failed, err = 0x%08X\n", signature,
                   static_cast<unsigned int>(st));
        return TSTATUS_OBJECT_NOT_FOUND;
    }
    // The node's device number, not the path string, identifies the adapter:
    // a symlink or another spelling of the path is the same adapter.
    struct stat node;
    const char* path = enumerator.DevicePath(index);
    if (path != nullptr && stat(path, &node) == 0 && IsNodeInUse(node.st_rdev)) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: device '%.1024s' is already open in this process\n", signature, path);
        return TSTATUS_IN_USE;
    }
    // The allocator does not throw: a null result skips the constructor.
    KarvexDevice* device = new (TbMemTypeDontCare) KarvexDevice();
    if (device == nullptr) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: Failed to allocate device object\n", signature);
        return TSTATUS_NO_MEMORY;
    }
    st = device->Open(enumerator, index);
    if (st != TSTATUS_SUCCESS) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: Open failed, err = 0x%08X\n", signature, static_cast<unsigned int>(st));
        delete device;
        return st;
    }
    KARVEXDeviceHandle handle = 0;
    try {
        handle = AddDevice(device);
    } catch (const std::bad_alloc&) {
        // Nothing of it was kept: close it (its reader thread ends) and free it.
        delete device;
        throw;
    }
    if (handle == 0) {
        if (PxTraceEnabled(KARVEX_TRACE_ERROR))
            tprint("%s: AddObject failed, no resources\n", signature);
        delete device;
        return TSTATUS_NO_RESOURCES;
    }
    if (PxTraceEnabled(KARVEX_TRACE_INFO))
        tprint("%s: Successfully opened device '%.1024s', handle=0x%08X\n", signature, instanceIdString, handle);
    *deviceHandle = handle;
    return TSTATUS_SUCCESS;
}

TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle deviceHandle)
{
    KarvexDevice* device;
    {
        PxMutexLock api(mApiMutex);
        device = mDeviceContainer.LookupObjectByHandle(deviceHandle);
        if (device == nullptr) {
            PXTRACE_ERROR("%s: invalid deviceHandle 0x%08X\n", deviceHandle);
            return TSTATUS_INVALID_HANDLE;
        }
        if (device->IsPinEventThread()) {
            // Closing joins the pin event thread, which is the calling thread.
            PXTRACE_ERROR("%s: not allowed from inside the pin event callback of device 0x%08X\n", deviceHandle);
            return TSTATUS_NOT_ALLOWED;
        }
        if (KarvexDevice::CurrentPinEventDevice() != nullptr) {
            // Closing joins this device's pin event thread, whose callback
            // may be closing the caller's device, and so be waiting for us.
            PXTRACE_ERROR("%s: not allowed from inside a pin event callback\n");
            return TSTATUS_NOT_ALLOWED;
        }
        // From here on no call finds the handle.
        mDeviceContainer.RemoveObject(device, deviceHandle);
    }
    DestroyDevice(device);
    PXTRACE_INFO("%s: Device with handle=0x%08X was closed\n", deviceHandle);
    return TSTATUS_SUCCESS;
}

// ---------------------------------------------------------------------------
// Queries: the device takes its own mutex, without mApiMutex held

TSTATUS KarvexApi::CheckDeviceConnection(KARVEXDeviceHandle deviceHandle)
{
    return RunInUse(deviceHandle, __PRETTY_FUNCTION__, [&](KarvexDevice& device) { return device.CheckDeviceConnection(); });
}

TSTATUS KarvexApi::GetDeviceUsbInfo(KARVEXDeviceHandle deviceHandle, unsigned int* usbVendorId,
                                    unsigned int* usbProductId, unsigned int* bcdDevice)
{
    return RunInUse(deviceHandle, __PRETTY_FUNCTION__, [&](KarvexDevice& device) { return device.GetDeviceUsbInfo(usbVendorId, usbProductId, bcdDevice); });
}

TSTATUS KarvexApi::GetDeviceSerialNumber(KARVEXDeviceHandle deviceHandle, T_UNICHAR* serialNumber,
                                         unsigned int stringBufferSize)
{
    return RunInUse(deviceHandle, __PRETTY_FUNCTION__, [&](KarvexDevice& device) { return device.GetDeviceSerialNumber(serialNumber, stringBufferSize); });
}

TSTATUS KarvexApi::RegisterPinEventCallback(KARVEXDeviceHandle deviceHandle, KARVEXCB_InputPinEvent* callback,
                                            void* callbackContext)
{
    // Without any lock: re-registration joins the pin event thread, whose
    // callback may be waiting for one.
    const char* signature = __PRETTY_FUNCTION__;
    return RunInUse(deviceHandle, signature, [&](KarvexDevice& device) {
        KarvexDevice* current = KarvexDevice::CurrentPinEventDevice();
        if (current != nullptr && current != &device) {
            // Another device's pin event thread would be joined, and its
            // callback may be waiting for ours. (The device itself refuses a
            // call from its own callback.)
            if (PxTraceEnabled(KARVEX_TRACE_ERROR))
                tprint("%s: not allowed from inside a pin event callback\n", signature);
            return TSTATUS_NOT_ALLOWED;
        }
        return device.RegisterPinEventCallback(callback, callbackContext);
    });
}

// ---------------------------------------------------------------------------
// Transactions, hand over hand

TSTATUS KarvexApi::SetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode mode)
{
    return RunLocked(deviceHandle, __PRETTY_FUNCTION__,
                     [&](KarvexDevice& device) { return device.SetPinMode(pinId, mode); });
}

TSTATUS KarvexApi::SetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState state)
{
    return RunLocked(deviceHandle, __PRETTY_FUNCTION__,
                     [&](KarvexDevice& device) { return device.SetPinState(pinId, state); });
}

TSTATUS KarvexApi::GetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState* state)
{
    if (state == nullptr) {
        PXTRACE_ERROR("%s: %s is NULL\n", "state");
        return TSTATUS_INVALID_PARAMETER;
    }
    return RunLocked(deviceHandle, __PRETTY_FUNCTION__,
                     [&](KarvexDevice& device) {
                         // Defined from here on, also when the device is found closed.
                         *state = GPIOState_Low;
                         return device.GetPinState(pinId, *state);
                     });
}

TSTATUS KarvexApi::GetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode* mode)
{
    if (mode == nullptr) {
        PXTRACE_ERROR("%s: %s is NULL\n", "mode");
        return TSTATUS_INVALID_PARAMETER;
    }
    return RunLocked(deviceHandle, __PRETTY_FUNCTION__,
                     [&](KarvexDevice& device) {
                         *mode = GPIOMode_Input;
                         return device.GetPinMode(pinId, *mode);
                     });
}

TSTATUS KarvexApi::I2cTransaction(KARVEXDeviceHandle deviceHandle, unsigned int i2cBus, unsigned int i2cSpeed,
                                  unsigned int i2cSlaveAddress, const unsigned char* writeData,
                                  unsigned int bytesToWrite, unsigned char* readBuffer, unsigned int bytesToRead,
                                  unsigned int timeoutInterval)
{
    return RunLocked(deviceHandle, __PRETTY_FUNCTION__,
                     [&](KarvexDevice& device) {
                         return device.I2cTransaction(i2cBus, i2cSpeed, i2cSlaveAddress, writeData, bytesToWrite,
                                                      readBuffer, bytesToRead, timeoutInterval);
                     });
}
