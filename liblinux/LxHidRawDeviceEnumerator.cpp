#include "liblinux/LxHidRawDeviceEnumerator.h"

#include <cstdlib>
#include <new>

#include "liblinux/LxUdevContextGlobal.h"
#include "liblinux/LxUdevDevice.h"
#include "liblinux/LxUdevEnumerator.h"
#include "liblinux/LxUdevList.h"
#include "libposix/PxTrace.h"
#include "libtb/TbStringUtils.h"

namespace {

// Devices without a node (USB device and interface) give null, which must
// not reach the formatter.
const char* OrNull(const char* s)
{
    return s != nullptr ? s : "(null)";
}

T_UINT32 ParseHex(const char* text)
{
    return static_cast<T_UINT32>(std::strtol(text, nullptr, 16));
}

} // namespace

LxHidRawDeviceEnumerator::LxHidRawDeviceEnumerator() : mDeviceCount(0) {}

LxHidRawDeviceEnumerator::~LxHidRawDeviceEnumerator()
{
    ClearList();
}

TSTATUS LxHidRawDeviceEnumerator::EnumerateHidRawDevices(const TbUsbVidPidList* filter)
{
    ClearList();

    // One pass over the shared context at a time, against application
    // threads and the hot-plug thread alike.
    PxMutexLock udevLock(LxUdevContextGlobal::GetLock());
    LxUdevContext& ctx = LxUdevContextGlobal::GetContext();
    LxUdevEnumerator enumerator;
    if (!enumerator.Init(ctx)) {
        PXTRACE_ERROR("%s: enumerator init failed\n");
        return TSTATUS_FAILED;
    }
    int r = enumerator.AddMatchSubsystem("hidraw");
    if (r != 0) {
        PXTRACE_ERROR("%s: enumerator.AddMatchSubsystem('hidraw') failed (%d)\n", r);
        return TSTATUS_FAILED;
    }
    r = enumerator.ScanDevices();
    if (r != 0) {
        PXTRACE_ERROR("%s: enumerator.ScanDevices failed (%d)\n", r);
        return TSTATUS_FAILED;
    }

    LxUdevList list(enumerator.GetListEntry());
    for (const char* syspath = list.GetNextName(); syspath != nullptr; syspath = list.GetNextName()) {
        // The three wrappers live for one pass and release their devices on
        // every path out of it.
        LxUdevDevice hidrawDev;
        if (!hidrawDev.InitFromSyspath(ctx, syspath)) {
            PXTRACE_ERROR("%s: dev.InitFromSyspath failed\n");
            continue;
        }
        LxUdevDevice interfaceDev;
        if (!interfaceDev.InitWithGetParentWithSubsystemDevtype(hidrawDev, "usb", "usb_interface")) {
            // Not on USB (Bluetooth, I2C, uhid...).
            PXTRACE_ERROR("%s: dev.InitWithGetParentWithSubsystemDevtype usb_interface failed\n");
            continue;
        }
        LxUdevDevice usbDev;
        if (!usbDev.InitWithGetParentWithSubsystemDevtype(hidrawDev, "usb", "usb_device")) {
            PXTRACE_ERROR("%s: dev.InitWithGetParentWithSubsystemDevtype usb_device failed\n");
            continue;
        }

        const char* vidStr = usbDev.GetSysattrValue("idVendor");
        const char* pidStr = usbDev.GetSysattrValue("idProduct");
        if (vidStr == nullptr || pidStr == nullptr) {
            PXTRACE_ERROR("%s: can not get VID/PID\n");
            continue;
        }
        T_UINT16 vid = static_cast<T_UINT16>(ParseHex(vidStr) & 0xFFFF);
        T_UINT16 pid = static_cast<T_UINT16>(ParseHex(pidStr) & 0xFFFF);

        const char* bcdStr = usbDev.GetSysattrValue("bcdDevice");
        T_UINT16 bcdDevice = bcdStr != nullptr ? static_cast<T_UINT16>(ParseHex(bcdStr) & 0xFFFF) : 0;
        const char* manufacturer = usbDev.GetSysattrValue("manufacturer");
        const char* product = usbDev.GetSysattrValue("product");
        const char* serial = usbDev.GetSysattrValue("serial");
        const char* interfaceNumberStr = interfaceDev.GetSysattrValue("bInterfaceNumber");
        const char* interfaceStr = interfaceDev.GetSysattrValue("interface");
        if (interfaceNumberStr == nullptr) {
            PXTRACE_ERROR("%s: can not get interface number\n");
            continue;
        }
        // sysfs gives the number as two hex digits.
        T_INT32 interfaceNumber = static_cast<T_INT32>(ParseHex(interfaceNumberStr));

        if (PxTraceEnabled(KARVEX_TRACE_VERBOSE)) {
            PXTRACE_VERBOSE("%s: hidraw:          '%.1024s'\n", OrNull(hidrawDev.GetDevnode()));
            PXTRACE_VERBOSE("%s: usb_device:      '%.1024s'\n", OrNull(usbDev.GetDevnode()));
            PXTRACE_VERBOSE("%s: usb_interface:   '%.1024s'\n", OrNull(interfaceDev.GetDevnode()));
            PXTRACE_VERBOSE("%s: hidraw:          '%.1024s'\n", OrNull(hidrawDev.GetDevpath()));
            PXTRACE_VERBOSE("%s: usb_device:      '%.1024s'\n", OrNull(usbDev.GetDevpath()));
            PXTRACE_VERBOSE("%s: usb_interface:   '%.1024s'\n", OrNull(interfaceDev.GetDevpath()));
            PXTRACE_VERBOSE("%s: manufacturer:    '%.1024s'\n", OrNull(manufacturer));
            PXTRACE_VERBOSE("%s: product:         '%.1024s'\n", OrNull(product));
            PXTRACE_VERBOSE("%s: serial:          '%.1024s'\n", OrNull(serial));
            PXTRACE_VERBOSE("%s: vid:             0x%04x\n", vid);
            PXTRACE_VERBOSE("%s: pid:             0x%04x\n", pid);
            PXTRACE_VERBOSE("%s: bcd_device:      0x%04x\n", bcdDevice);
            PXTRACE_VERBOSE("%s: interface:       0x%02x\n", interfaceNumber);
            PXTRACE_VERBOSE("%s: interface_str:   '%.1024s'\n", OrNull(interfaceStr));
        }

        if (filter != nullptr && !filter->IsVidPidContained(vid, pid)) {
            PXTRACE_VERBOSE("%s: ignore device\n");
            continue;
        }

        const char* devnode = hidrawDev.GetDevnode();
        LxHidRawDeviceEnumeratorInfo* info = new (std::nothrow) LxHidRawDeviceEnumeratorInfo;
        if (info == nullptr) {
            PXTRACE_ERROR("%s: allocate device info failed\n");
            continue;
        }
        if (devnode != nullptr)
            TbStringNCopy(info->mDevicePath, devnode, sizeof(info->mDevicePath));
        info->mVID = vid;
        info->mPID = pid;
        info->mBcdDevice = bcdDevice;
        if (manufacturer != nullptr)
            TbStringNCopy(info->mManufacturer, manufacturer, sizeof(info->mManufacturer));
        if (product != nullptr)
            TbStringNCopy(info->mProduct, product, sizeof(info->mProduct));
        if (serial != nullptr)
            TbStringNCopy(info->mSerial, serial, sizeof(info->mSerial));
        if (interfaceStr != nullptr)
            TbStringNCopy(info->mInterface, interfaceStr, sizeof(info->mInterface));
        else if (product != nullptr)
            TbStringNCopy(info->mInterface, product, sizeof(info->mInterface));
        info->mInterfaceNumber = interfaceNumber;
        PXTRACE_VERBOSE("%s: add device to list\n");
        mDeviceList.InsertTail(info);
        ++mDeviceCount;
    }
    return TSTATUS_SUCCESS;
}

