// The emulated adapters checked from the outside, through raw libudev and the
// hidraw system calls only (not through libkarvex): what the library will see
// must be what a kernel and a real adapter would show it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <libudev.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "EmuAdapterFirmware.h"
#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex_api_linux/thid_prot_karvex.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// ---- raw OS helpers ----

class Fd {
public:
    explicit Fd(const std::string& path) : mFd(open(path.c_str(), O_RDWR | O_NONBLOCK)), mErrno(errno) {}
    ~Fd()
    {
        if (mFd >= 0)
            close(mFd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return mFd; }
    int OpenErrno() const { return mErrno; }

private:
    int mFd;
    int mErrno;
};

struct IoResult {
    long result;
    int err;
};

IoResult Read(int fd, std::size_t capacity, Bytes* out = nullptr)
{
    Bytes buf(capacity + 16, 0xCC);
    errno = 0;
    const ssize_t n = read(fd, buf.data(), capacity);
    const int err = errno;
    if (out != nullptr && n >= 0)
        *out = Bytes(buf.begin(), buf.begin() + n);
    return {static_cast<long>(n), n < 0 ? err : 0};
}

IoResult Write(int fd, const Bytes& data)
{
    errno = 0;
    const ssize_t n = write(fd, data.data(), data.size());
    return {static_cast<long>(n), n < 0 ? errno : 0};
}

template <typename T>
IoResult Ioctl(int fd, unsigned long request, T* arg)
{
    errno = 0;
    const int r = ioctl(fd, request, arg);
    return {r, r < 0 ? errno : 0};
}

short PollIn(int fd, int timeoutMs)
{
    pollfd p{fd, POLLIN, 0};
    const int r = poll(&p, 1, timeoutMs);
    return r > 0 ? p.revents : 0;
}

// Waits up to timeoutMs for one input report.
std::optional<Bytes> NextReport(int fd, int timeoutMs = 2000)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        Bytes report;
        const IoResult r = Read(fd, 4096, &report);
        if (r.result >= 0)
            return report;
        if (r.err != EAGAIN)
            return std::nullopt;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        PollIn(fd, static_cast<int>(left.count()));
    }
}

// ---- libudev helpers ----

struct UdevDeleter {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
    void operator()(udev_monitor* m) const { udev_monitor_unref(m); }
};
using UdevPtr = std::unique_ptr<udev, UdevDeleter>;
using DevicePtr = std::unique_ptr<udev_device, UdevDeleter>;
using MonitorPtr = std::unique_ptr<udev_monitor, UdevDeleter>;

std::optional<std::string> Attr(udev_device* d, const char* name)
{
    const char* v = d != nullptr ? udev_device_get_sysattr_value(d, name) : nullptr;
    return v != nullptr ? std::optional<std::string>(v) : std::nullopt;
}

struct HidrawRecord {
    std::string syspath;
    std::string devnode;
    std::string usbSyspath; // empty without USB parent
    std::map<std::string, std::optional<std::string>> usb;
    std::map<std::string, std::optional<std::string>> intf;
    std::string hidId;       // HID_ID of the hid parent
    Bytes reportDescriptor;  // the hid parent's report_descriptor attribute
};

std::vector<HidrawRecord> EnumerateHidraw()
{
    UdevPtr u(udev_new());
    std::vector<HidrawRecord> records;
    udev_enumerate* e = udev_enumerate_new(u.get());
    udev_enumerate_add_match_subsystem(e, "hidraw");
    udev_enumerate_scan_devices(e);
    for (udev_list_entry* entry = udev_enumerate_get_list_entry(e); entry != nullptr;
         entry = udev_list_entry_get_next(entry)) {
        DevicePtr dev(udev_device_new_from_syspath(u.get(), udev_list_entry_get_name(entry)));
        if (!dev)
            continue;
        HidrawRecord r;
        r.syspath = udev_device_get_syspath(dev.get());
        r.devnode = udev_device_get_devnode(dev.get()) != nullptr ? udev_device_get_devnode(dev.get()) : "";
        // Parents are owned by the child.
        udev_device* hid = udev_device_get_parent_with_subsystem_devtype(dev.get(), "hid", nullptr);
        if (hid != nullptr) {
            const char* id = udev_device_get_property_value(hid, "HID_ID");
            r.hidId = id != nullptr ? id : "";
            const std::string path = std::string(udev_device_get_syspath(hid)) + "/report_descriptor";
            // Binary attribute: read the file itself (through the preload).
            if (FILE* f = std::fopen(path.c_str(), "rb")) {
                int c;
                while ((c = std::fgetc(f)) != EOF)
                    r.reportDescriptor.push_back(static_cast<std::uint8_t>(c));
                std::fclose(f);
            }
        }
        udev_device* intf = udev_device_get_parent_with_subsystem_devtype(dev.get(), "usb", "usb_interface");
        udev_device* usb = udev_device_get_parent_with_subsystem_devtype(dev.get(), "usb", "usb_device");
        if (usb != nullptr) {
            r.usbSyspath = udev_device_get_syspath(usb);
            for (const char* name : {"idVendor", "idProduct", "bcdDevice", "manufacturer", "product", "serial"})
                r.usb[name] = Attr(usb, name);
        }
        if (intf != nullptr) {
            for (const char* name : {"bInterfaceNumber", "interface"})
                r.intf[name] = Attr(intf, name);
        }
        records.push_back(r);
    }
    udev_enumerate_unref(e);
    return records;
}

const HidrawRecord* FindRecord(const std::vector<HidrawRecord>& records, const std::string& devnode)
{
    for (const auto& r : records) {
        if (r.devnode == devnode)
            return &r;
    }
    return nullptr;
}

