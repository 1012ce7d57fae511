/*
 * libkarvex - driver library for the Karvex USB GPIO + I2C adapter.
 *
 * The one public header. Plain C99 (usable from C++), no other includes
 * than the standard headers below. Every status-returning function returns a
 * TSTATUS: 0 (TSTATUS_SUCCESS) on success, otherwise one of the codes below,
 * all of which have the top three bits set. TStatusStringA() names any code.
 *
 * Threading: every function may be called from any thread, including from
 * inside the two callbacks (see KARVEX_RegisterDeviceChangeCallback and
 * KARVEX_RegisterPinEventCallback for which thread runs them, and the calls
 * each refuses with TSTATUS_NOT_ALLOWED there). Calls on one adapter are
 * serialised inside the library; calls on different adapters run in parallel.
 *
 * Tracing: the library writes a trace to standard output, filtered by the
 * mask set with TPosixSetTraceMask() (KARVEX_TRACE_* bits, default 0x03).
 */
#ifndef KARVEX_KARVEX_API_H
#define KARVEX_KARVEX_API_H

#include <stdarg.h>

#if defined(KARVEX_BUILDING_LIBRARY)
#define KARVEX_API __attribute__((visibility("default")))
#else
#define KARVEX_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Versions ------------------------------------------------------------ */

/** API version implemented by this header: major in the upper, minor in the lower 16 bits. */
#define KARVEX_API_VERSION_MAJOR 1
#define KARVEX_API_VERSION_MINOR 0
#define KARVEX_MAKE_VERSION(mj, mn) ((((unsigned int)(mj)) << 16) | ((unsigned int)(mn)))
#define KARVEX_API_VERSION KARVEX_MAKE_VERSION(KARVEX_API_VERSION_MAJOR, KARVEX_API_VERSION_MINOR)

/* ---- Supported adapters (USB vendor id, product id), in lookup order ---- */

#define KARVEX_USB_VENDOR_ID    0x1209
#define KARVEX_USB_PRODUCT_ID_1 0x7A01
#define KARVEX_USB_PRODUCT_ID_2 0x7A02
#define KARVEX_USB_PRODUCT_ID_3 0x7A03

/* ---- Basic types ---------------------------------------------------------- */

typedef int TSTATUS;
/** Character type of all string arguments: NUL-terminated byte strings. */
typedef char T_UNICHAR;
/** Handle of an open adapter; 0 is never a valid handle. */
typedef unsigned int KARVEXDeviceHandle;

/* The enums are int-sized in C. C++ gets the same underlying type spelled
 * out, so that any int a C caller passes (a wrong mode, say) is a valid value
 * the library can check and refuse, not undefined behaviour. */
#ifdef __cplusplus
#define KARVEX_ENUM_BASE : int
#else
#define KARVEX_ENUM_BASE
#endif

typedef enum tagKARVEXDeviceEvent KARVEX_ENUM_BASE {
    KARVEXEvent_reserved = 0,
    KARVEXEvent_DeviceAttached = 1,
    KARVEXEvent_DeviceRemoved = 2
} KARVEXDeviceEvent;

typedef enum tagKARVEX_GPIOMode KARVEX_ENUM_BASE {
    GPIOMode_Input = 0,
    GPIOMode_InputEvent = 1,
    GPIOMode_Output_Low = 2,
    GPIOMode_Output_High = 3
} KARVEX_GPIOMode;

typedef enum tagKARVEX_GPIOState KARVEX_ENUM_BASE {
    GPIOState_Low = 0,
    GPIOState_High = 1
} KARVEX_GPIOState;

/** Hot-plug callback: (registered context, event). Runs on the library's hot-plug thread. */
typedef void KARVEXCB_DeviceChangeEvent(void* callbackContext, KARVEXDeviceEvent event);
/** Pin event callback: (registered context, pin id, new state). Runs on the adapter's pin event thread. */
typedef void KARVEXCB_InputPinEvent(void* callbackContext, unsigned int pinId, KARVEX_GPIOState state);

/* ---- Status codes ---------------------------------------------------------- */

