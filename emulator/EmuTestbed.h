// Emulated hidraw devices for tests, examples and karvex-emu.
//
// Runs inside a process started under umockdev (umockdev-wrapper, or the
// preload library in LD_PRELOAD): the testbed fakes sysfs, /dev/hidrawN and
// the udev netlink, so the real, unchanged library finds and drives these
// devices through libudev and the hidraw system calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "EmuHidDevice.h"

namespace kemu {

class EmuTestbed {
public:
    EmuTestbed();
    ~EmuTestbed();
    EmuTestbed(const EmuTestbed&) = delete;
    EmuTestbed& operator=(const EmuTestbed&) = delete;

    // True when the umockdev preload library is active in this process.
    static bool InMockEnvironment();

    // Creates a device. With plug true it is plugged at once (with uevents when
    // uevents is true). A hidrawIndex of -1 in the config takes the next free index.
    // The testbed owns the device; the reference stays valid until the testbed dies.
    EmuHidDevice& AddDevice(const EmuHidDeviceConfig& config, bool plug = true, bool uevents = true);

    const std::vector<std::unique_ptr<EmuHidDevice>>& Devices() const;
    // Root directory of the fake file system (for chmod of nodes etc.).
    std::string RootDir() const;

    struct Impl;

private:
    std::unique_ptr<Impl> mImpl;
};

} // namespace kemu
