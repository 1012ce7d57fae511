// The snapshot of attached adapters that the API object hands out indexes
// into, and the type a device is opened from.
#pragma once

#include "liblinux/LxHidRawDeviceEnumerator.h"

class KarvexDeviceEnumerator : public LxHidRawDeviceEnumerator {
public:
    KarvexDeviceEnumerator() = default;
    ~KarvexDeviceEnumerator() override = default;
};
