// The emulated adapters checked from the outside, through raw libudev and the
// hidraw system calls only (not through libkarvex): what the tests, karvex-emu
// and the benchmarks rely on the emulator to do as a kernel would, where the
// library's own suites would not notice it going wrong. What the library sees
// through the emulator (USB attributes, errors after an unplug, level-triggered
// poll, fault injection) is checked by the suites that use it.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <libudev.h>
#include <linux/hidraw.h>
#include <linux/input.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
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
    explicit Fd(const std::string& path) : mFd(open(path.c_str(), O_RDWR | O_NONBLOCK)) {}
    ~Fd()
    {
        if (mFd >= 0)
            close(mFd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    int get() const { return mFd; }

private:
    int mFd;
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

// ---- libudev helpers ----

struct UdevDeleter {
    void operator()(udev* u) const { udev_unref(u); }
    void operator()(udev_device* d) const { udev_device_unref(d); }
    void operator()(udev_monitor* m) const { udev_monitor_unref(m); }
};
using UdevPtr = std::unique_ptr<udev, UdevDeleter>;
using DevicePtr = std::unique_ptr<udev_device, UdevDeleter>;
using MonitorPtr = std::unique_ptr<udev_monitor, UdevDeleter>;

// Hidraw nodes udev lists now.
size_t HidrawCount()
{
    UdevPtr u(udev_new());
    udev_enumerate* e = udev_enumerate_new(u.get());
    udev_enumerate_add_match_subsystem(e, "hidraw");
    udev_enumerate_scan_devices(e);
    size_t count = 0;
    for (udev_list_entry* entry = udev_enumerate_get_list_entry(e); entry != nullptr;
         entry = udev_list_entry_get_next(entry))
        ++count;
    udev_enumerate_unref(e);
    return count;
}

// Every uevent udev passes on, as "action syspath".
class Monitor {
public:
    Monitor() : mUdev(udev_new()), mMon(udev_monitor_new_from_netlink(mUdev.get(), "udev"))
    {
        udev_monitor_enable_receiving(mMon.get());
    }
    std::optional<std::string> Next(int timeoutMs)
    {
        pollfd p{udev_monitor_get_fd(mMon.get()), POLLIN, 0};
        if (poll(&p, 1, timeoutMs) <= 0)
            return std::nullopt;
        DevicePtr d(udev_monitor_receive_device(mMon.get()));
        if (!d)
            return std::nullopt;
        return std::string(udev_device_get_action(d.get())) + " " + udev_device_get_syspath(d.get());
    }
    // The next n events; a missing one fails the test.
    std::vector<std::string> Take(int n)
    {
        std::vector<std::string> events;
        for (int i = 0; i < n; ++i) {
            const auto e = Next(kWaitMs);
            EXPECT_TRUE(e.has_value()) << "timed out waiting for uevent " << i + 1 << " of " << n;
            events.push_back(e.value_or(""));
        }
        return events;
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

// ---- unplug and hot-plug ----

// Reads, poll and ioctls after an unplug fail as hidraw's do (the library's
// device suites see them); what they cannot see is that a replug brings a
// fresh node: the old descriptor stays dead and nothing sent meanwhile is kept.
TEST_F(EmulatorTest, ReplugGivesAFreshNodeAndTheOldDescriptorStaysDead)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    dev.InjectInputReport(Bytes{1});
    dev.Unplug();
    EXPECT_FALSE(dev.IsPlugged());
    EXPECT_TRUE(dev.SysPath().empty());
    EXPECT_EQ(EIO, Read(fd.get(), 64).err);
    dev.InjectInputReport(Bytes{2}); // lost

    dev.Plug();
    EXPECT_EQ(EIO, Read(fd.get(), 64).err);
    Fd fresh(dev.DevNode());
    ASSERT_GE(fresh.get(), 0);
    EXPECT_EQ(EAGAIN, Read(fresh.get(), 64).err);
    int size;
    EXPECT_EQ(0, Ioctl(fresh.get(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(0, PollIn(fresh.get(), 20));
}

// Parents are added before their children and removed after them, as the
// kernel does; the device is gone from the enumeration when its removal is
// announced. Quiet plugging (the benchmarks' testbed) announces nothing.
TEST_F(EmulatorTest, UdevMonitorSeesAddAndRemoveInKernelOrder)
{
    Monitor all;
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    const std::string hidraw = dev.SysPath(), hid = dev.HidSysPath();
    const std::string intf = dev.InterfaceSysPath(), usb = dev.UsbDeviceSysPath();
    EXPECT_EQ((std::vector<std::string>{"add " + usb, "add " + intf, "add " + hid, "add " + hidraw}), all.Take(4));
    dev.Unplug();
    EXPECT_EQ("remove " + hidraw, all.Take(1).at(0));
    EXPECT_EQ(0u, HidrawCount());
    EXPECT_EQ((std::vector<std::string>{"remove " + hid, "remove " + intf, "remove " + usb}), all.Take(3));

    dev.Plug(false);
    EXPECT_EQ(1u, HidrawCount());
    dev.Unplug(false);
    mTestbed->AddDevice(kemu::AdapterConfig(), true, false);
    EXPECT_FALSE(all.Next(100).has_value());
}

// The device tests pace answers with delays; a delayed answer must neither
// overtake nor be overtaken, nor hold up the node, and must not outlive the
// firmware that was to send it.
TEST_F(EmulatorTest, DelayedAnswersKeepOrderAndDoNotBlockTheDevice)
{
    auto& dev = mTestbed->AddDevice(kemu::AdapterConfig());
    auto firmware = std::make_unique<kemu::EmuAdapterFirmware>(dev);
    Fd fd(dev.DevNode());
    ASSERT_GE(fd.get(), 0);
    kemu::EmuAdapterFirmware::Faults slow;
    slow.delayMs = 300;
    firmware->SetFaults(slow);
    ASSERT_EQ(321, Write(fd.get(), Command(THID_CMD_GET_PROTOCOL_VERSION, 1, 8)).result);
    firmware->SetFaults(kemu::EmuAdapterFirmware::Faults());
    ASSERT_EQ(321, Write(fd.get(), Command(THID_CMD_GET_PROTOCOL_VERSION, 2, 8)).result);
    // The device keeps answering while the first answer waits.
    int size;
    EXPECT_EQ(0, Ioctl(fd.get(), HIDIOCGRDESCSIZE, &size).result);
    EXPECT_EQ(0u, firmware->ResponseCount());
    EXPECT_EQ(EAGAIN, Read(fd.get(), 512).err);

    for (std::uint8_t id : {1, 2}) {
        ASSERT_TRUE(PollIn(fd.get(), kWaitMs) & POLLIN) << "timed out waiting for answer " << int(id);
        Bytes answer;
        ASSERT_LT(0, Read(fd.get(), 4096, &answer).result);
        EXPECT_EQ(id, Id(answer));
    }

    // Destroying the firmware drops answers still waiting.
    firmware->SetFaults(slow);
    ASSERT_EQ(321, Write(fd.get(), Command(THID_CMD_GET_PROTOCOL_VERSION, 3, 8)).result);
    firmware.reset();
    EXPECT_EQ(0u, dev.PendingInputReports());
}

} // namespace