class Monitor {
public:
    explicit Monitor(const char* subsystem) : mUdev(udev_new()), mMon(udev_monitor_new_from_netlink(mUdev.get(), "udev"))
    {
        if (subsystem != nullptr)
            udev_monitor_filter_add_match_subsystem_devtype(mMon.get(), subsystem, nullptr);
        udev_monitor_enable_receiving(mMon.get());
    }
    struct Event {
        std::string action;
        std::string subsystem;
        std::string syspath;
        std::string devnode;
    };
    std::optional<Event> Next(int timeoutMs)
    {
        pollfd p{udev_monitor_get_fd(mMon.get()), POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            return std::nullopt;
        DevicePtr d(udev_monitor_receive_device(mMon.get()));
        if (!d)
            return std::nullopt;
        Event e;
        e.action = udev_device_get_action(d.get());
        e.subsystem = udev_device_get_subsystem(d.get());
        e.syspath = udev_device_get_syspath(d.get());
        e.devnode = udev_device_get_devnode(d.get()) != nullptr ? udev_device_get_devnode(d.get()) : "";
        return e;
    }

private:
    UdevPtr mUdev;
    MonitorPtr mMon;
};

// ---- protocol helpers ----

Bytes Command(std::uint8_t code, std::uint8_t uniqueId, std::uint16_t length, const Bytes& payload = {})
{
    Bytes report(1 + THID_MAX_MESSAGE_SIZE, 0); // report ID 0, then the message
    report[1] = static_cast<std::uint8_t>(length);
    report[2] = static_cast<std::uint8_t>(length >> 8);
    report[3] = code;
    report[4] = uniqueId;
    std::copy(payload.begin(), payload.end(), report.begin() + 9);
    return report;
}

Bytes PinPayload(std::uint32_t pin, std::uint8_t value)
{
    return {static_cast<std::uint8_t>(pin), static_cast<std::uint8_t>(pin >> 8), static_cast<std::uint8_t>(pin >> 16),
            static_cast<std::uint8_t>(pin >> 24), value, 0, 0, 0};
}

Bytes I2cPayload(std::uint8_t bus, std::uint8_t address, const Bytes& write, std::uint16_t toRead)
{
    Bytes p(sizeof(THID_I2cTransaction), 0);
    auto& t = *reinterpret_cast<THID_I2cTransaction*>(p.data());
    t.i2cBus = bus;
    t.i2cSlaveAddress = address;
    t.i2cSpeed.Set(400000);
    t.timeoutInterval.Set(100);
    t.bytesToWrite.Set(static_cast<std::uint16_t>(write.size()));
    t.bytesToRead.Set(toRead);
    std::copy(write.begin(), write.end(), t.data);
    return p;
}

std::uint16_t Length(const Bytes& m) { return static_cast<std::uint16_t>(m[0] | (m[1] << 8)); }
std::uint8_t Code(const Bytes& m) { return m[2]; }
std::uint8_t Id(const Bytes& m) { return m[3]; }
std::uint8_t Status(const Bytes& m) { return m[4]; }
std::uint32_t PinId(const Bytes& m) { return m[8] | (m[9] << 8) | (m[10] << 16) | (static_cast<std::uint32_t>(m[11]) << 24); }
std::uint8_t PinValue(const Bytes& m) { return m[12]; }

class EmulatorTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mTestbed = std::make_unique<kemu::EmuTestbed>();
    }

    // Sends a command and returns the answer's message (report of an unnumbered device).
    Bytes Transact(int fd, const Bytes& command)
    {
        EXPECT_EQ(static_cast<long>(command.size()), Write(fd, command).result);
        auto answer = NextReport(fd);
        EXPECT_TRUE(answer.has_value());
        return answer.value_or(Bytes(THID_MAX_MESSAGE_SIZE, 0xEE));
    }

    std::unique_ptr<kemu::EmuTestbed> mTestbed;
};

// ---- enumeration ----

TEST_F(EmulatorTest, EnumerationShowsTheDeviceChainWithItsAttributes)
{
    auto& adapter = mTestbed->AddDevice(kemu::AdapterConfig(0x7A02, "SER-1"));
    auto bare = kemu::AdapterConfig(0x7A03, "unused");
    bare.serial.reset();
    bare.interfaceName.reset();
    bare.bcdDevice = 0x0213;
    auto& bareDevice = mTestbed->AddDevice(bare);
    auto& foreign = mTestbed->AddDevice(kemu::ForeignDeviceConfig());
    auto& bluetooth = mTestbed->AddDevice(kemu::NoUsbParentConfig());
    const auto composite = kemu::CompositeDeviceConfigs();
    auto& first = mTestbed->AddDevice(composite[0]);
    auto& second = mTestbed->AddDevice(composite[1]);

    const auto records = EnumerateHidraw();
    ASSERT_EQ(6u, records.size());

    const HidrawRecord* a = FindRecord(records, adapter.DevNode());
    ASSERT_NE(nullptr, a);
    EXPECT_EQ(adapter.SysPath(), a->syspath);
    EXPECT_EQ("1209", a->usb.at("idVendor"));
    EXPECT_EQ("7a02", a->usb.at("idProduct"));
    EXPECT_EQ("0100", a->usb.at("bcdDevice"));
    EXPECT_EQ("Karvex", a->usb.at("manufacturer"));
    EXPECT_EQ("Karvex GPIO/I2C Adapter", a->usb.at("product"));
    EXPECT_EQ("SER-1", a->usb.at("serial"));
    EXPECT_EQ("00", a->intf.at("bInterfaceNumber"));
    EXPECT_EQ("Karvex HID", a->intf.at("interface"));
    EXPECT_EQ(adapter.Config().reportDescriptor, a->reportDescriptor);
    EXPECT_EQ("0003:00001209:00007A02", a->hidId);

    const HidrawRecord* b = FindRecord(records, bareDevice.DevNode());
    ASSERT_NE(nullptr, b);
    EXPECT_EQ(std::nullopt, b->usb.at("serial"));
    EXPECT_EQ(std::nullopt, b->intf.at("interface"));
    EXPECT_EQ("0213", b->usb.at("bcdDevice"));
    EXPECT_NE(a->usbSyspath, b->usbSyspath);

    const HidrawRecord* f = FindRecord(records, foreign.DevNode());
    ASSERT_NE(nullptr, f);
    EXPECT_EQ("1a2c", f->usb.at("idVendor"));

    const HidrawRecord* bt = FindRecord(records, bluetooth.DevNode());
    ASSERT_NE(nullptr, bt);
    EXPECT_TRUE(bt->usbSyspath.empty());
    EXPECT_TRUE(bt->intf.empty());
    EXPECT_EQ(0u, bt->hidId.rfind("0005:", 0)) << bt->hidId;

    const HidrawRecord* c0 = FindRecord(records, first.DevNode());
    const HidrawRecord* c1 = FindRecord(records, second.DevNode());
    ASSERT_NE(nullptr, c0);
    ASSERT_NE(nullptr, c1);
    EXPECT_EQ(c0->usbSyspath, c1->usbSyspath);
    EXPECT_EQ(first.UsbDeviceSysPath(), c0->usbSyspath);
    EXPECT_NE(c0->syspath, c1->syspath);
    EXPECT_EQ("00", c0->intf.at("bInterfaceNumber"));
    EXPECT_EQ("01", c1->intf.at("bInterfaceNumber"));
    EXPECT_EQ(c0->usb.at("serial"), c1->usb.at("serial"));

    // The shared USB device stays until its last interface is gone.
    first.Unplug();
    auto after = EnumerateHidraw();
    ASSERT_EQ(5u, after.size());
    ASSERT_NE(nullptr, FindRecord(after, second.DevNode()));
    EXPECT_EQ(c1->usbSyspath, FindRecord(after, second.DevNode())->usbSyspath);
    second.Unplug();
    EXPECT_EQ(4u, EnumerateHidraw().size());
    EXPECT_TRUE(second.UsbDeviceSysPath().empty());
}

