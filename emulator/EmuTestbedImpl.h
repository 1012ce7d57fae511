// Private part of EmuTestbed, shared with EmuHidDevice: the umockdev testbed,
// the fake sysfs and the bookkeeping that several devices share (USB devices
// of composite devices, hidraw indexes, USB ports, hid device serials).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "EmuSysfs.h"
#include "EmuTestbed.h"

typedef struct _UMockdevTestbed UMockdevTestbed;

namespace kemu {

struct EmuTestbed::Impl {
    struct UsbDevice {
        std::string port;
        std::string syspath;
        unsigned users = 0;
    };

    Impl();
    ~Impl();

    // Sends a uevent for a device that still has its sysfs directory.
    void Uevent(const std::string& syspath, const char* action);
    // The index N of the next free /dev/hidrawN, and the next free port "1-N".
    int FreeHidrawIndex() const;
    std::string FreeUsbPort() const;

    UMockdevTestbed* testbed = nullptr;
    std::string root;
    // Serialises plugging and unplugging of all devices of the testbed.
    std::mutex mutex;
    EmuSysfs sysfs;
    std::vector<UsbDevice> usbDevices;
    unsigned nextHidSerial = 1;
    unsigned nextUsbDevnum = 2; // 1 is the root hub
    std::vector<std::unique_ptr<EmuHidDevice>> devices;
};

} // namespace kemu
