// Trace output and status code names.
#include "libposix/PxTrace.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

std::atomic<unsigned int> gTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING);

namespace {

// The trace mutex is constant-initialised (no constructor runs at load time),
// so a static initialiser of any other unit may trace before this unit's own
// initialisers have run. The holder's destructor deliberately leaves the
// mutex alone: static destructors of other units trace after this unit's
// statics are gone, and a statically initialised pthread mutex needs no
// clean-up when the process ends.
union TraceMutexHolder {
    PxMutex mutex;
    constexpr TraceMutexHolder() : mutex(PxMutex::StaticRecursive()) {}
    ~TraceMutexHolder() {}
};

// Checked constant initialisation: GCC's keyword, clang's attribute (C++17
// has neither as a standard spelling).
#if defined(__clang__)
#define PX_CONSTINIT [[clang::require_constant_initialization]]
#elif defined(__GNUC__)
#define PX_CONSTINIT __constinit
#else
#define PX_CONSTINIT
#endif

PX_CONSTINIT TraceMutexHolder gTraceMutexHolder;

} // namespace

PxMutex& gTraceMutex = gTraceMutexHolder.mutex;

char gTraceLineBuffer[cTraceLineBufferSize];
unsigned int gTraceLineBufferOffest = 0;
unsigned int gCol = 0;
char gTracePrefixBuffer[cTracePrefixBufferSize];

