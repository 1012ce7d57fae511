// Private part of EmuHidDevice: where the device sits in the testbed.
#pragma once

#include <memory>
#include <string>

#include "EmuHidDevice.h"
#include "EmuHidDeviceCore.h"
#include "EmuTestbedImpl.h"

typedef struct _UMockdevIoctlBase UMockdevIoctlBase;

namespace kemu {

struct EmuHidDevice::Impl {
    // index: N of /dev/hidrawN; port: the USB port ("1-2"), ignored without USB parent.
    Impl(EmuTestbed::Impl& testbed, const EmuHidDeviceConfig& config, int index, std::string port);
    ~Impl();

    void Plug(bool uevents);
    void Unplug(bool uevents);
    EmuHidDeviceCore::Identity MakeIdentity() const;
    std::string NodeRealPath() const;

    EmuTestbed::Impl& testbed;
    EmuHidDeviceConfig config; // as created; the live descriptor is in the core
    const int hidrawIndex;
    const std::string usbPort;
    std::shared_ptr<EmuHidDeviceCore> core;
    UMockdevIoctlBase* handler = nullptr;

    // Plug state; changed only with testbed.mutex held.
    bool plugged = false;
    std::string usbSyspath;
    std::string interfaceSyspath;
    std::string hidSyspath;
    std::string hidrawSyspath;
};

} // namespace kemu