#define TSTATUS_SUCCESS                          ((TSTATUS)0x00000000U)
#define TSTATUS_FAILED                           ((TSTATUS)0xE0000001U)
#define TSTATUS_INTERNAL_ERROR                   ((TSTATUS)0xE0000002U)
#define TSTATUS_TIMEOUT                          ((TSTATUS)0xE0000003U)
#define TSTATUS_REJECTED                         ((TSTATUS)0xE0000004U)
#define TSTATUS_ABORTED                          ((TSTATUS)0xE0000005U)
#define TSTATUS_IN_USE                           ((TSTATUS)0xE0000006U)
#define TSTATUS_BUSY                             ((TSTATUS)0xE0000007U)
#define TSTATUS_ALREADY_DONE                     ((TSTATUS)0xE0000008U)
#define TSTATUS_PENDING                          ((TSTATUS)0xE0000009U)
#define TSTATUS_NO_MEMORY                        ((TSTATUS)0xE0000020U)
#define TSTATUS_NO_RESOURCES                     ((TSTATUS)0xE0000021U)
#define TSTATUS_NO_MORE_ITEMS                    ((TSTATUS)0xE0000022U)
#define TSTATUS_NO_DEVICES                       ((TSTATUS)0xE0000023U)
#define TSTATUS_NO_DATA                          ((TSTATUS)0xE0000024U)
#define TSTATUS_NOT_SUPPORTED                    ((TSTATUS)0xE0000030U)
#define TSTATUS_NOT_POSSIBLE                     ((TSTATUS)0xE0000031U)
#define TSTATUS_NOT_ALLOWED                      ((TSTATUS)0xE0000032U)
#define TSTATUS_NOT_OPENED                       ((TSTATUS)0xE0000033U)
#define TSTATUS_NOT_AVAILABLE                    ((TSTATUS)0xE0000034U)
#define TSTATUS_INSTANCE_NOT_AVAILABLE           ((TSTATUS)0xE0000035U)
#define TSTATUS_NOT_INITIALIZED                  ((TSTATUS)0xE0000036U)
#define TSTATUS_INVALID_IOCTL                    ((TSTATUS)0xE0000040U)
#define TSTATUS_INVALID_PARAMETER                ((TSTATUS)0xE0000041U)
#define TSTATUS_INVALID_LENGTH                   ((TSTATUS)0xE0000042U)
#define TSTATUS_INVALID_BUFFER_SIZE              ((TSTATUS)0xE0000043U)
#define TSTATUS_INVALID_INBUF_SIZE               ((TSTATUS)0xE0000044U)
#define TSTATUS_INVALID_OUTBUF_SIZE              ((TSTATUS)0xE0000045U)
#define TSTATUS_INVALID_TYPE                     ((TSTATUS)0xE0000046U)
#define TSTATUS_INVALID_INDEX                    ((TSTATUS)0xE0000047U)
#define TSTATUS_INVALID_HANDLE                   ((TSTATUS)0xE0000048U)
#define TSTATUS_INVALID_DEVICE_STATE             ((TSTATUS)0xE0000049U)
#define TSTATUS_INVALID_DEVICE_CONFIG            ((TSTATUS)0xE000004AU)
#define TSTATUS_INVALID_DESCRIPTOR               ((TSTATUS)0xE0000050U)
#define TSTATUS_INVALID_FORMAT                   ((TSTATUS)0xE0000051U)
#define TSTATUS_INVALID_CONFIGURATION            ((TSTATUS)0xE0000052U)
#define TSTATUS_INVALID_MODE                     ((TSTATUS)0xE0000053U)
#define TSTATUS_INVALID_FILE                     ((TSTATUS)0xE0000054U)
#define TSTATUS_VERSION_MISMATCH                 ((TSTATUS)0xE0000060U)
#define TSTATUS_LENGTH_MISMATCH                  ((TSTATUS)0xE0000061U)
#define TSTATUS_MAGIC_MISMATCH                   ((TSTATUS)0xE0000062U)
#define TSTATUS_VALUE_UNKNOWN                    ((TSTATUS)0xE0000063U)
#define TSTATUS_UNEXPECTED_DEVICE_RESPONSE       ((TSTATUS)0xE0000064U)
#define TSTATUS_ENUM_REQUIRED                    ((TSTATUS)0xE0000070U)
#define TSTATUS_DEVICE_REMOVED                   ((TSTATUS)0xE0000071U)
#define TSTATUS_DEVICES_EXIST                    ((TSTATUS)0xE0000072U)
#define TSTATUS_WRONG_DEVICE_STATE               ((TSTATUS)0xE0000073U)
#define TSTATUS_BUFFER_TOO_SMALL                 ((TSTATUS)0xE0000074U)
#define TSTATUS_REGISTRY_ACCESS_FAILED           ((TSTATUS)0xE0000080U)
#define TSTATUS_OBJECT_NOT_FOUND                 ((TSTATUS)0xE0000081U)
#define TSTATUS_NOT_IN_HIGH_SPEED_MODE           ((TSTATUS)0xE0000082U)
#define TSTATUS_WRONG_DIRECTION                  ((TSTATUS)0xE0000083U)
#define TSTATUS_PARAMETER_REJECTED               ((TSTATUS)0xE0000084U)
#define TSTATUS_ALREADY_OPEN                     ((TSTATUS)0xE0000085U)
#define TSTATUS_OPEN_FILE_FAILED                 ((TSTATUS)0xE0000090U)
#define TSTATUS_READ_FILE_FAILED                 ((TSTATUS)0xE0000091U)
#define TSTATUS_WRITE_FILE_FAILED                ((TSTATUS)0xE0000092U)
#define TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION    ((TSTATUS)0xE0001001U)
#define TSTATUS_INVALID_REPORT_LENGTH            ((TSTATUS)0xE0001002U)
#define TSTATUS_PIN_ID_MISMATCH                  ((TSTATUS)0xE0001003U)
#define TSTATUS_UNSUPPORTED_PIN_STATE            ((TSTATUS)0xE0001004U)
#define TSTATUS_UNSUPPORTED_PIN_MODE             ((TSTATUS)0xE0001005U)
#define TSTATUS_RESPONSE_STATUS_BASE             ((TSTATUS)0xE0001100U)
#define TSTATUS_APP_ERROR1                       ((TSTATUS)0xE0002001U)
#define TSTATUS_APP_ERROR2                       ((TSTATUS)0xE0002002U)

