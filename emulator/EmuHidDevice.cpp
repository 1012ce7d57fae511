#include "EmuHidDevice.h"

#include "EmuHidDeviceImpl.h"

#include <linux/input.h>
#include <sys/stat.h>
#include <umockdev.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace kemu {

namespace {

constexpr unsigned cHidrawMajor = 240;
constexpr unsigned cUsbDeviceMajor = 189;
const char* const cUsbHostPath = "pci0000:00/0000:00:14.0/usb1";
const char* const cUsbBusName = "0000:00:14.0";

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

// Sysfs prints text attributes with a newline (libudev strips it).
std::string Line(const std::string& text)
{
    return text + "\n";
}

std::string Cut(const std::string& text, std::size_t fieldSize)
{
    return text.size() < fieldSize ? text : text.substr(0, fieldSize - 1);
}

} // namespace

// ---- Impl ----

EmuHidDevice::Impl::Impl(EmuTestbed::Impl& tb, const EmuHidDeviceConfig& cfg, int index, std::string port)
    : testbed(tb), config(cfg), hidrawIndex(index), usbPort(std::move(port)),
      core(std::make_shared<EmuHidDeviceCore>(cfg.reportDescriptor)), handler(umockdev_ioctl_base_new())
{
    EmuHidDeviceCore::ConnectSignals(handler, core);
    // The handler stays attached for the life of the testbed. Detaching it
    // at an unplug would close umockdev's listening socket, and a descriptor
    // opened just before, whose connection umockdev had not accepted yet,
    // would be reset: the preload library aborts the process on that. While
    // unplugged, the missing node keeps new opens away, and connections
    // accepted late are dead from the start.
    const std::string devnode = Format("/dev/hidraw%d", hidrawIndex);
    GError* error = nullptr;
    if (!umockdev_testbed_attach_ioctl(testbed.testbed, devnode.c_str(), handler, &error)) {
        std::fprintf(stderr, "kemu: attaching the handler to %s failed: %s\n", devnode.c_str(),
                     error != nullptr ? error->message : "?");
        std::abort();
    }
    // Processes that dropped their privileges must still reach the handler:
    // only the node's own mode decides who may open it.
    chmod((testbed.root + "/ioctl" + devnode).c_str(), 0666);
}

EmuHidDevice::Impl::~Impl()
{
    Unplug(false);
    core->SetWriteHook(nullptr);
    // Descriptors still open keep the handler (and through its signal
    // connections the core) alive; they get errors as after an unplug.
    g_object_unref(handler);
}

std::string EmuHidDevice::Impl::NodeRealPath() const
{
    return testbed.root + Format("/dev/hidraw%d", hidrawIndex);
}

EmuHidDeviceCore::Identity EmuHidDevice::Impl::MakeIdentity() const
{
    EmuHidDeviceCore::Identity id;
    id.vendor = config.vid;
    id.product = config.pid;
    if (config.usbParent) {
        // As usbhid names its devices.
        id.bustype = BUS_USB;
        std::string name = config.manufacturer;
        if (!config.product.empty())
            name += (name.empty() ? "" : " ") + config.product;
        if (name.empty())
            name = Format("HID %04x:%04x", config.vid, config.pid);
        id.name = Cut(name, 128);
        const std::string devpath = usbPort.substr(usbPort.find('-') + 1);
        id.phys = Cut(Format("usb-%s-%s/input%d", cUsbBusName, devpath.c_str(), config.interfaceNumber), 64);
    } else {
        id.bustype = BUS_BLUETOOTH;
        id.name = Cut(config.product, 128);
        id.phys = Format("00:1a:7d:da:71:%02x", hidrawIndex & 0xFF);
    }
    id.uniq = Cut(config.serial.value_or(""), 64);
    return id;
}