// ---- ioctls ----

TEST_F(EmulatorTest, IoctlsAnswerAsHidrawDoes)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    auto& bluetooth = mTestbed->AddDevice(kemu::NoUsbParentConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0) << std::strerror(fd.OpenErrno());
    const Bytes& descriptor = dev.Config().reportDescriptor;

    int size = -1;
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(static_cast<int>(descriptor.size()), size);

    hidraw_report_descriptor rd;
    std::memset(&rd, 0xCC, sizeof rd);
    rd.size = static_cast<__u32>(descriptor.size());
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESC, &rd).result);
    EXPECT_EQ(descriptor, Bytes(rd.value, rd.value + descriptor.size()));
    EXPECT_EQ(0xCC, rd.value[descriptor.size()]);
    // A smaller size gets that much; the largest accepted size is 4095.
    std::memset(&rd, 0xCC, sizeof rd);
    rd.size = 3;
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESC, &rd).result);
    EXPECT_EQ(Bytes(descriptor.begin(), descriptor.begin() + 3), Bytes(rd.value, rd.value + 3));
    EXPECT_EQ(0xCC, rd.value[3]);
    rd.size = 4095;
    EXPECT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESC, &rd).result);
    rd.size = 4096;
    EXPECT_EQ(EINVAL, Ioctl(fd.get(), HIDIOCGRDESC, &rd).err);

    hidraw_devinfo info{};
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRAWINFO, &info).result);
    EXPECT_EQ(static_cast<__u32>(BUS_USB), info.bustype);
    EXPECT_EQ(0x1209, static_cast<std::uint16_t>(info.vendor));
    EXPECT_EQ(0x7A01, static_cast<std::uint16_t>(info.product));

    // Strings: terminator included, cut to the size without terminator.
    char name[256];
    std::memset(name, 'x', sizeof name);
    const std::string expectedName = "Karvex Karvex GPIO/I2C Adapter";
    EXPECT_EQ(static_cast<long>(expectedName.size() + 1), Ioctl(fd.get(), HIDIOCGRAWNAME(256), name).result);
    EXPECT_EQ(expectedName, std::string(name));
    std::memset(name, 'x', sizeof name);
    EXPECT_EQ(5, Ioctl(fd.get(), HIDIOCGRAWNAME(5), name).result);
    EXPECT_EQ("Karve", std::string(name, 5));
    EXPECT_EQ('x', name[5]); // cut: no terminator
    char phys[64] = {};
    ASSERT_GT(Ioctl(fd.get(), HIDIOCGRAWPHYS(64), phys).result, 0);
    EXPECT_EQ("usb-0000:00:14.0-" + dev.UsbPort().substr(2) + "/input0", std::string(phys));
    char uniq[64] = {};
    ASSERT_GT(Ioctl(fd.get(), HIDIOCGRAWUNIQ(64), uniq).result, 0);
    EXPECT_EQ("KVX000001", std::string(uniq));

    int dummy = 0;
    EXPECT_EQ(ENOTTY, Ioctl(fd.get(), _IOR('H', 0x30, int), &dummy).err);
    EXPECT_EQ(EINVAL, Ioctl(fd.get(), _IOR('Q', 0x01, int), &dummy).err);
    EXPECT_EQ(EINVAL, Ioctl(fd.get(), _IOW('H', 0x04, int), &dummy).err);

    Fd bt(bluetooth.DevNode());
    ASSERT_GE(bt.get(), 0);
    ASSERT_EQ(0, Ioctl(bt.get(), HIDIOCGRAWINFO, &info).result);
    EXPECT_EQ(static_cast<__u32>(BUS_BLUETOOTH), info.bustype);
}