/* A failed system call with error number e is reported as 0xE0010000 | e. */
#define KARVEX_TSTATUS_FROM_ERRNO(e) ((TSTATUS)(0xE0010000U | ((unsigned int)(e) & 0xFFFFU)))
#define TSTATUS_LINUX_EPERM                      ((TSTATUS)0xE0010001U)
#define TSTATUS_LINUX_ENOENT                     ((TSTATUS)0xE0010002U)
#define TSTATUS_LINUX_ESRCH                      ((TSTATUS)0xE0010003U)
#define TSTATUS_LINUX_EINTR                      ((TSTATUS)0xE0010004U)
#define TSTATUS_LINUX_EIO                        ((TSTATUS)0xE0010005U)
#define TSTATUS_LINUX_ENXIO                      ((TSTATUS)0xE0010006U)
#define TSTATUS_LINUX_E2BIG                      ((TSTATUS)0xE0010007U)
#define TSTATUS_LINUX_ENOEXEC                    ((TSTATUS)0xE0010008U)
#define TSTATUS_LINUX_EBADF                      ((TSTATUS)0xE0010009U)
#define TSTATUS_LINUX_ECHILD                     ((TSTATUS)0xE001000AU)
#define TSTATUS_LINUX_EAGAIN                     ((TSTATUS)0xE001000BU)
#define TSTATUS_LINUX_ENOMEM                     ((TSTATUS)0xE001000CU)
#define TSTATUS_LINUX_EACCES                     ((TSTATUS)0xE001000DU)
#define TSTATUS_LINUX_EFAULT                     ((TSTATUS)0xE001000EU)
#define TSTATUS_LINUX_ENOTBLK                    ((TSTATUS)0xE001000FU)
#define TSTATUS_LINUX_EBUSY                      ((TSTATUS)0xE0010010U)
#define TSTATUS_LINUX_EEXIST                     ((TSTATUS)0xE0010011U)
#define TSTATUS_LINUX_EXDEV                      ((TSTATUS)0xE0010012U)
#define TSTATUS_LINUX_ENODEV                     ((TSTATUS)0xE0010013U)
#define TSTATUS_LINUX_ENOTDIR                    ((TSTATUS)0xE0010014U)
#define TSTATUS_LINUX_EISDIR                     ((TSTATUS)0xE0010015U)
#define TSTATUS_LINUX_EINVAL                     ((TSTATUS)0xE0010016U)
#define TSTATUS_LINUX_ENFILE                     ((TSTATUS)0xE0010017U)
#define TSTATUS_LINUX_EMFILE                     ((TSTATUS)0xE0010018U)
#define TSTATUS_LINUX_ENOTTY                     ((TSTATUS)0xE0010019U)
#define TSTATUS_LINUX_ETXTBSY                    ((TSTATUS)0xE001001AU)
#define TSTATUS_LINUX_EFBIG                      ((TSTATUS)0xE001001BU)
#define TSTATUS_LINUX_ENOSPC                     ((TSTATUS)0xE001001CU)
#define TSTATUS_LINUX_ESPIPE                     ((TSTATUS)0xE001001DU)
#define TSTATUS_LINUX_EROFS                      ((TSTATUS)0xE001001EU)
#define TSTATUS_LINUX_EMLINK                     ((TSTATUS)0xE001001FU)
#define TSTATUS_LINUX_EPIPE                      ((TSTATUS)0xE0010020U)
#define TSTATUS_LINUX_EDOM                       ((TSTATUS)0xE0010021U)
#define TSTATUS_LINUX_ERANGE                     ((TSTATUS)0xE0010022U)

