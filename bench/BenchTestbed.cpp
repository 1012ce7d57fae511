#include "BenchTestbed.h"

#include <unistd.h>

#include <cstdio>

#include "BenchHidrawShim.h"
#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"

namespace kbench {

BenchTestbed::BenchTestbed(unsigned adapters, unsigned others) : mTestbed(std::make_unique<kemu::EmuTestbed>())
{
    const unsigned total = adapters + others;
    std::vector<bool> isAdapter(total, false);
    for (unsigned i = 0; i < adapters; ++i) {
        unsigned position = i;
        if (adapters > 1 && others > 0)
            position = i == 0 ? 0 : (i == adapters - 1 ? total - 1 : i * (total - 1) / (adapters - 1));
        isAdapter[position] = true;
    }
    static const std::uint16_t cPids[] = {KARVEX_USB_PRODUCT_ID_1, KARVEX_USB_PRODUCT_ID_2, KARVEX_USB_PRODUCT_ID_3};
    unsigned adapterIndex = 0;
    for (unsigned i = 0; i < total; ++i) {
        if (!isAdapter[i]) {
            AddDeviceLink(mTestbed->AddDevice(kemu::ForeignDeviceConfig(), true, false));
            continue;
        }
        char serial[32];
        std::snprintf(serial, sizeof serial, "KVXB%05u", adapterIndex + 1);
        const std::uint16_t pid = cPids[adapterIndex % 3];
        kemu::EmuHidDevice& device = mTestbed->AddDevice(kemu::AdapterConfig(pid, serial), true, false);
        AddDeviceLink(device);
        mFirmware.push_back(std::make_unique<BenchFirmware>());
        BenchHidrawShim::Node node;
        node.path = device.DevNode();
        node.firmware = mFirmware.back().get();
        node.reportDescriptor = device.ReportDescriptor();
        node.vid = device.Config().vid;
        node.pid = device.Config().pid;
        node.name = device.Config().manufacturer + " " + device.Config().product;
        node.phys = "usb-0000:00:14.0-" + std::to_string(i + 2) + "/input0";
        BenchHidrawShim::ServeNode(node);
        mPaths.push_back(node.path);
        ++adapterIndex;
    }
    mDeviceCount = total;
}

BenchTestbed::~BenchTestbed() = default;

void BenchTestbed::AddDeviceLink(kemu::EmuHidDevice& device)
{
    // The kernel gives every hidraw class device a "device" link to its hid
    // parent; hidapi's filtered enumeration reads the parent's uevent through
    // it and skips devices without one.
    const std::string link = mTestbed->RootDir() + device.SysPath() + "/device";
    if (symlink("../..", link.c_str()) != 0)
        std::perror(link.c_str());
}

} // namespace kbench