extern "C" {

KARVEX_API const char* TStatusStringA(int status)
{
    switch (static_cast<unsigned int>(status)) {
    case 0x00000000U: return "TSTATUS_SUCCESS";
    case 0xE0000001U: return "TSTATUS_FAILED";
    case 0xE0000002U: return "TSTATUS_INTERNAL_ERROR";
    case 0xE0000003U: return "TSTATUS_TIMEOUT";
    case 0xE0000004U: return "TSTATUS_REJECTED";
    case 0xE0000005U: return "TSTATUS_ABORTED";
    case 0xE0000006U: return "TSTATUS_IN_USE";
    case 0xE0000007U: return "TSTATUS_BUSY";
    case 0xE0000008U: return "TSTATUS_ALREADY_DONE";
    case 0xE0000009U: return "TSTATUS_PENDING";
    case 0xE0000020U: return "TSTATUS_NO_MEMORY";
    case 0xE0000021U: return "TSTATUS_NO_RESOURCES";
    case 0xE0000022U: return "TSTATUS_NO_MORE_ITEMS";
    case 0xE0000023U: return "TSTATUS_NO_DEVICES";
    case 0xE0000024U: return "TSTATUS_NO_DATA";
    case 0xE0000030U: return "TSTATUS_NOT_SUPPORTED";
    case 0xE0000031U: return "TSTATUS_NOT_POSSIBLE";
    case 0xE0000032U: return "TSTATUS_NOT_ALLOWED";
    case 0xE0000033U: return "TSTATUS_NOT_OPENED";
    case 0xE0000034U: return "TSTATUS_NOT_AVAILABLE";
    case 0xE0000035U: return "TSTATUS_INSTANCE_NOT_AVAILABLE";
    case 0xE0000036U: return "TSTATUS_NOT_INITIALIZED";
    case 0xE0000040U: return "TSTATUS_INVALID_IOCTL";
    case 0xE0000041U: return "TSTATUS_INVALID_PARAMETER";
    case 0xE0000042U: return "TSTATUS_INVALID_LENGTH";
    case 0xE0000043U: return "TSTATUS_INVALID_BUFFER_SIZE";
    case 0xE0000044U: return "TSTATUS_INVALID_INBUF_SIZE";
    case 0xE0000045U: return "TSTATUS_INVALID_OUTBUF_SIZE";
    case 0xE0000046U: return "TSTATUS_INVALID_TYPE";
    case 0xE0000047U: return "TSTATUS_INVALID_INDEX";
    case 0xE0000048U: return "TSTATUS_INVALID_HANDLE";
    case 0xE0000049U: return "TSTATUS_INVALID_DEVICE_STATE";
    case 0xE000004AU: return "TSTATUS_INVALID_DEVICE_CONFIG";
    case 0xE0000050U: return "TSTATUS_INVALID_DESCRIPTOR";
    case 0xE0000051U: return "TSTATUS_INVALID_FORMAT";
    case 0xE0000052U: return "TSTATUS_INVALID_CONFIGURATION";
    case 0xE0000053U: return "TSTATUS_INVALID_MODE";
    case 0xE0000054U: return "TSTATUS_INVALID_FILE";
    case 0xE0000060U: return "TSTATUS_VERSION_MISMATCH";
    case 0xE0000061U: return "TSTATUS_LENGTH_MISMATCH";
    case 0xE0000062U: return "TSTATUS_MAGIC_MISMATCH";
    case 0xE0000063U: return "TSTATUS_VALUE_UNKNOWN";
    case 0xE0000064U: return "TSTATUS_UNEXPECTED_DEVICE_RESPONSE";
    case 0xE0000070U: return "TSTATUS_ENUM_REQUIRED";
    case 0xE0000071U: return "TSTATUS_DEVICE_REMOVED";
    case 0xE0000072U: return "TSTATUS_DEVICES_EXIST";
    case 0xE0000073U: return "TSTATUS_WRONG_DEVICE_STATE";
    case 0xE0000074U: return "TSTATUS_BUFFER_TOO_SMALL";
    case 0xE0000080U: return "TSTATUS_REGISTRY_ACCESS_FAILED";
    case 0xE0000081U: return "TSTATUS_OBJECT_NOT_FOUND";
    case 0xE0000082U: return "TSTATUS_NOT_IN_HIGH_SPEED_MODE";
    case 0xE0000083U: return "TSTATUS_WRONG_DIRECTION";
    case 0xE0000084U: return "TSTATUS_PARAMETER_REJECTED";
    case 0xE0000085U: return "TSTATUS_ALREADY_OPEN";
    case 0xE0000090U: return "TSTATUS_OPEN_FILE_FAILED";
    case 0xE0000091U: return "TSTATUS_READ_FILE_FAILED";
    case 0xE0000092U: return "TSTATUS_WRITE_FILE_FAILED";
    case 0xE0001001U: return "TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION";
    case 0xE0001002U: return "TSTATUS_INVALID_REPORT_LENGTH";
    case 0xE0001003U: return "TSTATUS_PIN_ID_MISMATCH";
    case 0xE0001004U: return "TSTATUS_UNSUPPORTED_PIN_STATE";
    case 0xE0001005U: return "TSTATUS_UNSUPPORTED_PIN_MODE";
    case 0xE0001100U: return "TSTATUS_RESPONSE_STATUS_BASE";
    case 0xE0002001U: return "TSTATUS_APP_ERROR1";
    case 0xE0002002U: return "TSTATUS_APP_ERROR2";
    case 0xE0010001U: return "TSTATUS_LINUX_EPERM";
    case 0xE0010002U: return "TSTATUS_LINUX_ENOENT";
    case 0xE0010003U: return "TSTATUS_LINUX_ESRCH";
    case 0xE0010004U: return "TSTATUS_LINUX_EINTR";
    case 0xE0010005U: return "TSTATUS_LINUX_EIO";
    case 0xE0010006U: return "TSTATUS_LINUX_ENXIO";
    case 0xE0010007U: return "TSTATUS_LINUX_E2BIG";
    case 0xE0010008U: return "TSTATUS_LINUX_ENOEXEC";
    case 0xE0010009U: return "TSTATUS_LINUX_EBADF";
    case 0xE001000AU: return "TSTATUS_LINUX_ECHILD";
    case 0xE001000BU: return "TSTATUS_LINUX_EAGAIN";
    case 0xE001000CU: return "TSTATUS_LINUX_ENOMEM";
    case 0xE001000DU: return "TSTATUS_LINUX_EACCES";
    case 0xE001000EU: return "TSTATUS_LINUX_EFAULT";
    case 0xE001000FU: return "TSTATUS_LINUX_ENOTBLK";
    case 0xE0010010U: return "TSTATUS_LINUX_EBUSY";
    case 0xE0010011U: return "TSTATUS_LINUX_EEXIST";
    case 0xE0010012U: return "TSTATUS_LINUX_EXDEV";
    case 0xE0010013U: return "TSTATUS_LINUX_ENODEV";
    case 0xE0010014U: return "TSTATUS_LINUX_ENOTDIR";
    case 0xE0010015U: return "TSTATUS_LINUX_EISDIR";
    case 0xE0010016U: return "TSTATUS_LINUX_EINVAL";
    case 0xE0010017U: return "TSTATUS_LINUX_ENFILE";
    case 0xE0010018U: return "TSTATUS_LINUX_EMFILE";
    case 0xE0010019U: return "TSTATUS_LINUX_ENOTTY";
    case 0xE001001AU: return "TSTATUS_LINUX_ETXTBSY";
    case 0xE001001BU: return "TSTATUS_LINUX_EFBIG";
    case 0xE001001CU: return "TSTATUS_LINUX_ENOSPC";
    case 0xE001001DU: return "TSTATUS_LINUX_ESPIPE";
    case 0xE001001EU: return "TSTATUS_LINUX_EROFS";
    case 0xE001001FU: return "TSTATUS_LINUX_EMLINK";
    case 0xE0010020U: return "TSTATUS_LINUX_EPIPE";
    case 0xE0010021U: return "TSTATUS_LINUX_EDOM";
    case 0xE0010022U: return "TSTATUS_LINUX_ERANGE";
    default: return "unknown";
    }
}

KARVEX_API const T_UNICHAR* TStatusString(int status)
{
    return TStatusStringA(status);
}

KARVEX_API void TPosixSetTraceMask(unsigned int mask)
{
    gTraceMask.store(mask, std::memory_order_relaxed);
}

KARVEX_API unsigned int TPosixGetTraceMask(void)
{
    return gTraceMask.load(std::memory_order_relaxed);
}

KARVEX_API int GetLinePrefix(char* buffer)
{
    struct timespec now = {0, 0};
    clock_gettime(CLOCK_REALTIME, &now);
    int n = snprintf(buffer, cTracePrefixBufferSize, "%09lu.%09ld %p: ", static_cast<unsigned long>(now.tv_sec),
                     static_cast<long>(now.tv_nsec), reinterpret_cast<void*>(pthread_self()));
    if (n < 0)
        return 0;
    // snprintf reports what it would have written; report what it did write.
    return n < static_cast<int>(cTracePrefixBufferSize) ? n : static_cast<int>(cTracePrefixBufferSize) - 1;
}

KARVEX_API void WriteString(void)
{
    printf("%s%s", gTracePrefixBuffer, gTraceLineBuffer);
    memset(gTracePrefixBuffer, 0, sizeof(gTracePrefixBuffer));
    memset(gTraceLineBuffer, 0, sizeof(gTraceLineBuffer));
}

KARVEX_API void OutputString(const char* text)
{
    // The line buffer is all zeros beyond the write position (WriteString
    // clears it), so it stays terminated as long as its last element is never
    // written. A line longer than the buffer goes out in pieces of at most
    // cTraceLineBufferSize - 1 characters; no character is lost.
    const unsigned int lastUsable = cTraceLineBufferSize - 1;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p == '\n') {
            // The newline and its terminator need two elements.
            if (gTraceLineBufferOffest + 2 > cTraceLineBufferSize) {
                WriteString();
                gTraceLineBufferOffest = 0;
            }
            gTraceLineBuffer[gTraceLineBufferOffest] = '\n';
            gTraceLineBuffer[gTraceLineBufferOffest + 1] = '\0';
            gTraceLineBufferOffest += 2;
            WriteString();
            gTraceLineBufferOffest = 0;
            gCol = 0;
        } else {
            if (gTraceLineBufferOffest >= lastUsable) {
                WriteString();
                gTraceLineBufferOffest = 0;
            }
            gTraceLineBuffer[gTraceLineBufferOffest] = *p;
            gTraceLineBufferOffest++;
            gCol++;
        }
    }
}

