// One emulated HID device: USB device -> USB interface -> hid -> hidraw chain
// in the testbed, a queue of input reports, a hook that sees every output
// report, answers to the hidraw ioctls, and faults on demand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EmuReportDescriptor.h"

namespace kemu {

struct EmuHidDeviceConfig {
    std::uint16_t vid = 0x1209;
    std::uint16_t pid = 0x7A01;
    std::uint16_t bcdDevice = 0x0100;
    std::string manufacturer = "Karvex";
    std::string product = "Karvex GPIO/I2C Adapter";
    std::optional<std::string> serial = std::string("KVX000001"); // nullopt: no "serial" attribute
    int interfaceNumber = 0;
    std::optional<std::string> interfaceName = std::string("Karvex HID"); // nullopt: no "interface" attribute
    int hidrawIndex = -1;  // N of /dev/hidrawN; -1 lets the testbed choose
    std::string usbPort;   // e.g. "1-2"; empty lets the testbed choose. Composite devices share one port.
    bool usbParent = true; // false: a hidraw device with no USB ancestors (as over Bluetooth)
    std::vector<std::uint8_t> reportDescriptor;
};

// Report descriptor of a vendor-page device with one input and one output
// report of the given data lengths (0 omits that direction); a non-zero
// reportId numbers both reports.
std::vector<std::uint8_t> AdapterReportDescriptor(unsigned inputLength, unsigned outputLength, unsigned reportId = 0);

// Presets.
EmuHidDeviceConfig AdapterConfig(std::uint16_t pid = 0x7A01, const std::string& serial = "KVX000001"); // 320/320 unnumbered
EmuHidDeviceConfig Adapter64Config();         // 64-byte input and output reports
EmuHidDeviceConfig NumberedAdapterConfig();   // report ID 1, 320-byte reports
EmuHidDeviceConfig NoOutputReportConfig();    // input report only
EmuHidDeviceConfig ForeignDeviceConfig();     // another VID/PID (a keyboard-like HID device)
std::vector<EmuHidDeviceConfig> CompositeDeviceConfigs(); // two HID interfaces of one USB device
EmuHidDeviceConfig NoUsbParentConfig();       // hidraw without USB parent

class EmuHidDevice {
public:
    // Called on the emulator's handler thread with every written output
    // report exactly as written (report ID byte first), before write()
    // returns. It may inject input and may replace itself; SetWriteHook()
    // from another thread waits until a running hook has returned.
    using WriteHook = std::function<void(const std::uint8_t* report, std::size_t length)>;

    ~EmuHidDevice();
    EmuHidDevice(const EmuHidDevice&) = delete;
    EmuHidDevice& operator=(const EmuHidDevice&) = delete;

    const EmuHidDeviceConfig& Config() const;
    std::string DevNode() const;     // "/dev/hidrawN"
    int HidrawIndex() const;         // N
    std::string UsbPort() const;     // the port the device plugs into ("1-N")
    std::string SysPath() const;     // syspath of the hidraw device (empty while unplugged)
    // Syspaths of its parents (empty while unplugged, or without USB parent).
    std::string UsbDeviceSysPath() const;
    std::string InterfaceSysPath() const;
    std::string HidSysPath() const;
    bool IsPlugged() const;
    // The report descriptor now in effect, and what it says about the reports.
    std::vector<std::uint8_t> ReportDescriptor() const;
    EmuReportLayout ReportLayout() const;

    // Plug adds the sysfs chain and the node; unplug removes them. After an
    // unplug, open descriptors behave as on a real unplug: read gives EIO,
    // write and ioctl ENODEV, poll POLLERR|POLLHUP; they stay dead after a
    // replug. "add" uevents go out parent first, "remove" uevents child first;
    // a removed device has left the enumeration before its "remove" uevent.
    // Both are no-ops when the device is already in that state.
    void Plug(bool uevents = true);
    void Unplug(bool uevents = true);
    // Sends a "change" uevent for the hidraw device (an action the library must ignore).
    void SendUevent(const char* action);

    // Queues one input report (as read() will return it: for numbered reports
    // the ID byte first). Thread-safe; may be called from the write hook.
    // As with hidraw, every open descriptor gets its own copy and keeps at
    // most 63 unread reports (further ones are dropped for it); reports sent
    // while no descriptor is open wait for the next one to open. Reports sent
    // while unplugged are lost.
    void InjectInputReport(const std::uint8_t* data, std::size_t length);
    void InjectInputReport(const std::vector<std::uint8_t>& data) { InjectInputReport(data.data(), data.size()); }
    // Reports the slowest open descriptor has not read yet.
    std::size_t PendingInputReports() const;
    void ClearInputReports();
    // Descriptors open on the node (as umockdev has seen them connect).
    std::size_t OpenDescriptorCount() const;

    void SetWriteHook(WriteHook hook);

    // Faults. An errno of 0 clears the fault.
    // That ioctl fails with errnum; a request with size 0 (e.g.
    // HIDIOCGRAWNAME(0)) stands for that ioctl with any size.
    void FailIoctl(unsigned long request, int errnum);
    void FailReads(int errnum);                        // every read fails with errnum
    void FailWrites(int errnum);                       // every write fails with errnum
    // Overrides what HIDIOCGRDESCSIZE reports (the real descriptor is still returned by HIDIOCGRDESC, cut to the size asked).
    void OverrideDescriptorSize(std::optional<int> size);
    // Replaces the report descriptor (takes effect for the next ioctl).
    void SetReportDescriptor(const std::vector<std::uint8_t>& descriptor);
    // File mode of the device node (e.g. 0000 for a node nobody may open).
    // The default is 0666. open() checks it as for any file: a process with
    // CAP_DAC_OVERRIDE (root) opens the node whatever its mode.
    void SetNodeMode(unsigned int mode);

    // Counters.
    std::uint64_t WriteCount() const;
    std::uint64_t ReadCount() const;

    struct Impl;
    explicit EmuHidDevice(std::unique_ptr<Impl> impl);

private:
    std::unique_ptr<Impl> mImpl;
};

} // namespace kemu