TEST_F(EmulatorTest, IoctlFaultsAndDescriptorChanges)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    int size = 0;
    dev.FailIoctl(HIDIOCGRDESCSIZE, EIO);
    EXPECT_EQ(EIO, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).err);
    hidraw_devinfo info{};
    EXPECT_EQ(0, Ioctl(fd.get(), HIDIOCGRAWINFO, &info).result); // only that request fails
    dev.FailIoctl(HIDIOCGRDESCSIZE, 0);
    EXPECT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result);

    // Size 0 in the request stands for every size of that ioctl.
    char name[64];
    dev.FailIoctl(HIDIOCGRAWNAME(0), EPERM);
    EXPECT_EQ(EPERM, Ioctl(fd.get(), HIDIOCGRAWNAME(64), name).err);
    EXPECT_EQ(EPERM, Ioctl(fd.get(), HIDIOCGRAWNAME(7), name).err);
    dev.FailIoctl(HIDIOCGRAWNAME(0), 0);
    EXPECT_GT(Ioctl(fd.get(), HIDIOCGRAWNAME(64), name).result, 0);

    dev.OverrideDescriptorSize(5000);
    EXPECT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(5000, size);
    hidraw_report_descriptor rd{};
    rd.size = static_cast<__u32>(size);
    EXPECT_EQ(EINVAL, Ioctl(fd.get(), HIDIOCGRDESC, &rd).err);
    dev.OverrideDescriptorSize(std::nullopt);

    const Bytes replaced = kemu::AdapterReportDescriptor(64, 32, 7);
    dev.SetReportDescriptor(replaced);
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result);
    ASSERT_EQ(static_cast<int>(replaced.size()), size);
    rd.size = static_cast<__u32>(size);
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESC, &rd).result);
    EXPECT_EQ(replaced, Bytes(rd.value, rd.value + size));
    EXPECT_EQ(replaced, FindRecord(EnumerateHidraw(), dev.DevNode())->reportDescriptor);
    const kemu::EmuReportLayout layout = dev.ReportLayout();
    EXPECT_EQ(64u, layout.inputBytes);
    EXPECT_EQ(32u, layout.outputBytes);
    EXPECT_TRUE(layout.numbered);
    EXPECT_EQ(7, layout.inputReportId);
    EXPECT_EQ(8u, kemu::ScanReportDescriptor(kemu::ForeignDeviceConfig().reportDescriptor).inputBytes);
    EXPECT_EQ(0u, kemu::ScanReportDescriptor(kemu::NoOutputReportConfig().reportDescriptor).outputBytes);
}

// ---- input reports, poll and writes ----

TEST_F(EmulatorTest, ReadsKeepReportBoundariesAndCutShortBuffers)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(EAGAIN, Read(fd.get(), 512).err);

    Bytes big(320), mid(64, 0x22), small = {1, 2, 3};
    for (std::size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<std::uint8_t>(i);
    dev.InjectInputReport(big);
    dev.InjectInputReport(mid);
    dev.InjectInputReport(small);
    EXPECT_EQ(3u, dev.PendingInputReports());
    Bytes got;
    ASSERT_EQ(320, Read(fd.get(), 512, &got).result);
    EXPECT_EQ(big, got);
    ASSERT_EQ(64, Read(fd.get(), 512, &got).result);
    EXPECT_EQ(mid, got);
    ASSERT_EQ(3, Read(fd.get(), 512, &got).result);
    EXPECT_EQ(small, got);
    EXPECT_EQ(EAGAIN, Read(fd.get(), 512).err);
    EXPECT_EQ(3u, dev.ReadCount());

    // A short buffer gets the head of the report; the rest is lost.
    dev.InjectInputReport(big);
    dev.InjectInputReport(mid);
    ASSERT_EQ(10, Read(fd.get(), 10, &got).result);
    EXPECT_EQ(Bytes(big.begin(), big.begin() + 10), got);
    ASSERT_EQ(64, Read(fd.get(), 512, &got).result);
    EXPECT_EQ(mid, got);

    // Read faults leave the queue alone.
    dev.InjectInputReport(small);
    dev.FailReads(EPROTO);
    EXPECT_EQ(EPROTO, Read(fd.get(), 512).err);
    dev.FailReads(0);
    EXPECT_EQ(3, Read(fd.get(), 512).result);
}

TEST_F(EmulatorTest, EveryOpenDescriptorGetsItsOwnBoundedQueue)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    // Reports sent before anyone opened wait for the first descriptor.
    dev.InjectInputReport(Bytes{9});
    Fd a(dev.DevNode());
    ASSERT_GE(a.get(), 0);
    Bytes got;
    ASSERT_EQ(1, Read(a.get(), 64, &got).result);
    EXPECT_EQ(Bytes{9}, got);

    Fd b(dev.DevNode());
    ASSERT_GE(b.get(), 0);
    int size;
    ASSERT_EQ(0, Ioctl(b.get(), HIDIOCGRDESCSIZE, &size).result); // b is connected now
    EXPECT_EQ(2u, dev.OpenDescriptorCount());
    for (int i = 0; i < 70; ++i)
        dev.InjectInputReport(Bytes{static_cast<std::uint8_t>(i)});
    EXPECT_EQ(63u, dev.PendingInputReports());
    for (int i = 0; i < 63; ++i) {
        ASSERT_EQ(1, Read(a.get(), 64, &got).result);
        EXPECT_EQ(i, got[0]);
    }
    EXPECT_EQ(EAGAIN, Read(a.get(), 64).err); // 7 dropped
    ASSERT_EQ(1, Read(b.get(), 64, &got).result);
    EXPECT_EQ(0, got[0]);
    dev.ClearInputReports();
    EXPECT_EQ(EAGAIN, Read(b.get(), 64).err);
}

