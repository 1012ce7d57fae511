// A snapshot of the USB hidraw devices udev knows, filtered by (VID, PID).
// Indexes are positions in the current snapshot; every pointer handed out is
// valid until the next enumeration or ClearList().
#pragma once

#include "liblinux/LxHidRawDeviceEnumeratorInfo.h"
#include "libtb/TbDList.h"
#include "libtb/TbTypes.h"
#include "libtb/TbUsbVidPid.h"

class LxHidRawDeviceEnumerator {
public:
    LxHidRawDeviceEnumerator();
    virtual ~LxHidRawDeviceEnumerator();
    LxHidRawDeviceEnumerator(const LxHidRawDeviceEnumerator&) = delete;
    LxHidRawDeviceEnumerator& operator=(const LxHidRawDeviceEnumerator&) = delete;

    // Rebuilds the list; a null filter accepts every USB hidraw device, an
    // empty one none. The old list is dropped even when this fails.
    TSTATUS EnumerateHidRawDevices(const TbUsbVidPidList* filter);

    T_UINT32 DeviceCount() const;
    // Null (and a trace) when index >= DeviceCount().
    const LxHidRawDeviceEnumeratorInfo* DeviceInfo(unsigned index) const;
    const char* DevicePath(unsigned index);
    T_UINT16 VID(unsigned index);
    T_UINT16 PID(unsigned index);
    T_UINT16 bcdDevice(unsigned index);
    const char* SerialNumberString(unsigned index) const;

    // Position of the first record whose path equals path ignoring case;
    // TSTATUS_OBJECT_NOT_FOUND leaves index unchanged.
    TSTATUS FindIndexForDevicePath(const char* path, unsigned& index);
    // Same set of device paths (ignoring case and order).
    bool IsDeviceListEqual(const LxHidRawDeviceEnumerator& other) const;

    void ClearList();

    // Drops the first record whose path equals path ignoring case; false
    // when there is none.
    bool RemoveDevicePath(const char* path);
    // Takes over every record of fresh (fresh ends empty). A record of this
    // list whose path fresh also lists is replaced; the others are kept, in
    // front of fresh's records.
    void MergeFrom(LxHidRawDeviceEnumerator& fresh);

private:
    TbDListX<LxHidRawDeviceEnumeratorInfo, &LxHidRawDeviceEnumeratorInfo::mListEntry> mDeviceList;
    T_UINT32 mDeviceCount;
};