T_UINT32 LxHidRawDeviceEnumerator::DeviceCount() const
{
    return mDeviceCount;
}

const LxHidRawDeviceEnumeratorInfo* LxHidRawDeviceEnumerator::DeviceInfo(unsigned index) const
{
    if (index >= mDeviceCount) {
        PXTRACE_ERROR("%s: invalid device index %u (max %u)\n", index, mDeviceCount);
        return nullptr;
    }
    const LxHidRawDeviceEnumeratorInfo* info = mDeviceList.Head();
    for (unsigned i = 0; i < index && info != nullptr; ++i)
        info = mDeviceList.Next(info);
    return info;
}

const char* LxHidRawDeviceEnumerator::DevicePath(unsigned index)
{
    const LxHidRawDeviceEnumeratorInfo* info = DeviceInfo(index);
    if (info == nullptr) {
        PXTRACE_ERROR("%s: invalid device index %u\n", index);
        return nullptr;
    }
    return info->mDevicePath;
}

T_UINT16 LxHidRawDeviceEnumerator::VID(unsigned index)
{
    const LxHidRawDeviceEnumeratorInfo* info = DeviceInfo(index);
    if (info == nullptr) {
        PXTRACE_ERROR("%s: invalid device index %u\n", index);
        return 0;
    }
    return info->mVID;
}