TEST_F(EmulatorTest, ClosedDescriptorsAreForgotten)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    auto a = std::make_unique<Fd>(dev.DevNode());
    Fd b(dev.DevNode());
    int size;
    ASSERT_EQ(0, Ioctl(a->get(), HIDIOCGRDESCSIZE, &size).result);
    ASSERT_EQ(0, Ioctl(b.get(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(2u, dev.OpenDescriptorCount());
    dev.InjectInputReport(Bytes{1});
    a.reset();
    // umockdev notices the close on its own thread.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (dev.OpenDescriptorCount() != 1 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(1u, dev.OpenDescriptorCount());
    EXPECT_EQ(1u, dev.PendingInputReports());
    ASSERT_EQ(1, Read(b.get(), 64).result);
    EXPECT_EQ(0u, dev.PendingInputReports());
    EXPECT_EQ(0, PollIn(b.get(), 20)); // the closed descriptor's queue no longer counts
}

TEST_F(EmulatorTest, DescriptorLeftOpenAfterTheTestbedFailsInsteadOfHanging)
{
    auto testbed = std::make_unique<kemu::EmuTestbed>();
    auto& dev = testbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    int size;
    ASSERT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result); // umockdev has taken the connection
    testbed.reset(); // warns on stderr and keeps umockdev's side alive
    EXPECT_EQ(EIO, Read(fd.get(), 64).err);
    EXPECT_EQ(ENODEV, Write(fd.get(), Bytes{0, 1}).err);
}

TEST_F(EmulatorTest, PollIsLevelTriggeredAndWakesAnotherThread)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    EXPECT_EQ(0, PollIn(fd.get(), 20));

    std::atomic<short> revents{0};
    std::atomic<bool> polling{false};
    std::thread poller([&] {
        polling = true;
        revents = PollIn(fd.get(), 5000);
    });
    while (!polling)
        std::this_thread::yield();
    dev.InjectInputReport(Bytes{1});
    dev.InjectInputReport(Bytes{2});
    poller.join();
    EXPECT_TRUE(revents & POLLIN);

    ASSERT_EQ(1, Read(fd.get(), 64).result);
    EXPECT_TRUE(PollIn(fd.get(), 1000) & POLLIN); // one report still queued
    ASSERT_EQ(1, Read(fd.get(), 64).result);
    EXPECT_EQ(0, PollIn(fd.get(), 20));
}

TEST_F(EmulatorTest, WritesFollowHidrawRulesAndReachTheHook)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    std::mutex mutex;
    std::vector<Bytes> seen;
    dev.SetWriteHook([&](const std::uint8_t* data, std::size_t length) {
        std::lock_guard<std::mutex> lock(mutex);
        seen.emplace_back(data, data + length);
        dev.InjectInputReport(Bytes{0xA5}); // the hook may answer
    });

    const Bytes report = {0x00, 0x10, 0x20, 0x30};
    EXPECT_EQ(4, Write(fd.get(), report).result);
    EXPECT_EQ(1, Read(fd.get(), 64).result); // answered before write() returned
    EXPECT_EQ(EINVAL, Write(fd.get(), Bytes{0x00}).err);
    EXPECT_EQ(EINVAL, Write(fd.get(), Bytes(16385, 0)).err);
    EXPECT_EQ(16384, Write(fd.get(), Bytes(16384, 0)).result);
    dev.FailWrites(EPIPE);
    EXPECT_EQ(EPIPE, Write(fd.get(), report).err);
    dev.FailWrites(0);
    {
        std::lock_guard<std::mutex> lock(mutex);
        ASSERT_EQ(2u, seen.size());
        EXPECT_EQ(report, seen[0]);
        EXPECT_EQ(16384u, seen[1].size());
    }
    EXPECT_EQ(2u, dev.WriteCount());
    dev.SetWriteHook(nullptr);
}

// ---- unplug and hot-plug ----