void EmuHidDevice::Impl::Plug(bool uevents)
{
    std::lock_guard<std::mutex> lock(testbed.mutex);
    if (plugged)
        return;
    const EmuHidDeviceConfig& c = config;
    const unsigned hidSerial = testbed.nextHidSerial++;
    const std::string product = Format("%x/%x/%x", c.vid, c.pid, c.bcdDevice);
    const EmuHidDeviceCore::Identity identity = MakeIdentity();

    std::string hidParent;
    std::string hidName;
    unsigned bus = 3;
    if (c.usbParent) {
        EmuTestbed::Impl::UsbDevice* usb = nullptr;
        for (auto& u : testbed.usbDevices) {
            if (u.port == usbPort)
                usb = &u;
        }
        if (usb == nullptr) {
            const unsigned devnum = testbed.nextUsbDevnum++;
            EmuSysfs::KeyValues attrs = {
                {"idVendor", Line(Format("%04x", c.vid))},
                {"idProduct", Line(Format("%04x", c.pid))},
                {"bcdDevice", Line(Format("%04x", c.bcdDevice))},
                {"manufacturer", Line(c.manufacturer)},
                {"product", Line(c.product)},
                {"busnum", "1\n"},
                {"devnum", Line(Format("%u", devnum))},
                {"devpath", Line(usbPort.substr(usbPort.find('-') + 1))},
                {"speed", "12\n"},
                {"version", " 2.00\n"},
                {"bDeviceClass", "00\n"},
                {"bNumConfigurations", "1\n"},
                {"bConfigurationValue", "1\n"},
                {"bNumInterfaces", " 1\n"},
                {"bMaxPower", "100mA\n"},
                {"dev", Line(Format("%u:%u", cUsbDeviceMajor, devnum - 1))},
            };
            if (c.serial)
                attrs.push_back({"serial", Line(*c.serial)});
            const EmuSysfs::KeyValues props = {
                {"MAJOR", Format("%u", cUsbDeviceMajor)},
                {"MINOR", Format("%u", devnum - 1)},
                {"DEVNAME", Format("bus/usb/001/%03u", devnum)},
                {"DEVTYPE", "usb_device"},
                {"DRIVER", "usb"},
                {"PRODUCT", product},
                {"TYPE", "0/0/0"},
                {"BUSNUM", "001"},
                {"DEVNUM", Format("%03u", devnum)},
            };
            const std::string syspath = testbed.sysfs.AddDevice(
                "", std::string(cUsbHostPath) + "/" + usbPort, "usb", EmuSysfs::Kind::Bus, attrs, props);
            testbed.usbDevices.push_back({usbPort, syspath, 0});
            usb = &testbed.usbDevices.back();
            if (uevents)
                testbed.Uevent(syspath, "add");
        }
        ++usb->users;
        testbed.sysfs.SetAttribute(usb->syspath, "bNumInterfaces", Format("%2u\n", usb->users));
        usbSyspath = usb->syspath;

        const std::string modalias =
            Format("usb:v%04Xp%04Xd%04Xdc00dsc00dp00ic03isc00ip00in%02X", c.vid, c.pid, c.bcdDevice,
                   c.interfaceNumber & 0xFF);
        EmuSysfs::KeyValues attrs = {
            {"bInterfaceNumber", Line(Format("%02x", c.interfaceNumber & 0xFF))},
            {"bAlternateSetting", " 0\n"},
            {"bInterfaceClass", "03\n"},
            {"bInterfaceSubClass", "00\n"},
            {"bInterfaceProtocol", "00\n"},
            {"bNumEndpoints", "02\n"},
            {"modalias", Line(modalias)},
        };
        if (c.interfaceName)
            attrs.push_back({"interface", Line(*c.interfaceName)});
        const EmuSysfs::KeyValues props = {
            {"DEVTYPE", "usb_interface"}, {"DRIVER", "usbhid"},   {"PRODUCT", product},
            {"TYPE", "0/0/0"},            {"INTERFACE", "3/0/0"}, {"MODALIAS", modalias},
        };
        interfaceSyspath = testbed.sysfs.AddDevice(usbSyspath, Format("%s:1.%d", usbPort.c_str(), c.interfaceNumber),
                                                   "usb", EmuSysfs::Kind::Bus, attrs, props);
        if (uevents)
            testbed.Uevent(interfaceSyspath, "add");
        hidParent = interfaceSyspath;
        hidName = Format("%04X:%04X:%04X.%04X", bus, c.vid, c.pid, hidSerial);
    } else {
        // Bluetooth HID goes through uhid: a virtual device, no USB anywhere.
        bus = 5;
        hidName = Format("virtual/misc/uhid/%04X:%04X:%04X.%04X", bus, c.vid, c.pid, hidSerial);
    }

    const std::string hidModalias = Format("hid:b%04Xg0001v%08Xp%08X", bus, c.vid, c.pid);
    const std::vector<std::uint8_t> descriptor = core->ReportDescriptor();
    const EmuSysfs::KeyValues hidAttrs = {
        {"report_descriptor", std::string(descriptor.begin(), descriptor.end())},
        {"country", "00\n"},
        {"modalias", Line(hidModalias)},
    };
    const EmuSysfs::KeyValues hidProps = {
        {"DRIVER", "hid-generic"},
        {"HID_ID", Format("%04X:%08X:%08X", bus, c.vid, c.pid)},
        {"HID_NAME", identity.name},
        {"HID_PHYS", identity.phys},
        {"HID_UNIQ", identity.uniq},
        {"MODALIAS", hidModalias},
    };
    hidSyspath = testbed.sysfs.AddDevice(hidParent, hidName, "hid", EmuSysfs::Kind::Bus, hidAttrs, hidProps);
    if (uevents)
        testbed.Uevent(hidSyspath, "add");

    // The node before the hidraw device: a hot-plug listener may open it as
    // soon as it sees the device.
    core->Plugged(identity, NodeRealPath());

    const EmuSysfs::KeyValues rawAttrs = {{"dev", Line(Format("%u:%d", cHidrawMajor, hidrawIndex))}};
    const EmuSysfs::KeyValues rawProps = {
        {"MAJOR", Format("%u", cHidrawMajor)},
        {"MINOR", Format("%d", hidrawIndex)},
        {"DEVNAME", Format("hidraw%d", hidrawIndex)},
    };
    hidrawSyspath = testbed.sysfs.AddDevice(hidSyspath, Format("hidraw/hidraw%d", hidrawIndex), "hidraw",
                                            EmuSysfs::Kind::Class, rawAttrs, rawProps);
    plugged = true;
    if (uevents)
        testbed.Uevent(hidrawSyspath, "add");
}

