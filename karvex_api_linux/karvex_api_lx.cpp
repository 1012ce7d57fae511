// The exported KARVEX_ functions. Every status-returning function traces its
// entry and exit on the function class and hands its work to the one API
// object; the version functions answer on their own.
#include "karvex/karvex_api.h"

#include <new>

#include "karvex_api_linux/KarvexApiLx.h"
#include "libposix/PxTrace.h"

// ---- Version functions ------------------------------------------------------

extern "C" KARVEX_API unsigned int KARVEX_GetApiVersion(void)
{
    return KARVEX_API_VERSION;
}

extern "C" KARVEX_API int KARVEX_CheckApiVersion(unsigned int majorVersion, unsigned int minorVersion)
{
    PXTRACE_FUNC("%s: --> majorVersion=%u, minorVersion=%u\n", majorVersion, minorVersion);
    // Only the exact version is accepted: a library with another minor
    // version is not promised to behave the same in either direction.
    int compatible = 0;
    if (majorVersion == KARVEX_API_VERSION_MAJOR && minorVersion == KARVEX_API_VERSION_MINOR) {
        compatible = 1;
    } else {
        PXTRACE_ERROR("%s: DLL API version %u.%u is incompatible with requested version %u.%u\n",
                      static_cast<unsigned int>(KARVEX_API_VERSION_MAJOR),
                      static_cast<unsigned int>(KARVEX_API_VERSION_MINOR), majorVersion, minorVersion);
    }
    PXTRACE_FUNC("%s: <-- compatible=%d\n", compatible);
    return compatible;
}

extern "C" KARVEX_API unsigned int KARVEX_GetUniCharSize(void)
{
    return sizeof(T_UNICHAR);
}

// ---------------------------------------------------------------------------
// Device functions. Each traces its entry and exit on the function class and
// hands the call unchanged to the API object, which checks the arguments.

// The API object lives in static storage and is destroyed by an exit
// handler of our own rather than the compiler's: when the process ends on one
// of the library's callback threads (exit() in a callback), threads that
// cannot be stopped from there still use it, and it must stay alive.
namespace {

alignas(KarvexApi) unsigned char gDllApiStorage[sizeof(KarvexApi)];

struct DllApiLifetime {
    DllApiLifetime() { new (gDllApiStorage) KarvexApi(); }
    ~DllApiLifetime()
    {
        KarvexApi* api = std::launder(reinterpret_cast<KarvexApi*>(gDllApiStorage));
        if (api->Shutdown())
            api->~KarvexApi();
    }
};

// Constructed (and its destructor registered for exit) at library load.
DllApiLifetime gDllApiLifetime;

} // namespace

KarvexApi& gDllApi = *std::launder(reinterpret_cast<KarvexApi*>(gDllApiStorage));

namespace {

inline TSTATUS TraceExit(const char* signature, TSTATUS st)
{
    if (PxTraceEnabled(KARVEX_TRACE_FUNCTION))
        tprint("%s: <-- err=0x%08X %s\n", signature, static_cast<unsigned int>(st), TStatusStringA(st));
    return st;
}

} // namespace

extern "C" {

KARVEX_API TSTATUS KARVEX_RegisterDeviceChangeCallback(KARVEXCB_DeviceChangeEvent* callback, void* callbackContext)
{
    PXTRACE_FUNC("%s: --> callback=%p, callbackContext=%p\n", reinterpret_cast<void*>(callback), callbackContext);
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.RegisterDeviceChangeCallback(callback, callbackContext));
}

KARVEX_API TSTATUS KARVEX_EnumerateDevices(unsigned int* deviceCount)
{
    PXTRACE_FUNC("%s: -->\n");
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.EnumerateDevices(deviceCount));
}

KARVEX_API TSTATUS KARVEX_GetDeviceInstanceId(unsigned int deviceIndex, T_UNICHAR* instanceIdString,
                                              unsigned int stringBufferSize)
{
    PXTRACE_FUNC("%s: -->\n");
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.GetDeviceInstanceId(deviceIndex, instanceIdString, stringBufferSize));
}

KARVEX_API TSTATUS KARVEX_OpenDevice(const T_UNICHAR* instanceIdString, KARVEXDeviceHandle* deviceHandle)
{
    // A null string is printed the way the C library prints it: "(null)".
    PXTRACE_FUNC("%s: --> instanceIdString=%.1024s\n", instanceIdString != nullptr ? instanceIdString : "(null)");
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.OpenDevice(instanceIdString, deviceHandle));
}