TEST_F(EmulatorTest, UnpluggedDescriptorsFailLikeHidrawAndStayDead)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    dev.InjectInputReport(Bytes{1});
    dev.Unplug();
    EXPECT_FALSE(dev.IsPlugged());
    EXPECT_TRUE(dev.SysPath().empty());

    EXPECT_EQ(EIO, Read(fd.get(), 64).err);
    EXPECT_EQ(ENODEV, Write(fd.get(), Bytes{0, 1}).err);
    int size;
    EXPECT_EQ(ENODEV, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).err);
    const short revents = PollIn(fd.get(), 1000);
    EXPECT_TRUE(revents & POLLERR);
    EXPECT_TRUE(revents & POLLHUP);
    Fd again(dev.DevNode());
    EXPECT_LT(again.get(), 0);
    EXPECT_EQ(ENOENT, again.OpenErrno());
    EXPECT_TRUE(EnumerateHidraw().empty());
    dev.InjectInputReport(Bytes{2}); // lost

    dev.Plug();
    EXPECT_EQ(EIO, Read(fd.get(), 64).err); // the old descriptor stays dead
    Fd fresh(dev.DevNode());
    ASSERT_GE(fresh.get(), 0);
    EXPECT_EQ(EAGAIN, Read(fresh.get(), 64).err);
    EXPECT_EQ(0, Ioctl(fresh.get(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(0, PollIn(fresh.get(), 20));
}

TEST_F(EmulatorTest, UdevMonitorSeesAddAndRemoveInKernelOrder)
{
    Monitor hidraw("hidraw");
    Monitor all(nullptr);
    const auto composite = kemu::CompositeDeviceConfigs();
    auto& dev = mTestbed->AddDevice(composite[0]);

    auto e = hidraw.Next(2000);
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ("add", e->action);
    EXPECT_EQ(dev.SysPath(), e->syspath);
    EXPECT_EQ(dev.DevNode(), e->devnode);
    std::vector<std::string> order;
    for (int i = 0; i < 4; ++i) {
        auto ev = all.Next(2000);
        ASSERT_TRUE(ev.has_value());
        order.push_back(ev->action + " " + ev->syspath);
    }
    EXPECT_EQ((std::vector<std::string>{"add " + dev.UsbDeviceSysPath(), "add " + dev.InterfaceSysPath(),
                                        "add " + dev.HidSysPath(), "add " + dev.SysPath()}),
              order);

    // The second interface of the same USB device adds no usb_device.
    auto& second = mTestbed->AddDevice(composite[1]);
    ASSERT_TRUE(hidraw.Next(2000).has_value());
    order.clear();
    for (int i = 0; i < 3; ++i)
        order.push_back(all.Next(2000).value_or(Monitor::Event{}).syspath);
    EXPECT_EQ((std::vector<std::string>{second.InterfaceSysPath(), second.HidSysPath(), second.SysPath()}), order);

    dev.SendUevent("change");
    e = hidraw.Next(2000);
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ("change", e->action);
    ASSERT_TRUE(all.Next(2000).has_value());

    const std::string path = dev.SysPath();
    const std::string usb = dev.UsbDeviceSysPath();
    dev.Unplug();
    e = hidraw.Next(2000);
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ("remove", e->action);
    EXPECT_EQ(path, e->syspath);
    EXPECT_EQ(1u, EnumerateHidraw().size()); // already gone when the event arrives
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(all.Next(2000).has_value());
    second.Unplug();
    ASSERT_TRUE(hidraw.Next(2000).has_value());
    order.clear();
    for (int i = 0; i < 4; ++i) {
        auto ev = all.Next(2000);
        ASSERT_TRUE(ev.has_value());
        order.push_back(ev->action + " " + ev->syspath);
    }
    EXPECT_EQ("remove " + usb, order.back()); // the USB device goes last

    // Quiet plugging: devices come and go without events.
    second.Plug(false);
    EXPECT_EQ(1u, EnumerateHidraw().size());
    second.Unplug(false);
    mTestbed->AddDevice(kemu::AdapterConfig(), true, false);
    EXPECT_FALSE(all.Next(100).has_value());
}

TEST_F(EmulatorTest, NodeModeDecidesWhoMayOpen)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    const std::string node = dev.DevNode();
    // open() in a process without privileges: root would override the mode.
    auto openAsNobody = [&]() -> int {
        if (geteuid() != 0) {
            Fd fd(node);
            if (fd.get() < 0)
                return fd.OpenErrno();
            int size;
            return Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result == 0 ? 0 : -1;
        }
        const pid_t pid = fork();
        if (pid == 0) {
            if (setgid(65534) != 0 || setuid(65534) != 0)
                _exit(100);
            const int fd = open(node.c_str(), O_RDWR | O_NONBLOCK);
            if (fd < 0)
                _exit(errno);
            int size;
            _exit(ioctl(fd, HIDIOCGRDESCSIZE, &size) == 0 && size > 0 ? 0 : 101);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(0, openAsNobody()); // default 0666, and the handler is reachable
    dev.SetNodeMode(0000);
    EXPECT_EQ(EACCES, openAsNobody());
    dev.Unplug();
    dev.Plug(); // the mode survives a replug
    EXPECT_EQ(EACCES, openAsNobody());
    dev.SetNodeMode(0666);
    EXPECT_EQ(0, openAsNobody());
}

// ---- the firmware ----

class FirmwareTest : public EmulatorTest {
protected:
    void SetUp() override
    {
        EmulatorTest::SetUp();
        mDevice = &mTestbed->AddDevice(kemu::AdapterConfig());
        mFirmware = std::make_unique<kemu::EmuAdapterFirmware>(*mDevice);
        mFd = std::make_unique<Fd>(mDevice->DevNode());
        ASSERT_GE(mFd->get(), 0);
    }
    void TearDown() override
    {
        mFd.reset();
        mFirmware.reset();
    }
    int fd() const { return mFd->get(); }

    kemu::EmuHidDevice* mDevice = nullptr;
    std::unique_ptr<kemu::EmuAdapterFirmware> mFirmware;
    std::unique_ptr<Fd> mFd;
};

TEST_F(FirmwareTest, ProtocolVersionAnswerIsAFullZeroPaddedReport)
{
    const Bytes answer = Transact(fd(), Command(THID_CMD_GET_PROTOCOL_VERSION, 0x42, 8));
    ASSERT_EQ(THID_MAX_MESSAGE_SIZE, answer.size());
    EXPECT_EQ(THID_RSP_GET_PROTOCOL_VERSION, Code(answer));
    EXPECT_EQ(10, Length(answer));
    EXPECT_EQ(0x42, Id(answer));
    EXPECT_EQ(0, Status(answer));
    EXPECT_EQ(1, answer[8]);
    EXPECT_EQ(0, answer[9]);
    EXPECT_EQ(Bytes(answer.size() - 10, 0), Bytes(answer.begin() + 10, answer.end()));

    mFirmware->SetProtocolVersion(2, 5);
    const Bytes v2 = Transact(fd(), Command(THID_CMD_GET_PROTOCOL_VERSION, 0x43, 8));
    EXPECT_EQ(2, v2[8]);
    EXPECT_EQ(5, v2[9]);

    // What the firmware received: each report after its ID byte, padding included.
    const auto received = mFirmware->ReceivedCommands();
    ASSERT_EQ(2u, received.size());
    const Bytes sent = Command(THID_CMD_GET_PROTOCOL_VERSION, 0x42, 8);
    EXPECT_EQ(Bytes(sent.begin() + 1, sent.end()), received[0]);
    mFirmware->ClearReceivedCommands();
    EXPECT_EQ(0u, mFirmware->CommandCount());
}

TEST_F(FirmwareTest, PinModesLevelsAndErrors)
{
    Bytes a = Transact(fd(), Command(THID_CMD_SET_PIN_MODE, 1, 16, PinPayload(3, 3)));
    EXPECT_EQ(THID_RSP_ACK, Code(a));
    EXPECT_EQ(8, Length(a));
    EXPECT_EQ(0, Status(a));
    EXPECT_EQ(3, mFirmware->PinMode(3));
    EXPECT_TRUE(mFirmware->PinLevel(3));

    a = Transact(fd(), Command(THID_CMD_GET_PIN_STATE, 2, 16, PinPayload(3, 0)));
    EXPECT_EQ(THID_RSP_GET_PIN_STATE, Code(a));
    EXPECT_EQ(16, Length(a));
    EXPECT_EQ(3u, PinId(a));
    EXPECT_EQ(1, PinValue(a));

    a = Transact(fd(), Command(THID_CMD_SET_PIN_STATE, 3, 16, PinPayload(3, 0)));
    EXPECT_EQ(THID_RSP_ACK, Code(a));
    EXPECT_FALSE(mFirmware->PinLevel(3));
    a = Transact(fd(), Command(THID_CMD_GET_PIN_MODE, 4, 16, PinPayload(3, 0)));
    EXPECT_EQ(THID_RSP_GET_PIN_MODE, Code(a));
    EXPECT_EQ(3u, PinId(a));
    EXPECT_EQ(3, PinValue(a)); // the mode stays as configured

    // Input pins read the level the test applies; setting their state changes nothing.
    Transact(fd(), Command(THID_CMD_SET_PIN_MODE, 5, 16, PinPayload(7, 0)));
    mFirmware->SetInputLevel(7, true);
    Transact(fd(), Command(THID_CMD_SET_PIN_STATE, 6, 16, PinPayload(7, 0)));
    EXPECT_EQ(1, PinValue(Transact(fd(), Command(THID_CMD_GET_PIN_STATE, 7, 16, PinPayload(7, 0)))));

    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusInvalidPin,
              Status(Transact(fd(), Command(THID_CMD_SET_PIN_MODE, 8, 16, PinPayload(16, 0)))));
    a = Transact(fd(), Command(THID_CMD_GET_PIN_STATE, 9, 16, PinPayload(258, 0)));
    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusInvalidPin, Status(a));
    EXPECT_EQ(258u, PinId(a));
    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusInvalidValue,
              Status(Transact(fd(), Command(THID_CMD_SET_PIN_MODE, 10, 16, PinPayload(1, 4)))));
    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusBadLength,
              Status(Transact(fd(), Command(THID_CMD_SET_PIN_MODE, 11, 12, PinPayload(1, 1)))));
    a = Transact(fd(), Command(0x33, 12, 8));
    EXPECT_EQ(0xB3, Code(a));
    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusUnknownCommand, Status(a));
}

