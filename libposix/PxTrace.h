// Process-wide trace output: a mask of enabled classes, whole lines assembled
// under one recursive mutex and written to standard output.
#pragma once

#include <atomic>

#include "karvex/karvex_api.h"
#include "libposix/PxMutex.h"

// The set of enabled trace classes (KARVEX_TRACE_* bits). Read without a lock
// by every trace statement; a relaxed atomic keeps that well-defined.
extern std::atomic<unsigned int> gTraceMask;

// Serialises whole lines and dumps. Recursive, usable from any static
// initialiser or destructor, and never torn down before the process exits.
extern PxMutex& gTraceMutex;

// The line under construction and its write position (the spelling of the
// offset's name is historical). gCol counts the characters since the last
// newline. The prefix is written in front of every line; nothing fills it by
// default. All four are guarded by gTraceMutex.
const unsigned int cTraceLineBufferSize = 4096;
const unsigned int cTracePrefixBufferSize = 128;
extern char gTraceLineBuffer[cTraceLineBufferSize];
extern unsigned int gTraceLineBufferOffest;
extern unsigned int gCol;
extern char gTracePrefixBuffer[cTracePrefixBufferSize];

// Size of VPrint's formatting buffer; a longer message aborts the process.
// Every text that comes from the application, a device or udev is therefore
// printed with the precision "%.1024s": with the longest signature and the
// fixed text of its line it still fits, and any real path, id or USB string
// (at most a few hundred characters) comes out in full.
const unsigned int cTraceMessageBufferSize = 2048;

inline bool PxTraceEnabled(unsigned int bit)
{
    return (gTraceMask.load(std::memory_order_relaxed) & bit) != 0;
}

// PXTRACE(bit, "%s: text %u\n", value): the mask bit is tested before anything
// is formatted; the first %s receives the calling function's full signature.
#define PXTRACE(bit, fmt, ...)                                   \
    do {                                                         \
        if (PxTraceEnabled(bit))                                 \
            tprint(fmt, __PRETTY_FUNCTION__, ##__VA_ARGS__);     \
    } while (0)

#define PXTRACE_ERROR(fmt, ...) PXTRACE(KARVEX_TRACE_ERROR, fmt, ##__VA_ARGS__)
#define PXTRACE_WARN(fmt, ...) PXTRACE(KARVEX_TRACE_WARNING, fmt, ##__VA_ARGS__)
#define PXTRACE_INFO(fmt, ...) PXTRACE(KARVEX_TRACE_INFO, fmt, ##__VA_ARGS__)
#define PXTRACE_VERBOSE(fmt, ...) PXTRACE(KARVEX_TRACE_VERBOSE, fmt, ##__VA_ARGS__)
#define PXTRACE_FUNC(fmt, ...) PXTRACE(KARVEX_TRACE_FUNCTION, fmt, ##__VA_ARGS__)
