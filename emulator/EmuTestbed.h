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
    // Destroys the devices quietly (no uevents). Close every descriptor of
    // the devices first: umockdev answers for them on a thread the testbed
    // owns. Should one still be open (after a first read, write or ioctl),
    // the umockdev side is kept alive, with a warning on stderr, so that the
    // descriptor gets the errors of an unplugged device rather than block.
    ~EmuTestbed();
    EmuTestbed(const EmuTestbed&) = delete;
    EmuTestbed& operator=(const EmuTestbed&) = delete;

    // True when the umockdev preload library is active in this process.
    static bool InMockEnvironment();

    // Creates a device. With plug true it is plugged at once (with uevents when
    // uevents is true). A hidrawIndex of -1 in the config takes the lowest
    // index no other device of the testbed has; an empty usbPort the lowest
    // free port "1-N". The device keeps both for its life.
    // The testbed owns the device; the reference stays valid until the testbed dies.
    // Adding, plugging and unplugging are meant for one thread (the test's).
    // The testbed lives in a temporary directory; the root directory is made
    // world-readable so that a process without privileges reaches the nodes.
    EmuHidDevice& AddDevice(const EmuHidDeviceConfig& config, bool plug = true, bool uevents = true);

    const std::vector<std::unique_ptr<EmuHidDevice>>& Devices() const;
    // Root directory of the fake file system (for chmod of nodes etc.).
    std::string RootDir() const;

    struct Impl;

private:
    std::unique_ptr<Impl> mImpl;
};

} // namespace kemu