KARVEX_API void VPrint(const char* format, va_list args)
{
    char message[cTraceMessageBufferSize];
    int n = vsnprintf(message, sizeof(message), format, args);
    if (n < 0 || n >= static_cast<int>(sizeof(message))) {
        // A truncated trace line would hide what went wrong; a message of this
        // size is a programming error, treated as fatal.
        fputs("VPrint: trace message does not fit the formatting buffer\n", stderr);
        abort();
    }
    PxMutexLock lock(gTraceMutex);
    OutputString(message);
}

KARVEX_API void tprint(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VPrint(format, args);
    va_end(args);
}

KARVEX_API void DumpBytesEx(const void* data, unsigned int length, unsigned int bytesPerLine)
{
    PxMutexLock lock(gTraceMutex);
    if (data == nullptr) {
        OutputString("<<NULL ptr>>\n");
        return;
    }
    if (length == 0) {
        OutputString("<<zero length>>\n");
        return;
    }
    if (bytesPerLine == 0)
        bytesPerLine = 1;

    static const char hexDigits[] = "0123456789ABCDEF";
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    // A line can be arbitrarily long (bytesPerLine is the caller's choice), so
    // it is built in a small chunk that is handed on whenever it fills up.
    char chunk[256];
    unsigned int used = 0;
    auto put = [&](char c) {
        if (used == sizeof(chunk) - 1) {
            chunk[used] = '\0';
            OutputString(chunk);
            used = 0;
        }
        chunk[used++] = c;
    };

    for (unsigned long long lineStart = 0; lineStart < length; lineStart += bytesPerLine) {
        unsigned int offset = static_cast<unsigned int>(lineStart & 0xFFFFU);
        put(hexDigits[(offset >> 12) & 15]);
        put(hexDigits[(offset >> 8) & 15]);
        put(hexDigits[(offset >> 4) & 15]);
        put(hexDigits[offset & 15]);
        put(':');
        put(' ');
        for (unsigned int i = 0; i < bytesPerLine; i++) {
            unsigned long long pos = lineStart + i;
            if (pos < length) {
                put(hexDigits[bytes[pos] >> 4]);
                put(hexDigits[bytes[pos] & 15]);
            } else {
                put(' ');
                put(' ');
            }
            put(' ');
        }
        for (unsigned int i = 0; i < bytesPerLine; i++) {
            unsigned long long pos = lineStart + i;
            if (pos < length) {
                unsigned char b = bytes[pos];
                // DEL (0x7F) counts as printable here, on purpose.
                put((b >= 0x20 && b <= 0x7F) ? static_cast<char>(b) : '.');
            } else {
                put(' ');
            }
        }
        put('\n');
    }
    chunk[used] = '\0';
    OutputString(chunk);
}

} // extern "C"