TEST_F(FirmwareTest, InputEventPinsReportChanges)
{
    Transact(fd(), Command(THID_CMD_SET_PIN_MODE, 1, 16, PinPayload(5, 1)));
    mFirmware->SetInputLevel(5, true);
    auto e = NextReport(fd());
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(THID_EVT_PIN_STATE_CHANGED, Code(*e));
    EXPECT_EQ(16, Length(*e));
    EXPECT_EQ(5u, PinId(*e));
    EXPECT_EQ(1, PinValue(*e));
    mFirmware->SetInputLevel(5, true); // no change, no event
    mFirmware->SetInputLevel(6, true); // plain input pin, no event
    EXPECT_EQ(EAGAIN, Read(fd(), 512).err);

    mFirmware->SendPinEvent(300, 7);
    e = NextReport(fd());
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(300u, PinId(*e));
    EXPECT_EQ(7, PinValue(*e));

    mFirmware->SendPinEventBurst(5, 4); // level is high: low, high, low, high
    for (std::uint8_t expected : {0, 1, 0, 1}) {
        e = NextReport(fd());
        ASSERT_TRUE(e.has_value());
        EXPECT_EQ(expected, PinValue(*e));
    }
    mFirmware->SendPinEventBurst(5, 101); // more than one descriptor's queue holds
    EXPECT_EQ(63u, mDevice->PendingInputReports());
    EXPECT_FALSE(mFirmware->PinLevel(5)); // an odd number of toggles from high ends low
}

TEST_F(FirmwareTest, I2cEepromAndAbsentDevices)
{
    auto eeprom = std::make_shared<kemu::EmuEeprom>(256);
    mFirmware->AttachI2cSlave(1, 0xA0, eeprom);
    Bytes write = {0x10};
    for (int i = 0; i < 16; ++i)
        write.push_back(static_cast<std::uint8_t>(0xA0 + i));
    Bytes a = Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 1, 280, I2cPayload(1, 0xA0, write, 0)));
    EXPECT_EQ(THID_RSP_I2C_TRANSACTION, Code(a));
    EXPECT_EQ(280, Length(a));
    EXPECT_EQ(0, Status(a));
    EXPECT_EQ(0xA5, eeprom->Memory()[0x15]);

    a = Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 2, 280, I2cPayload(1, 0xA0, {0x10}, 16)));
    ASSERT_EQ(0, Status(a));
    const auto& t = *reinterpret_cast<const THID_I2cTransaction*>(a.data() + 8);
    EXPECT_EQ(1, t.i2cBus);
    EXPECT_EQ(0xA0, t.i2cSlaveAddress);
    EXPECT_EQ(1, t.bytesToWrite.Get());
    EXPECT_EQ(16, t.bytesToRead.Get());
    EXPECT_EQ(Bytes(write.begin() + 1, write.end()), Bytes(t.data, t.data + 16));
    EXPECT_EQ(0, t.data[16]);
    EXPECT_EQ(0x20u, eeprom->Pointer());
    // A read without write bytes continues at the pointer, which wraps.
    eeprom->Write(0xFF, {0x77, 0x88});
    Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 3, 280, I2cPayload(1, 0xA0, {0xFF}, 0)));
    a = Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 4, 280, I2cPayload(1, 0xA0, {}, 2)));
    EXPECT_EQ(0x77, a[8 + 16]);
    EXPECT_EQ(0x88, a[8 + 17]);

    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusI2cNoAck,
              Status(Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 5, 280, I2cPayload(0, 0xA0, {0}, 4)))));
    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusInvalidBus,
              Status(Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 6, 280, I2cPayload(2, 0xA0, {0}, 4)))));
    Bytes tooMuch = I2cPayload(1, 0xA0, {0}, 257);
    EXPECT_EQ(kemu::EmuAdapterFirmware::cStatusInvalidValue,
              Status(Transact(fd(), Command(THID_CMD_I2C_TRANSACTION, 7, 280, tooMuch))));
}