KARVEX_API TSTATUS KARVEX_CloseDevice(KARVEXDeviceHandle deviceHandle)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X\n", deviceHandle);
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.CloseDevice(deviceHandle));
}

KARVEX_API TSTATUS KARVEX_CheckDeviceConnection(KARVEXDeviceHandle deviceHandle)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X\n", deviceHandle);
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.CheckDeviceConnection(deviceHandle));
}

KARVEX_API TSTATUS KARVEX_GetDeviceUsbInfo(KARVEXDeviceHandle deviceHandle, unsigned int* usbVendorId,
                                           unsigned int* usbProductId, unsigned int* bcdDevice)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, usbVendorId=%p, usbProductId=%p, bcdDevice=%p\n", deviceHandle,
                 static_cast<void*>(usbVendorId), static_cast<void*>(usbProductId), static_cast<void*>(bcdDevice));
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.GetDeviceUsbInfo(deviceHandle, usbVendorId, usbProductId, bcdDevice));
}

KARVEX_API TSTATUS KARVEX_GetDeviceSerialNumber(KARVEXDeviceHandle deviceHandle, T_UNICHAR* serialNumber,
                                                unsigned int stringBufferSize)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, serialNumber=%p, stringBufferSize=%u\n", deviceHandle,
                 static_cast<void*>(serialNumber), stringBufferSize);
    return TraceExit(__PRETTY_FUNCTION__,
                     gDllApi.GetDeviceSerialNumber(deviceHandle, serialNumber, stringBufferSize));
}

KARVEX_API TSTATUS KARVEX_SetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode mode)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, pinId=%u, mode=%d\n", deviceHandle, pinId, static_cast<int>(mode));
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.SetPinMode(deviceHandle, pinId, mode));
}

KARVEX_API TSTATUS KARVEX_SetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState state)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, pinId=%u, state=%d\n", deviceHandle, pinId, static_cast<int>(state));
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.SetPinState(deviceHandle, pinId, state));
}

KARVEX_API TSTATUS KARVEX_GetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState* state)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, pinId=%u, state=%p\n", deviceHandle, pinId, static_cast<void*>(state));
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.GetPinState(deviceHandle, pinId, state));
}

KARVEX_API TSTATUS KARVEX_GetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode* mode)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, pinId=%u, mode=%p\n", deviceHandle, pinId, static_cast<void*>(mode));
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.GetPinMode(deviceHandle, pinId, mode));
}

KARVEX_API TSTATUS KARVEX_RegisterPinEventCallback(KARVEXDeviceHandle deviceHandle, KARVEXCB_InputPinEvent* callback,
                                                   void* callbackContext)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, callback=%p, callbackContext=%p\n", deviceHandle,
                 reinterpret_cast<void*>(callback), callbackContext);
    return TraceExit(__PRETTY_FUNCTION__, gDllApi.RegisterPinEventCallback(deviceHandle, callback, callbackContext));
}

KARVEX_API TSTATUS KARVEX_I2cTransaction(KARVEXDeviceHandle deviceHandle, unsigned int i2cBus, unsigned int i2cSpeed,
                                         unsigned int i2cSlaveAddress, const unsigned char* writeData,
                                         unsigned int bytesToWrite, unsigned char* readBuffer,
                                         unsigned int bytesToRead, unsigned int timeoutInterval)
{
    PXTRACE_FUNC("%s: --> deviceHandle=0x%08X, i2cBus=%u, i2cSpeed=%u, i2cSlaveAddress=%u, writeData=%p, "
                 "bytesToWrite=%u, readBuffer=%p, bytesToRead=%u, timeoutInterval=%u\n",
                 deviceHandle, i2cBus, i2cSpeed, i2cSlaveAddress,
                 const_cast<void*>(static_cast<const void*>(writeData)), bytesToWrite, static_cast<void*>(readBuffer),
                 bytesToRead, timeoutInterval);
    return TraceExit(__PRETTY_FUNCTION__,
                     gDllApi.I2cTransaction(deviceHandle, i2cBus, i2cSpeed, i2cSlaveAddress, writeData, bytesToWrite,
                                            readBuffer, bytesToRead, timeoutInterval));
}

} // extern "C"
