// Millisecond sleep and timespec arithmetic.
#pragma once

#include <time.h>

#include "libtb/TbTypes.h"

// Sleeps once; a signal cuts the sleep short with TSTATUS_LINUX_EINTR (no
// retry). Failures are traced on the error class.
TSTATUS PxSleep(unsigned int milliseconds);

// result = x - y; true when the difference is negative (x lies before y).
bool SubtractTimespec(timespec x, timespec y, timespec& result);
