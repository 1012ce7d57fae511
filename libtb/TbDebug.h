// Debug channel wrappers and the two assertion kinds. Neither assertion stops
// the program: both report and execution continues after them.
#pragma once

#include <cstdarg>

namespace TbDebug {

enum TraceChannel {
    TrcError = 0,
    TrcInfo = 1,
    TrcVerbose = 2,
    TrcFunction = 3,
    TrcDump = 4
};

// TrcError -> 0x01, TrcInfo -> 0x04, everything else -> 0x08.
unsigned int ChannelMask(TraceChannel channel);
void DebugPrint(TraceChannel channel, const char* format, ...) __attribute__((format(printf, 2, 3)));
void DebugVPrintf(TraceChannel channel, const char* format, va_list args);
void DebugDumpBytes(TraceChannel channel, const void* data, unsigned int length);
// Prints "\nASSERTION FAILED: (%s)\n  %s(%u)\n" when trace bit 0x01 is set.
void AssertFailed(const char* expression, const char* file, unsigned int line);
// Prints "\nFATAL: ASSERTION FAILED: (%s)\n  %s(%u)\n" whatever the mask.
void FatalAssertFailed(const char* expression, const char* file, unsigned int line);

} // namespace TbDebug

// Checking assertion: reported on the error class, then execution continues.
#define TB_ASSERT(expr)                                                  \
    do {                                                                 \
        if (!(expr))                                                     \
            TbDebug::AssertFailed(#expr, __FILE__, __LINE__);            \
    } while (0)

// Fatal assertion: always reported, then execution continues all the same.
#define TB_FATAL_ASSERT(expr)                                            \
    do {                                                                 \
        if (!(expr))                                                     \
            TbDebug::FatalAssertFailed(#expr, __FILE__, __LINE__);       \
    } while (0)
