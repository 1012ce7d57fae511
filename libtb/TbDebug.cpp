// Channel-based trace wrappers and the assertion reporters.
#include "libtb/TbDebug.h"

#include "libposix/PxTrace.h"

namespace TbDebug {

unsigned int ChannelMask(TraceChannel channel)
{
    // Deliberately coarse: the wrappers only know errors, information and
    // detail; warnings and function entry/exit are never reached from here.
    switch (channel) {
    case TrcError:
        return KARVEX_TRACE_ERROR;
    case TrcInfo:
        return KARVEX_TRACE_INFO;
    default:
        return KARVEX_TRACE_VERBOSE;
    }
}

void DebugVPrintf(TraceChannel channel, const char* format, va_list args)
{
    if (PxTraceEnabled(ChannelMask(channel)))
        VPrint(format, args);
}

void DebugPrint(TraceChannel channel, const char* format, ...)
{
    if (!PxTraceEnabled(ChannelMask(channel)))
        return;
    va_list args;
    va_start(args, format);
    VPrint(format, args);
    va_end(args);
}

void DebugDumpBytes(TraceChannel channel, const void* data, unsigned int length)
{
    if (PxTraceEnabled(ChannelMask(channel)))
        DumpBytesEx(data, length, 16);
}

void AssertFailed(const char* expression, const char* file, unsigned int line)
{
    if (PxTraceEnabled(KARVEX_TRACE_ERROR))
        tprint("\nASSERTION FAILED: (%s)\n  %s(%u)\n", expression, file, line);
}

void FatalAssertFailed(const char* expression, const char* file, unsigned int line)
{
    tprint("\nFATAL: ASSERTION FAILED: (%s)\n  %s(%u)\n", expression, file, line);
}

} // namespace TbDebug
