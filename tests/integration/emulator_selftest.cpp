// The emulated adapters checked from the outside, through raw libudev and the
// hidraw system calls only (not through libkarvex): what every test and
// karvex-emu user relies on the emulator to do as a kernel would. Fault
// injection and the firmware's answers are checked where they are used, by
// the library tests that expect their effects.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <libudev.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/ioctl.h>
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
// Liveness limit of every wait for something that must come.
constexpr int kWaitMs = 20000;

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
std::optional<Bytes> NextReport(int fd, int timeoutMs = kWaitMs)
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

std::uint8_t Id(const Bytes& m) { return m[3]; }

class EmulatorTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mTestbed = std::make_unique<kemu::EmuTestbed>();
    }


    std::unique_ptr<kemu::EmuTestbed> mTestbed;
};

// ---- enumeration ----

TEST_F(EmulatorTest, EnumerationShowsTheDeviceChainWithItsAttributes)
{
    auto& adapter = mTestbed->AddDevice(kemu::AdapterConfig(0x7A02, "SER-1"));
    const auto composite = kemu::CompositeDeviceConfigs();
    auto& first = mTestbed->AddDevice(composite[0]);
    auto& second = mTestbed->AddDevice(composite[1]);

    const auto records = EnumerateHidraw();
    ASSERT_EQ(3u, records.size());

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
    ASSERT_EQ(2u, after.size());
    ASSERT_NE(nullptr, FindRecord(after, second.DevNode()));
    EXPECT_EQ(c1->usbSyspath, FindRecord(after, second.DevNode())->usbSyspath);
    second.Unplug();
    EXPECT_EQ(1u, EnumerateHidraw().size());
    EXPECT_TRUE(second.UsbDeviceSysPath().empty());
}

// ---- ioctls ----

// ---- input reports, poll and writes ----

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
    EXPECT_TRUE(PollIn(fd.get(), kWaitMs) & POLLIN); // one report still queued
    ASSERT_EQ(1, Read(fd.get(), 64).result);
    EXPECT_EQ(0, PollIn(fd.get(), 20));
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
    const short revents = PollIn(fd.get(), kWaitMs);
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

    auto e = hidraw.Next(kWaitMs);
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ("add", e->action);
    EXPECT_EQ(dev.SysPath(), e->syspath);
    EXPECT_EQ(dev.DevNode(), e->devnode);
    std::vector<std::string> order;
    for (int i = 0; i < 4; ++i) {
        auto ev = all.Next(kWaitMs);
        ASSERT_TRUE(ev.has_value());
        order.push_back(ev->action + " " + ev->syspath);
    }
    EXPECT_EQ((std::vector<std::string>{"add " + dev.UsbDeviceSysPath(), "add " + dev.InterfaceSysPath(),
                                        "add " + dev.HidSysPath(), "add " + dev.SysPath()}),
              order);

    // The second interface of the same USB device adds no usb_device.
    auto& second = mTestbed->AddDevice(composite[1]);
    ASSERT_TRUE(hidraw.Next(kWaitMs).has_value());
    order.clear();
    for (int i = 0; i < 3; ++i)
        order.push_back(all.Next(kWaitMs).value_or(Monitor::Event{}).syspath);
    EXPECT_EQ((std::vector<std::string>{second.InterfaceSysPath(), second.HidSysPath(), second.SysPath()}), order);

    dev.SendUevent("change");
    e = hidraw.Next(kWaitMs);
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ("change", e->action);
    ASSERT_TRUE(all.Next(kWaitMs).has_value());

    const std::string path = dev.SysPath();
    const std::string usb = dev.UsbDeviceSysPath();
    dev.Unplug();
    e = hidraw.Next(kWaitMs);
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ("remove", e->action);
    EXPECT_EQ(path, e->syspath);
    EXPECT_EQ(1u, EnumerateHidraw().size()); // already gone when the event arrives
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(all.Next(kWaitMs).has_value());
    second.Unplug();
    ASSERT_TRUE(hidraw.Next(kWaitMs).has_value());
    order.clear();
    for (int i = 0; i < 4; ++i) {
        auto ev = all.Next(kWaitMs);
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

} // namespace