/* ---- Trace mask bits --------------------------------------------------------- */

#define KARVEX_TRACE_ERROR     0x01U /* failures */
#define KARVEX_TRACE_WARNING   0x02U /* tolerated conditions */
#define KARVEX_TRACE_INFO      0x04U /* normal events (open, close, attach, remove) */
#define KARVEX_TRACE_VERBOSE   0x08U /* detail, descriptor items, report dumps */
#define KARVEX_TRACE_FUNCTION  0x10U /* entry and exit of every exported function */
#define KARVEX_TRACE_PROTOCOL  0x20U /* one line per command and response */
#define KARVEX_TRACE_PROTODUMP 0x40U /* hex dump of every command and response */

/* ---- Version functions (no adapter needed) --------------------------------- */

/** Returns KARVEX_API_VERSION of the loaded library (0x00010000). Since 1.0. */
KARVEX_API unsigned int KARVEX_GetApiVersion(void);
/** 1 when the library implements exactly majorVersion.minorVersion, else 0. Since 1.0. */
KARVEX_API int KARVEX_CheckApiVersion(unsigned int majorVersion, unsigned int minorVersion);
/** sizeof(T_UNICHAR) the library was built with (1). Since 1.0. */
KARVEX_API unsigned int KARVEX_GetUniCharSize(void);

/* ---- Device functions ------------------------------------------------------- */

/**
 * Registers (or, with a null callback, removes) the hot-plug callback. While a
 * callback is registered a library thread watches udev and calls it with
 * KARVEXEvent_DeviceAttached / KARVEXEvent_DeviceRemoved for supported adapters.
 * The callback runs on that thread without any library lock held, so it may
 * call every exported function except KARVEX_RegisterDeviceChangeCallback,
 * which returns TSTATUS_NOT_ALLOWED there; it may close adapters. A pin
 * callback calling this function gets TSTATUS_NOT_ALLOWED too.
 * A removal is only reported: the application closes its handle. Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_RegisterDeviceChangeCallback(KARVEXCB_DeviceChangeEvent* callback, void* callbackContext);
/** Takes a new snapshot of the attached adapters and returns their number. Since 1.0. */
KARVEX_API TSTATUS KARVEX_EnumerateDevices(unsigned int* deviceCount);
/**
 * Copies the instance id (hidraw device node path) of entry deviceIndex of the
 * last snapshot into instanceIdString (stringBufferSize bytes incl. the NUL).
 * A stringBufferSize below 2 fails with TSTATUS_BUFFER_TOO_SMALL before the
 * buffer is touched; with a larger buffer every failure (TSTATUS_INVALID_INDEX,
 * TSTATUS_BUFFER_TOO_SMALL) leaves the empty string in it. Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_GetDeviceInstanceId(unsigned int deviceIndex, T_UNICHAR* instanceIdString,
                                              unsigned int stringBufferSize);
/**
 * Opens the adapter whose instance id (e.g. "/dev/hidraw3", compared without
 * regard to case) is given; no prior enumeration is needed. With a non-null
 * instanceIdString, *deviceHandle is 0 after every failure (a null
 * instanceIdString leaves it untouched). An adapter has one user at a time:
 * while a handle is open the library holds an advisory lock (flock) on its
 * node, and a second open, in this process or in another, fails with
 * TSTATUS_IN_USE. Out of memory gives TSTATUS_NO_MEMORY. Blocks for the
 * protocol version exchange (at most 5 s). Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_OpenDevice(const T_UNICHAR* instanceIdString, KARVEXDeviceHandle* deviceHandle);
/** Closes the adapter, stops its threads and releases the handle. Since 1.0. */
KARVEX_API TSTATUS KARVEX_CloseDevice(KARVEXDeviceHandle deviceHandle);
/** TSTATUS_SUCCESS while the adapter is attached, TSTATUS_DEVICE_REMOVED after an unplug. Since 1.0. */
KARVEX_API TSTATUS KARVEX_CheckDeviceConnection(KARVEXDeviceHandle deviceHandle);
/** USB vendor id, product id and release (bcdDevice); any pointer may be null. Since 1.0. */
KARVEX_API TSTATUS KARVEX_GetDeviceUsbInfo(KARVEXDeviceHandle deviceHandle, unsigned int* usbVendorId,
                                           unsigned int* usbProductId, unsigned int* bcdDevice);