void EmuHidDevice::Impl::Unplug(bool uevents)
{
    std::lock_guard<std::mutex> lock(testbed.mutex);
    if (!plugged)
        return;
    // Open descriptors die first, and the node goes, as in the kernel.
    core->Unplugged();

    // Children first. Each device leaves the enumeration before its
    // "remove" uevent, so a listener that re-enumerates no longer finds it.
    auto removeDevice = [&](std::string& syspath) {
        testbed.sysfs.Hide(syspath);
        if (uevents)
            testbed.Uevent(syspath, "remove");
        testbed.sysfs.Remove(syspath);
        syspath.clear();
    };
    removeDevice(hidrawSyspath);
    removeDevice(hidSyspath);
    if (config.usbParent) {
        removeDevice(interfaceSyspath);
        for (auto it = testbed.usbDevices.begin(); it != testbed.usbDevices.end(); ++it) {
            if (it->port != usbPort)
                continue;
            if (--it->users == 0) {
                removeDevice(it->syspath);
                testbed.usbDevices.erase(it);
            } else {
                testbed.sysfs.SetAttribute(it->syspath, "bNumInterfaces", Format("%2u\n", it->users));
            }
            break;
        }
        usbSyspath.clear();
    }
    plugged = false;
}

// ---- EmuHidDevice ----

