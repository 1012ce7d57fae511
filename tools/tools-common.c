#define _GNU_SOURCE
#include "tools-common.h"

#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

const char* gToolName = "karvexctl";

void Usage(const char* fmt, ...)
{
    va_list ap;
    fprintf(stderr, "%s: ", gToolName);
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fprintf(stderr, "\nTry '%s --help' for more information.\n", gToolName);
    exit(EXIT_USAGE);
}

void Error(const char* fmt, ...)
{
    va_list ap;
    fprintf(stderr, "%s: ", gToolName);
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    fputc('\n', stderr);
}

const char* StatusExplanation(TSTATUS status)
{
    if (IsAdapterRefusal(status)) {
        static __thread char text[96];
        snprintf(text, sizeof text, "the adapter refused the command with status 0x%02X",
                 (unsigned int)status & 0xFFU);
        return text;
    }
    switch (status) {
    case TSTATUS_LINUX_ENOENT:
    case TSTATUS_OBJECT_NOT_FOUND:
    case TSTATUS_NO_DEVICES:
        return "no such adapter; 'karvexctl list' shows the attached ones";
    case TSTATUS_LINUX_EACCES:
    case TSTATUS_LINUX_EPERM:
        return "permission denied; install the udev rule (see the README) or join the group it names";
    case TSTATUS_IN_USE:
        /* The library locks the adapter's node while a handle is open. */
        return "the adapter is in use by another program";
    case TSTATUS_LINUX_EBUSY:
    case TSTATUS_ALREADY_OPEN:
        return "the adapter is in use";
    case TSTATUS_TIMEOUT:
        return "the adapter did not answer in time";
    case TSTATUS_DEVICE_REMOVED:
    case TSTATUS_LINUX_ENODEV:
    case TSTATUS_LINUX_EIO:
        return "the adapter was unplugged";
    case TSTATUS_INVALID_PARAMETER:
        return "the library refused an argument as out of range";
    case TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION:
        return "the adapter's firmware speaks a protocol version this library does not support";
    case TSTATUS_UNEXPECTED_DEVICE_RESPONSE:
    case TSTATUS_LENGTH_MISMATCH:
    case TSTATUS_PIN_ID_MISMATCH:
    case TSTATUS_UNSUPPORTED_PIN_STATE:
    case TSTATUS_UNSUPPORTED_PIN_MODE:
        return "the adapter gave an answer that makes no sense";
    case TSTATUS_NOT_SUPPORTED:
        return "the adapter does not support this";
    case TSTATUS_NO_MEMORY:
    case TSTATUS_NO_RESOURCES:
        return "out of memory or system resources";
    case TSTATUS_INVALID_HANDLE:
    case TSTATUS_NOT_OPENED:
        return "the adapter is no longer open";
    default:
        return "the operation failed";
    }
}

void StatusError(TSTATUS status, const char* fmt, ...)
{
    va_list ap;
    const char* name = TStatusStringA(status);
    fprintf(stderr, "%s: ", gToolName);
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
    if (strcmp(name, "unknown") == 0)
        fprintf(stderr, ": 0x%08X: %s\n", (unsigned int)status, StatusExplanation(status));
    else
        fprintf(stderr, ": %s: %s\n", name, StatusExplanation(status));
}

bool ParseUnsigned(const char* text, unsigned long max, unsigned long* value)
{
    char* end = NULL;
    unsigned long v;
    if (text == NULL || *text == '\0' || *text == '-' || *text == '+' || *text == ' ')
        return false;
    errno = 0;
    v = strtoul(text, &end, 0);
    if (errno != 0 || *end != '\0' || v > max)
        return false;
    *value = v;
    return true;
}

void ApplyTraceOption(const char* text)
{
    unsigned long mask;
    if (!ParseUnsigned(text, 0xFFFFFFFFUL, &mask))
        Usage("invalid trace mask '%s' (a number such as 0x7f)", text);
    TPosixSetTraceMask((unsigned int)mask);
}

KARVEXDeviceHandle OpenAdapter(const char* path)
{
    KARVEXDeviceHandle handle = 0;
    TSTATUS st = KARVEX_OpenDevice(path, &handle);
    if (st != TSTATUS_SUCCESS) {
        StatusError(st, "cannot open %s", path);
        return 0;
    }
    return handle;
}

void CloseAdapter(KARVEXDeviceHandle handle)
{
    if (handle != 0)
        KARVEX_CloseDevice(handle);
}

unsigned int ParsePin(const char* text)
{
    unsigned long pin;
    if (!ParseUnsigned(text, 255, &pin))
        Usage("invalid pin '%s' (a number 0..255)", text);
    return (unsigned int)pin;
}

const char* GpioModeName(KARVEX_GPIOMode mode)
{
    switch (mode) {
    case GPIOMode_Input:
        return "input";
    case GPIOMode_InputEvent:
        return "input-event";
    case GPIOMode_Output_Low:
        return "output-low";
    case GPIOMode_Output_High:
        return "output-high";
    }
    return "unknown";
}

bool ParseGpioMode(const char* text, KARVEX_GPIOMode* mode)
{
    static const struct {
        const char* name;
        KARVEX_GPIOMode mode;
    } names[] = {
        {"input", GPIOMode_Input},           {"input-event", GPIOMode_InputEvent}, {"event", GPIOMode_InputEvent},
        {"output-low", GPIOMode_Output_Low}, {"low", GPIOMode_Output_Low},         {"output-high", GPIOMode_Output_High},
        {"high", GPIOMode_Output_High},
    };
    size_t i;
    for (i = 0; i < sizeof names / sizeof names[0]; ++i) {
        if (strcmp(text, names[i].name) == 0) {
            *mode = names[i].mode;
            return true;
        }
    }
    return false;
}

bool IsAdapterRefusal(TSTATUS status)
{
    return ((unsigned int)status & 0xFFFFFF00U) == (unsigned int)TSTATUS_RESPONSE_STATUS_BASE;
}

void JsonString(FILE* out, const char* s)
{
    const unsigned char* p = (const unsigned char*)s;
    fputc('"', out);
    for (; *p != '\0'; ++p) {
        if (*p == '"' || *p == '\\')
            fprintf(out, "\\%c", *p);
        else if (*p < 0x20)
            fprintf(out, "\\u%04x", *p);
        else
            fputc(*p, out);
    }
    fputc('"', out);
}

void QuotedString(FILE* out, const char* s)
{
    fprintf(out, "\"%s\"", s);
}

void PrintTimestamp(FILE* out)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    fprintf(out, "%lld.%09ld", (long long)ts.tv_sec, ts.tv_nsec);
}

int OpenStopSignalFd(void)
{
    sigset_t set;
    int fd;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    /* Blocked before the library starts its threads, so they inherit the mask
     * and only the signalfd ever sees these signals. */
    pthread_sigmask(SIG_BLOCK, &set, NULL);
    fd = signalfd(-1, &set, SFD_CLOEXEC);
    if (fd < 0)
        Error("signalfd failed: %s", strerror(errno));
    return fd;
}