T_UINT16 LxHidRawDeviceEnumerator::PID(unsigned index)
{
    const LxHidRawDeviceEnumeratorInfo* info = DeviceInfo(index);
    if (info == nullptr) {
        PXTRACE_ERROR("%s: invalid device index %u\n", index);
        return 0;
    }
    return info->mPID;
}

T_UINT16 LxHidRawDeviceEnumerator::bcdDevice(unsigned index)
{
    const LxHidRawDeviceEnumeratorInfo* info = DeviceInfo(index);
    if (info == nullptr) {
        PXTRACE_ERROR("%s: invalid device index %u\n", index);
        return 0;
    }
    return info->mBcdDevice;
}

const char* LxHidRawDeviceEnumerator::SerialNumberString(unsigned index) const
{
    const LxHidRawDeviceEnumeratorInfo* info = DeviceInfo(index);
    if (info == nullptr) {
        PXTRACE_ERROR("%s: invalid device index %u\n", index);
        return nullptr;
    }
    return info->mSerial;
}

TSTATUS LxHidRawDeviceEnumerator::FindIndexForDevicePath(const char* path, unsigned& index)
{
    unsigned i = 0;
    for (const LxHidRawDeviceEnumeratorInfo* info = mDeviceList.Head(); info != nullptr;
         info = mDeviceList.Next(info), ++i) {
        if (TbStringEqualIgnoreCase(path, info->mDevicePath)) {
            index = i;
            return TSTATUS_SUCCESS;
        }
    }
    return TSTATUS_OBJECT_NOT_FOUND;
}

bool LxHidRawDeviceEnumerator::IsDeviceListEqual(const LxHidRawDeviceEnumerator& other) const
{
    if (mDeviceCount != other.mDeviceCount)
        return false;
    for (unsigned i = 0; i < mDeviceCount; ++i) {
        const LxHidRawDeviceEnumeratorInfo* info = DeviceInfo(i);
        if (info == nullptr) {
            PXTRACE_ERROR("%s: DeviceInfo==NULL\n");
            return false;
        }
        bool found = false;
        for (unsigned j = 0; j < other.mDeviceCount && !found; ++j) {
            const LxHidRawDeviceEnumeratorInfo* otherInfo = other.DeviceInfo(j);
            if (otherInfo == nullptr) {
                PXTRACE_ERROR("%s: other.DeviceInfo==NULL\n");
                return false;
            }
            found = TbStringEqualIgnoreCase(info->mDevicePath, otherInfo->mDevicePath);
        }
        if (!found)
            return false;
    }
    return true;
}

void LxHidRawDeviceEnumerator::ClearList()
{
    for (LxHidRawDeviceEnumeratorInfo* info = mDeviceList.RemoveHead(); info != nullptr;
         info = mDeviceList.RemoveHead())
        delete info;
    mDeviceCount = 0;
}

bool LxHidRawDeviceEnumerator::RemoveDevicePath(const char* path)
{
    for (LxHidRawDeviceEnumeratorInfo* info = mDeviceList.Head(); info != nullptr; info = mDeviceList.Next(info)) {
        if (TbStringEqualIgnoreCase(path, info->mDevicePath)) {
            mDeviceList.Remove(info);
            delete info;
            --mDeviceCount;
            return true;
        }
    }
    return false;
}

void LxHidRawDeviceEnumerator::MergeFrom(LxHidRawDeviceEnumerator& fresh)
{
    for (LxHidRawDeviceEnumeratorInfo* info = fresh.mDeviceList.Head(); info != nullptr;
         info = fresh.mDeviceList.Next(info))
        RemoveDevicePath(info->mDevicePath);
    for (LxHidRawDeviceEnumeratorInfo* info = fresh.mDeviceList.RemoveHead(); info != nullptr;
         info = fresh.mDeviceList.RemoveHead()) {
        mDeviceList.InsertTail(info);
        ++mDeviceCount;
    }
    fresh.mDeviceCount = 0;
}
