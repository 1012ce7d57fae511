// Fixed-width integer names used throughout the library, and the status type.
#pragma once

#include <cstddef>
#include <cstdint>

#include "karvex/karvex_api.h"

typedef std::uint8_t T_UINT8;
typedef std::int8_t T_INT8;
typedef std::uint16_t T_UINT16;
typedef std::int16_t T_INT16;
typedef std::uint32_t T_UINT32;
typedef std::int32_t T_INT32;
typedef std::uint64_t T_UINT64;
typedef std::int64_t T_INT64;

// A failed system call's errno folded into the TSTATUS_LINUX_* block.
inline TSTATUS TStatusFromErrno(int errnum)
{
    return KARVEX_TSTATUS_FROM_ERRNO(errnum);
}