EmuHidDevice::EmuHidDevice(std::unique_ptr<Impl> impl) : mImpl(std::move(impl)) {}

EmuHidDevice::~EmuHidDevice() = default;

const EmuHidDeviceConfig& EmuHidDevice::Config() const
{
    return mImpl->config;
}

std::string EmuHidDevice::DevNode() const
{
    return Format("/dev/hidraw%d", mImpl->hidrawIndex);
}

int EmuHidDevice::HidrawIndex() const
{
    return mImpl->hidrawIndex;
}

std::string EmuHidDevice::UsbPort() const
{
    return mImpl->usbPort;
}

std::string EmuHidDevice::SysPath() const
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    return mImpl->hidrawSyspath;
}

std::string EmuHidDevice::UsbDeviceSysPath() const
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    return mImpl->usbSyspath;
}

std::string EmuHidDevice::InterfaceSysPath() const
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    return mImpl->interfaceSyspath;
}

std::string EmuHidDevice::HidSysPath() const
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    return mImpl->hidSyspath;
}

bool EmuHidDevice::IsPlugged() const
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    return mImpl->plugged;
}

std::vector<std::uint8_t> EmuHidDevice::ReportDescriptor() const
{
    return mImpl->core->ReportDescriptor();
}

EmuReportLayout EmuHidDevice::ReportLayout() const
{
    return ScanReportDescriptor(mImpl->core->ReportDescriptor());
}

void EmuHidDevice::Plug(bool uevents)
{
    mImpl->Plug(uevents);
}

void EmuHidDevice::Unplug(bool uevents)
{
    mImpl->Unplug(uevents);
}

void EmuHidDevice::SendUevent(const char* action)
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    if (mImpl->plugged)
        mImpl->testbed.Uevent(mImpl->hidrawSyspath, action);
}

void EmuHidDevice::InjectInputReport(const std::uint8_t* data, std::size_t length)
{
    mImpl->core->Inject(data, length);
}

std::size_t EmuHidDevice::PendingInputReports() const
{
    return mImpl->core->Pending();
}

void EmuHidDevice::ClearInputReports()
{
    mImpl->core->ClearInput();
}

std::size_t EmuHidDevice::OpenDescriptorCount() const
{
    return mImpl->core->OpenDescriptors();
}

void EmuHidDevice::SetWriteHook(WriteHook hook)
{
    mImpl->core->SetWriteHook(std::move(hook));
}

void EmuHidDevice::FailIoctl(unsigned long request, int errnum)
{
    mImpl->core->FailIoctl(request, errnum);
}

void EmuHidDevice::FailReads(int errnum)
{
    mImpl->core->FailReads(errnum);
}

void EmuHidDevice::FailWrites(int errnum)
{
    mImpl->core->FailWrites(errnum);
}

void EmuHidDevice::OverrideDescriptorSize(std::optional<int> size)
{
    mImpl->core->OverrideDescriptorSize(size);
}

void EmuHidDevice::SetReportDescriptor(const std::vector<std::uint8_t>& descriptor)
{
    std::lock_guard<std::mutex> lock(mImpl->testbed.mutex);
    mImpl->core->SetReportDescriptor(descriptor);
    if (mImpl->plugged)
        mImpl->testbed.sysfs.SetAttribute(mImpl->hidSyspath, "report_descriptor",
                                          std::string(descriptor.begin(), descriptor.end()));
}

void EmuHidDevice::SetNodeMode(unsigned int mode)
{
    mImpl->core->SetNodeMode(mode);
}

std::uint64_t EmuHidDevice::WriteCount() const
{
    return mImpl->core->WriteCount();
}

std::uint64_t EmuHidDevice::ReadCount() const
{
    return mImpl->core->ReadCount();
}

} // namespace kemu
