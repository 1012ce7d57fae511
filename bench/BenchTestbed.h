// The emulated hidraw world of one benchmark run: a umockdev testbed with
// `adapters` Karvex adapters among `others` foreign HID devices (keyboards).
// udev finds all of them through umockdev; the adapters' nodes are served by
// BenchHidrawShim, each with its own BenchFirmware.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "BenchFirmware.h"

namespace kemu {
class EmuHidDevice;
class EmuTestbed;
} // namespace kemu

namespace kbench {

class BenchTestbed {
public:
    // The adapters are spread over the device list (first, last, then evenly
    // in between) so that enumeration finds them anywhere in it.
    BenchTestbed(unsigned adapters, unsigned others);
    ~BenchTestbed();
    BenchTestbed(const BenchTestbed&) = delete;
    BenchTestbed& operator=(const BenchTestbed&) = delete;

    unsigned AdapterCount() const { return static_cast<unsigned>(mPaths.size()); }
    unsigned DeviceCount() const { return mDeviceCount; }
    const std::string& Path(unsigned adapter) const { return mPaths.at(adapter); }
    BenchFirmware& Firmware(unsigned adapter) { return *mFirmware.at(adapter); }

private:
    void AddDeviceLink(kemu::EmuHidDevice& device);

    std::unique_ptr<kemu::EmuTestbed> mTestbed;
    std::vector<std::unique_ptr<BenchFirmware>> mFirmware;
    std::vector<std::string> mPaths;
    unsigned mDeviceCount = 0;
};

} // namespace kbench
