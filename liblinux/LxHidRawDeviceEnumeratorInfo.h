// What the enumeration keeps about one hidraw device: its node and the facts
// of the USB device and USB interface above it.
#pragma once

#include "libtb/TbDList.h"
#include "libtb/TbTypes.h"

class LxHidRawDeviceEnumeratorInfo {
public:
    LxHidRawDeviceEnumeratorInfo();
    LxHidRawDeviceEnumeratorInfo(const LxHidRawDeviceEnumeratorInfo&) = delete;
    LxHidRawDeviceEnumeratorInfo& operator=(const LxHidRawDeviceEnumeratorInfo&) = delete;

    // Zeroes every data field. The list link is left alone: a record that is
    // in a list stays there.
    void Reset();

    TbDListEntry<LxHidRawDeviceEnumeratorInfo> mListEntry;
    char mDevicePath[256];     // hidraw device node, e.g. /dev/hidraw3
    T_UINT16 mVID;
    T_UINT16 mPID;
    T_UINT16 mBcdDevice;       // 0 when the attribute is missing
    char mManufacturer[128];   // empty when missing
    char mProduct[128];
    char mSerial[128];
    char mInterface[128];      // interface string, else the product string
    T_INT32 mInterfaceNumber;
};