TEST_F(FirmwareTest, AnswerFaults)
{
    using Faults = kemu::EmuAdapterFirmware::Faults;
    const Bytes getState = Command(THID_CMD_GET_PIN_STATE, 0x20, 16, PinPayload(2, 0));
    const Bytes getMode = Command(THID_CMD_GET_PIN_MODE, 0x21, 16, PinPayload(2, 0));
    auto with = [&](void (*set)(Faults&), const Bytes& command) {
        Faults f;
        set(f);
        mFirmware->SetFaults(f);
        Bytes answer = Transact(fd(), command);
        mFirmware->SetFaults(Faults());
        return answer;
    };
    EXPECT_EQ(0x55, Code(with([](Faults& f) { f.wrongCode = 0x55; }, getState)));
    EXPECT_EQ(999, Length(with([](Faults& f) { f.lengthOverride = 999; }, getState)));
    EXPECT_EQ(0x05, Status(with([](Faults& f) { f.status = 0x05; }, getState)));
    EXPECT_EQ(3u, PinId(with([](Faults& f) { f.wrongPinIdEcho = true; }, getState)));
    EXPECT_EQ(9, PinValue(with([](Faults& f) { f.stateByteOverride = 9; }, getState)));
    EXPECT_EQ(0, PinValue(with([](Faults& f) { f.stateByteOverride = 9; }, getMode))); // only get-state answers
    EXPECT_EQ(4, PinValue(with([](Faults& f) { f.modeByteOverride = 4; }, getMode)));
    EXPECT_EQ(12u, with([](Faults& f) { f.shortReport = 12; }, getState).size());

    Faults stale;
    stale.staleIdFirst = true;
    mFirmware->SetFaults(stale);
    EXPECT_EQ(0x1F, Id(Transact(fd(), getState)));
    auto second = NextReport(fd());
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(0x20, Id(*second));

    Faults silent;
    silent.noAnswer = true;
    mFirmware->SetFaults(silent);
    const std::size_t before = mFirmware->CommandCount();
    ASSERT_EQ(321, Write(fd(), Command(THID_CMD_SET_PIN_MODE, 0x30, 16, PinPayload(4, 3))).result);
    EXPECT_EQ(before + 1, mFirmware->CommandCount());
    EXPECT_EQ(0, mFirmware->PinMode(4)); // swallowed, not carried out
    EXPECT_EQ(EAGAIN, Read(fd(), 512).err);
    mFirmware->SetFaults(Faults());

    // One-shot faults hit the next command of that code only.
    Faults oneShot;
    oneShot.status = 0x66;
    mFirmware->SetOneShotFaults(THID_CMD_GET_PIN_MODE, oneShot);
    EXPECT_EQ(0, Status(Transact(fd(), getState)));
    EXPECT_EQ(0x66, Status(Transact(fd(), getMode)));
    EXPECT_EQ(0, Status(Transact(fd(), getMode)));
}

TEST_F(FirmwareTest, DelayedAnswersKeepOrderAndDoNotBlockTheDevice)
{
    kemu::EmuAdapterFirmware::Faults slow;
    slow.delayMs = 300;
    mFirmware->SetFaults(slow);
    ASSERT_EQ(321, Write(fd(), Command(THID_CMD_GET_PROTOCOL_VERSION, 1, 8)).result);
    mFirmware->SetFaults(kemu::EmuAdapterFirmware::Faults());
    ASSERT_EQ(321, Write(fd(), Command(THID_CMD_GET_PROTOCOL_VERSION, 2, 8)).result);
    // The device keeps answering while the first answer waits.
    int size;
    EXPECT_EQ(0, Ioctl(fd(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(0u, mFirmware->ResponseCount());
    EXPECT_EQ(EAGAIN, Read(fd(), 512).err);

    auto first = NextReport(fd());
    auto second = NextReport(fd());
    ASSERT_TRUE(first.has_value());
    ASSERT_TRUE(second.has_value());
    EXPECT_EQ(1, Id(*first));
    EXPECT_EQ(2, Id(*second));

    // Destroying the firmware drops answers still waiting.
    mFirmware->SetFaults(slow);
    ASSERT_EQ(321, Write(fd(), Command(THID_CMD_GET_PROTOCOL_VERSION, 3, 8)).result);
    mFirmware.reset();
    EXPECT_EQ(0u, mDevice->PendingInputReports());
}

TEST_F(EmulatorTest, NumberedDevicesAnswerWithTheirReportId)
{
    auto& dev = mTestbed->AddDevice(kemu::NumberedAdapterConfig());
    kemu::EmuAdapterFirmware firmware(dev);
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    ASSERT_EQ(321, Write(fd.get(), Command(THID_CMD_GET_PROTOCOL_VERSION, 9, 8)).result);
    auto report = NextReport(fd.get());
    ASSERT_TRUE(report.has_value());
    ASSERT_EQ(321u, report->size());
    EXPECT_EQ(1, (*report)[0]);
    EXPECT_EQ(THID_RSP_GET_PROTOCOL_VERSION, (*report)[3]);
    EXPECT_EQ(9, (*report)[4]);
}

TEST_F(EmulatorTest, SameCommandsGiveTheSameAnswers)
{
    auto run = [&](kemu::EmuHidDevice& dev) {
        kemu::EmuAdapterFirmware firmware(dev);
        firmware.AttachI2cSlave(0, 0x50, std::make_shared<kemu::EmuEeprom>());
        Fd fd(dev.DevNode());
        std::vector<Bytes> answers;
        answers.push_back(Transact(fd.get(), Command(THID_CMD_SET_PIN_MODE, 1, 16, PinPayload(1, 1))));
        firmware.SetInputLevel(1, true);
        answers.push_back(NextReport(fd.get()).value_or(Bytes()));
        answers.push_back(Transact(fd.get(), Command(THID_CMD_I2C_TRANSACTION, 2, 280, I2cPayload(0, 0x50, {0, 1, 2}, 0))));
        answers.push_back(Transact(fd.get(), Command(THID_CMD_I2C_TRANSACTION, 3, 280, I2cPayload(0, 0x50, {0}, 4))));
        return answers;
    };
    const auto first = run(mTestbed->AddDevice(kemu::AdapterConfig()));
    const auto second = run(mTestbed->AddDevice(kemu::AdapterConfig()));
    EXPECT_EQ(first, second);
}

} // namespace
