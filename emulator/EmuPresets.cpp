// Ready-made device configurations for tests, examples and karvex-emu.
#include "EmuHidDevice.h"

#include "karvex/karvex_api.h"

namespace kemu {

EmuHidDeviceConfig AdapterConfig(std::uint16_t pid, const std::string& serial)
{
    EmuHidDeviceConfig config;
    config.vid = KARVEX_USB_VENDOR_ID;
    config.pid = pid;
    config.serial = serial;
    config.reportDescriptor = AdapterReportDescriptor(320, 320);
    return config;
}

EmuHidDeviceConfig Adapter64Config()
{
    EmuHidDeviceConfig config = AdapterConfig();
    // 64-byte reports counting the report ID byte, as hidraw moves them:
    // 63 data bytes each in the descriptor.
    config.reportDescriptor = AdapterReportDescriptor(63, 63);
    return config;
}

EmuHidDeviceConfig NumberedAdapterConfig()
{
    EmuHidDeviceConfig config = AdapterConfig();
    config.reportDescriptor = AdapterReportDescriptor(320, 320, 1);
    return config;
}

EmuHidDeviceConfig NoOutputReportConfig()
{
    EmuHidDeviceConfig config = AdapterConfig();
    config.reportDescriptor = AdapterReportDescriptor(320, 0);
    return config;
}

EmuHidDeviceConfig ForeignDeviceConfig()
{
    EmuHidDeviceConfig config;
    config.vid = 0x1A2C;
    config.pid = 0x2124;
    config.bcdDevice = 0x0110;
    config.manufacturer = "SEM";
    config.product = "USB Keyboard";
    config.serial.reset();
    config.interfaceName.reset();
    // The boot keyboard descriptor: 8-byte input report, 1-byte LED output report.
    config.reportDescriptor = {
        0x05, 0x01, 0x09, 0x06, 0xA1, 0x01, 0x05, 0x07, 0x19, 0xE0, 0x29, 0xE7, 0x15, 0x00, 0x25, 0x01,
        0x75, 0x01, 0x95, 0x08, 0x81, 0x02, 0x95, 0x01, 0x75, 0x08, 0x81, 0x01, 0x95, 0x05, 0x75, 0x01,
        0x05, 0x08, 0x19, 0x01, 0x29, 0x05, 0x91, 0x02, 0x95, 0x01, 0x75, 0x03, 0x91, 0x01, 0x95, 0x06,
        0x75, 0x08, 0x15, 0x00, 0x25, 0x65, 0x05, 0x07, 0x19, 0x00, 0x29, 0x65, 0x81, 0x00, 0xC0,
    };
    return config;
}

std::vector<EmuHidDeviceConfig> CompositeDeviceConfigs()
{
    EmuHidDeviceConfig first = AdapterConfig(KARVEX_USB_PRODUCT_ID_1, "KVX0C0001");
    first.usbPort = "1-7";
    first.interfaceNumber = 0;
    first.interfaceName = std::string("Karvex HID");
    EmuHidDeviceConfig second = first;
    second.interfaceNumber = 1;
    second.interfaceName = std::string("Karvex HID 2");
    return {first, second};
}

EmuHidDeviceConfig NoUsbParentConfig()
{
    EmuHidDeviceConfig config = AdapterConfig(KARVEX_USB_PRODUCT_ID_1, "KVXBT0001");
    config.usbParent = false;
    return config;
}

} // namespace kemu