/** Serial number string; TSTATUS_NOT_SUPPORTED when the adapter has none. Since 1.0. */
KARVEX_API TSTATUS KARVEX_GetDeviceSerialNumber(KARVEXDeviceHandle deviceHandle, T_UNICHAR* serialNumber,
                                                unsigned int stringBufferSize);
/** Configures a pin. One round trip, at most 5 s. Since 1.0. */
KARVEX_API TSTATUS KARVEX_SetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode mode);
/** Drives an output pin. One round trip, at most 5 s. Since 1.0. */
KARVEX_API TSTATUS KARVEX_SetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState state);
/**
 * Reads a pin's level. Once the handle is found, *state is GPIOState_Low on
 * every failure; an invalid handle leaves it untouched. Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_GetPinState(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOState* state);
/**
 * Reads a pin's mode. Once the handle is found, *mode is GPIOMode_Input on
 * every failure; an invalid handle leaves it untouched. Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_GetPinMode(KARVEXDeviceHandle deviceHandle, unsigned int pinId, KARVEX_GPIOMode* mode);
/**
 * Registers (or, with null, removes) the pin event callback of one adapter.
 * It runs on that adapter's pin event thread, without library locks, and may
 * call every exported function except KARVEX_CloseDevice,
 * KARVEX_RegisterPinEventCallback and KARVEX_RegisterDeviceChangeCallback, for
 * any adapter: each waits for a callback thread that may be waiting for this
 * one, and returns TSTATUS_NOT_ALLOWED there. Events not yet delivered are
 * dropped on re-registration. Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_RegisterPinEventCallback(KARVEXDeviceHandle deviceHandle, KARVEXCB_InputPinEvent* callback,
                                                   void* callbackContext);
/**
 * One I2C transfer: write bytesToWrite (0..256) bytes, then read bytesToRead
 * (0..256) bytes from i2cSlaveAddress on bus i2cBus. timeoutInterval (1..30000 ms)
 * is the adapter's own limit; the library waits twice that, at least 1 s.
 * readBuffer is untouched on failure. Since 1.0.
 */
KARVEX_API TSTATUS KARVEX_I2cTransaction(KARVEXDeviceHandle deviceHandle, unsigned int i2cBus, unsigned int i2cSpeed,
                                         unsigned int i2cSlaveAddress, const unsigned char* writeData,
                                         unsigned int bytesToWrite, unsigned char* readBuffer,
                                         unsigned int bytesToRead, unsigned int timeoutInterval);

/* ---- Status names and trace output --------------------------------------------- */

/** Name of a status code ("TSTATUS_TIMEOUT"), or "unknown". Static string. */
KARVEX_API const char* TStatusStringA(int status);
KARVEX_API const T_UNICHAR* TStatusString(int status);
KARVEX_API void TPosixSetTraceMask(unsigned int mask);
KARVEX_API unsigned int TPosixGetTraceMask(void);
/** Writes "%09lu.%09ld %p: " (real time, thread) into buffer (>= 128 bytes); returns its length. */
KARVEX_API int GetLinePrefix(char* buffer);
/** printf-style trace output, assembled into whole lines on standard output. */
KARVEX_API void tprint(const char* format, ...) __attribute__((format(printf, 1, 2)));
KARVEX_API void VPrint(const char* format, va_list args);
KARVEX_API void OutputString(const char* text);
KARVEX_API void WriteString(void);
/** Hex dump of length bytes, bytesPerLine per line (0 is taken as 1). */
KARVEX_API void DumpBytesEx(const void* data, unsigned int length, unsigned int bytesPerLine);

#ifdef __cplusplus
}
#endif

#endif /* KARVEX_KARVEX_API_H */
