// hidraw access against emulated devices under umockdev: the udev wrappers,
// the enumeration with its filter and records, and the device interface
// (open, descriptor lengths, reads, writes, waits, ioctls, permissions and
// unplugging).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <libudev.h>
#include <linux/hidraw.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "liblinux/LxHidRawDeviceEnumerator.h"
#include "liblinux/LxHidRawDeviceInterface.h"
#include "liblinux/LxHidRawReportBuffer.h"
#include "liblinux/LxUdevContext.h"
#include "liblinux/LxUdevContextGlobal.h"
#include "liblinux/LxUdevDevice.h"
#include "support/test_support.h"

using ktest::CaptureTrace;
using ktest::CountOf;

namespace {

const std::string kEnum = "TSTATUS LxHidRawDeviceEnumerator::EnumerateHidRawDevices(const TbUsbVidPidList*)";
const std::string kDeviceInfo =
    "const LxHidRawDeviceEnumeratorInfo* LxHidRawDeviceEnumerator::DeviceInfo(unsigned int) const";
const std::string kOpen = "TSTATUS LxHidRawDeviceInterface::OpenHidRawDevice(LxHidRawDeviceEnumerator&, unsigned int)";
const std::string kClose = "void LxHidRawDeviceInterface::CloseHidRawDevice()";
const std::string kRead = "TSTATUS LxHidRawDeviceInterface::ReadReport(LxHidRawReportBuffer&)";
const std::string kWrite = "TSTATUS LxHidRawDeviceInterface::WriteReport(LxHidRawReportBuffer&)";
const std::string kSync = "TSTATUS LxHidRawDeviceInterface::ReadReportSync(LxHidRawReportBuffer&, int)";
const std::string kDescSize = "TSTATUS LxHidRawDeviceInterface::IoctlGetReportDescriptorSize(int&)";
const std::string kDesc =
    "TSTATUS LxHidRawDeviceInterface::IoctlGetReportDescriptor(hidraw_report_descriptor&, int)";
const std::string kRawInfo = "TSTATUS LxHidRawDeviceInterface::IoctlGetRawInfo(hidraw_devinfo&)";
const std::string kRawName = "TSTATUS LxHidRawDeviceInterface::IoctlGetRawName(char*, unsigned int)";
const std::string kPhys = "TSTATUS LxHidRawDeviceInterface::IoctlGetPhysicalLocation(char*, unsigned int)";
const std::string kSerial = "TSTATUS LxHidRawDeviceInterface::GetSerialNumberString(char*, unsigned int)";

TbUsbVidPidList AdapterFilter()
{
    TbUsbVidPidList filter;
    filter.AddVidPid(0x1209, 0x7A01);
    filter.AddVidPid(0x1209, 0x7A02);
    filter.AddVidPid(0x1209, 0x7A03);
    return filter;
}

std::string Upper(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(toupper(c)); });
    return s;
}

// A C string a table can hold; null stays visible.
std::string Str(const char* s) { return s != nullptr ? s : "<null>"; }

std::vector<T_UINT8> Pattern(size_t n, T_UINT8 seed)
{
    std::vector<T_UINT8> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<T_UINT8>(seed + i * 7);
    return v;
}

class HidrawTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mSavedMask = TPosixGetTraceMask();
        TPosixSetTraceMask(0);
        mTestbed = std::make_unique<kemu::EmuTestbed>();
    }
    void TearDown() override
    {
        mItf.CloseHidRawDevice(); // before its node goes
        mTestbed.reset();
        TPosixSetTraceMask(mSavedMask);
    }

    kemu::EmuHidDevice& Add(const kemu::EmuHidDeviceConfig& config = kemu::AdapterConfig())
    {
        return mTestbed->AddDevice(config);
    }

    // Index of the record with this device node in a fresh enumeration.
    unsigned IndexOf(LxHidRawDeviceEnumerator& e, const kemu::EmuHidDevice& dev)
    {
        unsigned index = ~0u;
        EXPECT_EQ(TSTATUS_SUCCESS, e.FindIndexForDevicePath(dev.DevNode().c_str(), index)) << dev.DevNode();
        return index;
    }

    // Enumerates with the adapter filter and opens dev.
    TSTATUS Open(LxHidRawDeviceInterface& itf, LxHidRawDeviceEnumerator& e, const kemu::EmuHidDevice& dev)
    {
        TbUsbVidPidList filter = AdapterFilter();
        EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(&filter));
        return itf.OpenHidRawDevice(e, IndexOf(e, dev));
    }

    // Adds a device and opens it on mItf.
    kemu::EmuHidDevice& AddOpened(const kemu::EmuHidDeviceConfig& config = kemu::AdapterConfig())
    {
        kemu::EmuHidDevice& hid = Add(config);
        EXPECT_EQ(TSTATUS_SUCCESS, Open(mItf, mEnum, hid));
        return hid;
    }

    std::unique_ptr<kemu::EmuTestbed> mTestbed;
    unsigned mSavedMask = 0;
    LxHidRawDeviceEnumerator mEnum;
    LxHidRawDeviceInterface mItf;
};

} // namespace

// ---- The process-wide udev context -----------------------------------------

// First in the file so that, in a default run, the context does not exist
// yet when several threads ask for it at once (TSan checks the creation).
TEST(UdevContextGlobal, ConcurrentFirstUseCreatesOneContext)
{
    std::vector<std::thread> threads;
    std::vector<udev*> seen(8, nullptr);
    std::atomic<bool> go{false};
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&, i] {
            while (!go.load())
                std::this_thread::yield();
            seen[i] = LxUdevContextGlobal::GetContext().GetContext();
        });
    }
    go = true;
    for (auto& t : threads)
        t.join();
    ASSERT_NE(nullptr, seen[0]);
    for (udev* u : seen)
        EXPECT_EQ(seen[0], u);
    EXPECT_TRUE(LxUdevContextGlobal::GetContext().IsInitialized());
}

// ---- udev wrappers ------------------------------------------------------

TEST_F(HidrawTest, UdevDeviceFromSyspathAndParents)
{
    kemu::EmuHidDevice& hid = Add();
    LxUdevContext& ctx = LxUdevContextGlobal::GetContext();
    auto child = std::make_unique<LxUdevDevice>();
    ASSERT_TRUE(child->InitFromSyspath(ctx, hid.SysPath().c_str()));
    LxUdevDevice usb, interface;
    ASSERT_TRUE(usb.InitWithGetParentWithSubsystemDevtype(*child, "usb", "usb_device"));
    ASSERT_TRUE(interface.InitWithGetParentWithSubsystemDevtype(*child, "usb", "usb_interface"));
    // A second Init is refused with a line and must not replace the device.
    const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_TRUE(child->InitFromSyspath(ctx, "/sys/devices/does/not/exist"));
        EXPECT_TRUE(usb.InitWithGetParentWithSubsystemDevtype(*child, "usb", "usb_interface"));
    });
    EXPECT_EQ("bool LxUdevDevice::InitFromSyspath(LxUdevContext&, const char*): already initialized\n"
              "bool LxUdevDevice::InitWithGetParentWithSubsystemDevtype(LxUdevDevice&, const char*, const char*): "
              "already initialized\n",
              out);
    EXPECT_EQ((std::vector<std::string>{hid.DevNode(), "hidraw", hid.SysPath()}),
              (std::vector<std::string>{Str(child->GetDevnode()), Str(child->GetSubsystem()), Str(child->GetSyspath())}));

    // The parents hold references of their own.
    child.reset();
    EXPECT_EQ((std::vector<std::string>{"usb_device", "1209", "7a01", "usb_interface", "00", "Karvex HID"}),
              (std::vector<std::string>{Str(usb.GetDevtype()), Str(usb.GetSysattrValue("idVendor")),
                                        Str(usb.GetSysattrValue("idProduct")), Str(interface.GetDevtype()),
                                        Str(interface.GetSysattrValue("bInterfaceNumber")),
                                        Str(interface.GetSysattrValue("interface"))}));
    EXPECT_EQ(nullptr, usb.GetSysattrValue("no_such_attribute"));
}

// ---- Enumeration ----------------------------------------------------------

TEST_F(HidrawTest, FilterSelectsByVidAndPid)
{
    LxHidRawDeviceEnumerator e;
    TbUsbVidPidList filter = AdapterFilter();
    EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(nullptr));
    EXPECT_EQ(0u, e.DeviceCount()) << "no devices yet";
    kemu::EmuHidDevice& a1 = Add(kemu::AdapterConfig(0x7A01, "S1"));
    kemu::EmuHidDevice& a3 = Add(kemu::AdapterConfig(0x7A03, "S3"));
    kemu::EmuHidDevice& foreign = Add(kemu::ForeignDeviceConfig());
    Add(kemu::AdapterConfig(0x7A04, "S4")); // right VID, wrong PID
    EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(nullptr));
    EXPECT_EQ(4u, e.DeviceCount());

    TbUsbVidPidList empty;
    EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(&empty));
    EXPECT_EQ(0u, e.DeviceCount());

    std::string out =
        CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(&filter)); });
    ASSERT_EQ(2u, e.DeviceCount());
    EXPECT_EQ(2u, CountOf(out, kEnum + ": ignore device\n"));
    EXPECT_EQ(2u, CountOf(out, kEnum + ": add device to list\n"));
    std::set<std::string> paths{e.DevicePath(0), e.DevicePath(1)};
    EXPECT_EQ((std::set<std::string>{a1.DevNode(), a3.DevNode()}), paths);
    unsigned index = 99;
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, e.FindIndexForDevicePath(foreign.DevNode().c_str(), index));
    EXPECT_EQ(99u, index);
    ASSERT_EQ(TSTATUS_SUCCESS, e.FindIndexForDevicePath(a3.DevNode().c_str(), index));
    EXPECT_EQ(0x7A03, e.PID(index));
    EXPECT_STREQ("S3", e.SerialNumberString(index));
}

TEST_F(HidrawTest, RecordCarriesUsbFactsAndIsTraced)
{
    kemu::EmuHidDeviceConfig config = kemu::AdapterConfig(0x7A02, "KVX-REC-1");
    config.bcdDevice = 0x0213;
    config.manufacturer = "Karvex Ltd";
    config.product = "Karvex Adapter X";
    config.interfaceNumber = 0x0B; // sysfs writes "0b": parsed as hex
    config.interfaceName = std::string("Karvex HID X");
    kemu::EmuHidDevice& hid = Add(config);

    LxHidRawDeviceEnumerator e;
    TbUsbVidPidList filter = AdapterFilter();
    std::string out =
        CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(&filter)); });
    ASSERT_EQ(1u, e.DeviceCount());
    const LxHidRawDeviceEnumeratorInfo* info = e.DeviceInfo(0);
    ASSERT_NE(nullptr, info);
    EXPECT_EQ((std::vector<std::string>{hid.DevNode(), "Karvex Ltd", "Karvex Adapter X", "KVX-REC-1", "Karvex HID X"}),
              (std::vector<std::string>{info->mDevicePath, info->mManufacturer, info->mProduct, info->mSerial,
                                        info->mInterface}));
    EXPECT_EQ((std::vector<int>{0x1209, 0x7A02, 0x0213, 0x0B, 0x1209, 0x0213}),
              (std::vector<int>{info->mVID, info->mPID, info->mBcdDevice, info->mInterfaceNumber, e.VID(0),
                                e.bcdDevice(0)}));

    // Fourteen labelled lines in this order, then the acceptance.
    const char* labels[] = {"hidraw:          '", "usb_device:      '", "usb_interface:   '",
                            "hidraw:          '", "usb_device:      '", "usb_interface:   '",
                            "manufacturer:    'Karvex Ltd'\n", "product:         'Karvex Adapter X'\n",
                            "serial:          'KVX-REC-1'\n", "vid:             0x1209\n",
                            "pid:             0x7a02\n", "bcd_device:      0x0213\n",
                            "interface:       0x0b\n", "interface_str:   'Karvex HID X'\n",
                            "add device to list\n"};
    size_t pos = 0;
    for (const char* label : labels) {
        const size_t found = out.find(kEnum + ": " + label, pos);
        ASSERT_NE(std::string::npos, found) << label << "\n" << out;
        pos = found + 1;
    }
    EXPECT_EQ(0u, out.find(kEnum + ": hidraw:          '" + hid.DevNode() + "'\n")) << out;
    const std::string devpathLine = kEnum + ": hidraw:          '" + hid.SysPath().substr(4) + "'\n"; // without /sys
    EXPECT_NE(std::string::npos, out.find(devpathLine)) << out;
    EXPECT_EQ(15u, CountOf(out, kEnum + ": "));
}

TEST_F(HidrawTest, MissingStringsAreEmptyAndLongOnesCutTo127)
{
    kemu::EmuHidDeviceConfig bare = kemu::AdapterConfig(0x7A01, "");
    bare.serial.reset();
    bare.interfaceName.reset();
    bare.product = "Only Product";
    kemu::EmuHidDevice& b = Add(bare);

    kemu::EmuHidDeviceConfig longer = kemu::AdapterConfig(0x7A02, std::string(128, 's'));
    longer.manufacturer = std::string(300, 'm');
    longer.interfaceName.reset();
    longer.product = std::string(128, 'p');
    kemu::EmuHidDevice& l = Add(longer);
    kemu::EmuHidDevice& s127 = Add(kemu::AdapterConfig(0x7A03, std::string(127, '7')));

    TbUsbVidPidList filter = AdapterFilter();
    ASSERT_EQ(TSTATUS_SUCCESS, mEnum.EnumerateHidRawDevices(&filter));
    ASSERT_EQ(3u, mEnum.DeviceCount());
    const LxHidRawDeviceEnumeratorInfo* bi = mEnum.DeviceInfo(IndexOf(mEnum, b));
    ASSERT_NE(nullptr, bi);
    EXPECT_STREQ("", bi->mSerial);
    EXPECT_STREQ("", mEnum.SerialNumberString(IndexOf(mEnum, b)));
    EXPECT_STREQ("Only Product", bi->mInterface) << "no interface string: the product string";

    const LxHidRawDeviceEnumeratorInfo* li = mEnum.DeviceInfo(IndexOf(mEnum, l));
    ASSERT_NE(nullptr, li);
    EXPECT_EQ((std::vector<std::string>{std::string(127, 's'), std::string(127, 'm'), std::string(127, 'p'),
                                        std::string(127, 'p')}),
              (std::vector<std::string>{li->mSerial, li->mManufacturer, li->mProduct, li->mInterface}));

    // The interface keeps what the record holds: 127 characters fit, a
    // 128-character serial arrives already cut, none is not supported.
    char buf[128];
    EXPECT_EQ("", CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
                  for (auto [hid, serial] : {std::make_pair(&s127, std::string(127, '7')),
                                             std::make_pair(&l, std::string(127, 's'))}) {
                      mItf.CloseHidRawDevice();
                      ASSERT_EQ(TSTATUS_SUCCESS, mItf.OpenHidRawDevice(mEnum, IndexOf(mEnum, *hid)));
                      ASSERT_EQ(TSTATUS_SUCCESS, mItf.GetSerialNumberString(buf, sizeof(buf)));
                      EXPECT_EQ(serial, buf);
                  }
              }));
    mItf.CloseHidRawDevice();
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.OpenHidRawDevice(mEnum, IndexOf(mEnum, b)));
    EXPECT_EQ("", CaptureTrace(0x7F, [&] {
                  EXPECT_EQ(TSTATUS_NOT_SUPPORTED, mItf.GetSerialNumberString(buf, sizeof(buf)));
              }));
}

TEST_F(HidrawTest, CompositeDeviceGivesOneRecordPerInterface)
{
    auto configs = kemu::CompositeDeviceConfigs();
    ASSERT_EQ(2u, configs.size());
    kemu::EmuHidDevice& first = Add(configs[0]);
    kemu::EmuHidDevice& second = Add(configs[1]);

    LxHidRawDeviceEnumerator e;
    TbUsbVidPidList filter = AdapterFilter();
    ASSERT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(&filter));
    ASSERT_EQ(2u, e.DeviceCount());
    const LxHidRawDeviceEnumeratorInfo* r0 = e.DeviceInfo(IndexOf(e, first));
    const LxHidRawDeviceEnumeratorInfo* r1 = e.DeviceInfo(IndexOf(e, second));
    ASSERT_TRUE(r0 && r1);
    EXPECT_STRNE(r0->mDevicePath, r1->mDevicePath);
    EXPECT_EQ((std::vector<int>{r0->mVID, r0->mPID, 0}), (std::vector<int>{r1->mVID, r1->mPID, r0->mInterfaceNumber}));
    EXPECT_STREQ(r0->mSerial, r1->mSerial);
    EXPECT_EQ(1, r1->mInterfaceNumber);
    EXPECT_STREQ("Karvex HID 2", r1->mInterface);
}

TEST_F(HidrawTest, DeviceWithoutUsbParentIsSkipped)
{
    Add(kemu::NoUsbParentConfig());
    kemu::EmuHidDevice& usb = Add();
    LxHidRawDeviceEnumerator e;
    std::string out =
        CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(nullptr)); });
    ASSERT_EQ(1u, e.DeviceCount());
    EXPECT_STREQ(usb.DevNode().c_str(), e.DevicePath(0));
    EXPECT_EQ("bool LxUdevDevice::InitWithGetParentWithSubsystemDevtype(LxUdevDevice&, const char*, const char*): "
              "udev_device_get_parent_with_subsystem_devtype failed\n" +
                  kEnum + ": dev.InitWithGetParentWithSubsystemDevtype usb_interface failed\n",
              out);
}

TEST_F(HidrawTest, InvalidIndexGivesNullAndTwoLines)
{
    Add();
    LxHidRawDeviceEnumerator e;
    ASSERT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(nullptr));
    ASSERT_EQ(1u, e.DeviceCount());
    const std::string first = kDeviceInfo + ": invalid device index 1 (max 1)\n";
    struct {
        std::string sig;
        std::function<bool()> call;
    } accessors[] = {
        {"const char* LxHidRawDeviceEnumerator::DevicePath(unsigned int)", [&] { return e.DevicePath(1) == nullptr; }},
        {"T_UINT16 LxHidRawDeviceEnumerator::VID(unsigned int)", [&] { return e.VID(1) == 0; }},
        {"T_UINT16 LxHidRawDeviceEnumerator::PID(unsigned int)", [&] { return e.PID(1) == 0; }},
        {"T_UINT16 LxHidRawDeviceEnumerator::bcdDevice(unsigned int)", [&] { return e.bcdDevice(1) == 0; }},
        {"const char* LxHidRawDeviceEnumerator::SerialNumberString(unsigned int) const",
         [&] { return e.SerialNumberString(1) == nullptr; }},
    };
    for (auto& a : accessors) {
        bool neutral = false;
        std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { neutral = a.call(); });
        EXPECT_TRUE(neutral) << a.sig;
        EXPECT_EQ(first + a.sig + ": invalid device index 1\n", out);
    }
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(nullptr, e.DeviceInfo(7)); });
    EXPECT_EQ(kDeviceInfo + ": invalid device index 7 (max 1)\n", out);
    EXPECT_EQ("", CaptureTrace(0, [&] { EXPECT_EQ(nullptr, e.DevicePath(1)); }));
}

TEST_F(HidrawTest, FindIndexIgnoresCase)
{
    kemu::EmuHidDevice& a = Add(kemu::AdapterConfig(0x7A01, "A"));
    kemu::EmuHidDevice& b = Add(kemu::AdapterConfig(0x7A02, "B"));
    LxHidRawDeviceEnumerator e;
    unsigned index = 42;
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, e.FindIndexForDevicePath(a.DevNode().c_str(), index)) << "empty list";
    EXPECT_EQ(42u, index);
    ASSERT_EQ(TSTATUS_SUCCESS, e.EnumerateHidRawDevices(nullptr));
    for (kemu::EmuHidDevice* d : {&a, &b}) {
        ASSERT_EQ(TSTATUS_SUCCESS, e.FindIndexForDevicePath(Upper(d->DevNode()).c_str(), index));
        EXPECT_STREQ(d->DevNode().c_str(), e.DevicePath(index));
    }
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, e.FindIndexForDevicePath((a.DevNode() + "0").c_str(), index));
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, e.FindIndexForDevicePath("/dev/hidraw", index));
}

TEST_F(HidrawTest, ListEqualityAndReEnumerationAfterUnplug)
{
    kemu::EmuHidDevice& a = Add(kemu::AdapterConfig(0x7A01, "A"));
    kemu::EmuHidDevice& b = Add(kemu::AdapterConfig(0x7A02, "B"));
    kemu::EmuHidDevice& c = Add(kemu::AdapterConfig(0x7A03, "C"));
    TbUsbVidPidList filter = AdapterFilter();
    LxHidRawDeviceEnumerator e1, e2, empty1, empty2;
    ASSERT_EQ(TSTATUS_SUCCESS, e1.EnumerateHidRawDevices(&filter));
    ASSERT_EQ(TSTATUS_SUCCESS, e2.EnumerateHidRawDevices(&filter));
    EXPECT_TRUE(e1.IsDeviceListEqual(e2));
    EXPECT_TRUE(e2.IsDeviceListEqual(e1));
    EXPECT_TRUE(empty1.IsDeviceListEqual(empty2));
    EXPECT_FALSE(e1.IsDeviceListEqual(empty1));

    // Same count, different paths.
    TbUsbVidPidList onlyA, onlyB;
    onlyA.AddVidPid(0x1209, 0x7A01);
    onlyB.AddVidPid(0x1209, 0x7A02);
    LxHidRawDeviceEnumerator ea, eb;
    ASSERT_EQ(TSTATUS_SUCCESS, ea.EnumerateHidRawDevices(&onlyA));
    ASSERT_EQ(TSTATUS_SUCCESS, eb.EnumerateHidRawDevices(&onlyB));
    ASSERT_EQ(1u, ea.DeviceCount());
    ASSERT_EQ(1u, eb.DeviceCount());
    EXPECT_FALSE(ea.IsDeviceListEqual(eb));

    unsigned indexC = IndexOf(e1, c);
    b.Unplug();
    ASSERT_EQ(TSTATUS_SUCCESS, e2.EnumerateHidRawDevices(&filter));
    EXPECT_EQ(2u, e2.DeviceCount());
    EXPECT_FALSE(e1.IsDeviceListEqual(e2));
    unsigned index = 0;
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, e2.FindIndexForDevicePath(b.DevNode().c_str(), index));
    ASSERT_EQ(TSTATUS_SUCCESS, e2.FindIndexForDevicePath(c.DevNode().c_str(), index));
    if (IndexOf(e1, b) < indexC) {
        EXPECT_EQ(indexC - 1, index) << "later records move up";
    }
    ASSERT_EQ(TSTATUS_SUCCESS, e2.FindIndexForDevicePath(a.DevNode().c_str(), index));

    e1.ClearList();
    EXPECT_EQ(0u, e1.DeviceCount());
    e1.ClearList();
    EXPECT_TRUE(e1.IsDeviceListEqual(empty1));
}

// ---- Device interface: open and close --------------------------------------

TEST_F(HidrawTest, OpenLearnsLengthsIdentityAndSerial)
{
    kemu::EmuHidDevice& hid = Add(kemu::AdapterConfig(0x7A02, "KVX777"));
    EXPECT_FALSE(mItf.IsOpen());
    EXPECT_EQ(-1, mItf.GetFileDescriptor());
    ASSERT_EQ(TSTATUS_SUCCESS, Open(mItf, mEnum, hid));
    EXPECT_TRUE(mItf.IsOpen());
    EXPECT_GE(mItf.GetFileDescriptor(), 0);
    EXPECT_TRUE(mItf.IsConnected());
    hidraw_devinfo info;
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.IoctlGetRawInfo(info));
    EXPECT_EQ((std::vector<int>{0x1209, 0x7A02, 0x0100, 0x1209, 0x7A02}),
              (std::vector<int>{mItf.UsbVid(), mItf.UsbPid(), mItf.UsbRevision(), static_cast<T_UINT16>(info.vendor),
                                static_cast<T_UINT16>(info.product)}));

    char serial[7];
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.GetSerialNumberString(serial, sizeof(serial)));
    EXPECT_STREQ("KVX777", serial);
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, mItf.GetSerialNumberString(serial, 6));
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, mItf.GetSerialNumberString(nullptr, 100));
    });
    EXPECT_EQ(kSerial + ": stringBuffer too small, min. 7 bytes, got 6 bytes\n" + kSerial +
                  ": stringBuffer is NULL\n",
              out);

    char name[256];
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.IoctlGetRawName(name, sizeof(name)));
    EXPECT_NE(std::string::npos, std::string(name).find("Karvex")) << name;
    char phys[64];
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.IoctlGetPhysicalLocation(phys, sizeof(phys)));
    EXPECT_NE(0u, strlen(phys));
    // A buffer longer than the ioctl's 14-bit length field is still safe.
    std::vector<char> huge(70000, 'x');
    EXPECT_EQ(TSTATUS_SUCCESS, mItf.IoctlGetRawName(huge.data(), static_cast<unsigned>(huge.size())));
    EXPECT_STREQ(name, huge.data());

    int size = -1;
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.IoctlGetReportDescriptorSize(size));
    EXPECT_EQ(static_cast<int>(hid.ReportDescriptor().size()), size);

    out = CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { mItf.CloseHidRawDevice(); });
    EXPECT_EQ(0u, out.find(kClose + ": close hidraw file handle\n" + kClose + ": free report descriptor parser (0x"))
        << out;
    EXPECT_FALSE(mItf.IsOpen());
    EXPECT_EQ(0u, mItf.InputReportByteLength());
    EXPECT_EQ(0u, mItf.UsbVid());
    EXPECT_EQ(TSTATUS_NOT_SUPPORTED, mItf.GetSerialNumberString(serial, sizeof(serial)));
    EXPECT_EQ("", CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { mItf.CloseHidRawDevice(); })) << "second close";
}

TEST_F(HidrawTest, ReportLengthsFollowTheDescriptor)
{
    struct Case {
        kemu::EmuHidDeviceConfig config;
        T_UINT32 in, out;
        bool numbered;
    };
    kemu::EmuHidDeviceConfig c64 = kemu::AdapterConfig(0x7A01, "L64");
    c64.reportDescriptor = kemu::AdapterReportDescriptor(64, 64);
    kemu::EmuHidDeviceConfig empty = kemu::AdapterConfig(0x7A01, "E");
    empty.reportDescriptor = {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0xC0};
    std::vector<Case> cases = {
        {kemu::AdapterConfig(), 321, 321, false},  {c64, 65, 65, false},
        {kemu::Adapter64Config(), 64, 64, false},  {kemu::NoOutputReportConfig(), 321, 0, false},
        {kemu::NumberedAdapterConfig(), 321, 321, true}, {empty, 0, 0, false},
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        SCOPED_TRACE(i);
        mItf.CloseHidRawDevice();
        mTestbed.reset(); // one testbed at a time
        mTestbed = std::make_unique<kemu::EmuTestbed>();
        AddOpened(cases[i].config);
        EXPECT_EQ(cases[i].in, mItf.InputReportByteLength());
        EXPECT_EQ(cases[i].out, mItf.OutputReportByteLength());
        EXPECT_EQ(cases[i].numbered, mItf.IsNumberedInputReport());
    }
}

TEST_F(HidrawTest, OpenFailuresLeaveTheInterfaceClosed)
{
    kemu::EmuHidDeviceConfig config = kemu::AdapterConfig();
    // Vendor page, 320-byte input and output reports; ends with Output (91 02) and End Collection.
    config.reportDescriptor = {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01, 0x75, 0x08, 0x96, 0x40,
                               0x01, 0x81, 0x02, 0x96, 0x40, 0x01, 0x91, 0x02, 0xC0};
    kemu::EmuHidDevice& hid = Add(config);
    const int fullSize = static_cast<int>(config.reportDescriptor.size());
    ASSERT_EQ(TSTATUS_SUCCESS, mEnum.EnumerateHidRawDevices(nullptr));
    struct Row {
        std::string what;
        std::function<void()> fault;
        TSTATUS status;
        std::string trace; // the whole error trace, or with partial a part of it
        bool partial = false;
        unsigned index = 0;
    };
    std::vector<Row> rows = {
        {"bad index", [] {}, TSTATUS_INVALID_PARAMETER, kOpen + ": invalid deviceIndex: 1 deviceCount: 1\n", false, 1},
        {"size ioctl", [&] { hid.FailIoctl(HIDIOCGRDESCSIZE, EIO); }, TSTATUS_LINUX_EIO,
         kDescSize + ": HIDIOCGRDESCSIZE failed (5)\n" + kOpen + ":IoctlGetReportDescriptorSize failed, err = 0xE0010005\n"},
        {"descriptor ioctl", [&] { hid.FailIoctl(HIDIOCGRDESC, EINVAL); }, TStatusFromErrno(EINVAL),
         kDesc + ": HIDIOCGRDESC failed (22)\n" + kOpen + ":IoctlGetReportDescriptor failed, err = 0xE0010016\n"},
        // 4096 fits the structure; like the kernel, the device refuses to copy that many.
        {"size 4096", [&] { hid.OverrideDescriptorSize(4096); }, TStatusFromErrno(EINVAL), "HIDIOCGRDESC failed (22)",
         true},
        // A size that cuts the descriptor inside the Output item: the parse fails.
        {"cut in an item", [&] { hid.OverrideDescriptorSize(fullSize - 2); }, TSTATUS_FAILED,
         kOpen + ": parse HID report descriptor failed\n", true},
        {"Pop without Push", [&] { hid.SetReportDescriptor({0x06, 0x00, 0xFF, 0xA1, 0x01, 0xB4, 0xC0}); },
         TSTATUS_FAILED, "ParseGlobalItem failed (bTag:0x0b)\n" + kOpen + ": parse HID report descriptor failed\n", true},
    };
    for (int claimed : {4097, 5000, 0x7FFFFFFF, -1, -4096})
        rows.push_back({"size " + std::to_string(claimed), [&hid, claimed] { hid.OverrideDescriptorSize(claimed); },
                        TSTATUS_INVALID_DESCRIPTOR,
                        kOpen + ": invalid HID report descriptor size: " + std::to_string(claimed) + " (max. 4096)\n"});
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        row.fault();
        const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
            EXPECT_EQ(row.status, mItf.OpenHidRawDevice(mEnum, row.index));
        });
        if (row.partial)
            EXPECT_NE(std::string::npos, out.find(row.trace)) << out;
        else
            EXPECT_EQ(row.trace, out);
        EXPECT_FALSE(mItf.IsOpen());
        EXPECT_EQ(-1, mItf.GetFileDescriptor());
        EXPECT_TRUE(ktest::WaitUntil([&] { return hid.OpenDescriptorCount() == 0; }))
            << "timed out waiting for the node to be closed";
        hid.FailIoctl(HIDIOCGRDESCSIZE, 0);
        hid.FailIoctl(HIDIOCGRDESC, 0);
        hid.OverrideDescriptorSize(std::nullopt);
        hid.SetReportDescriptor(config.reportDescriptor);
    }

    // The descriptor and its length are traced before the parse.
    hid.SetReportDescriptor({0x06, 0x00, 0xFF, 0xA1, 0x01, 0xB4, 0xC0});
    std::string out = CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { mItf.OpenHidRawDevice(mEnum, 0); });
    EXPECT_NE(std::string::npos, out.find(kOpen + ": HID report descriptor size: 7\n")) << out;
    EXPECT_NE(std::string::npos, out.find("0000: 06 00 FF A1 01 B4 C0 ")) << "descriptor dump";
    hid.SetReportDescriptor(config.reportDescriptor);

    // Without the End Collection the descriptor is still complete; an empty one parses: no reports.
    for (auto [size, length] : {std::make_pair(fullSize - 1, 321u), std::make_pair(0, 0u)}) {
        hid.OverrideDescriptorSize(size);
        ASSERT_EQ(TSTATUS_SUCCESS, mItf.OpenHidRawDevice(mEnum, 0)) << size;
        EXPECT_EQ(length, mItf.OutputReportByteLength()) << size;
        EXPECT_EQ(length, mItf.InputReportByteLength()) << size;
        mItf.CloseHidRawDevice();
    }
    hid.OverrideDescriptorSize(std::nullopt);
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.OpenHidRawDevice(mEnum, 0));
    EXPECT_EQ(321u, mItf.InputReportByteLength());
    const int fd = mItf.GetFileDescriptor();
    out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_ALREADY_OPEN, mItf.OpenHidRawDevice(mEnum, 0));
        hidraw_report_descriptor d;
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, mItf.IoctlGetReportDescriptor(d, 4097));
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, mItf.IoctlGetReportDescriptor(d, -1));
    });
    EXPECT_EQ(0u, out.find(kOpen + ": already open\n")) << out;
    EXPECT_EQ(2u, CountOf(out, kDesc + ": invalid size ")) << out;
    EXPECT_EQ(fd, mItf.GetFileDescriptor());
    EXPECT_TRUE(mItf.IsConnected());

    // A node that is gone by the time it is opened.
    mItf.CloseHidRawDevice();
    ASSERT_TRUE(ktest::WaitUntil([&] { return hid.OpenDescriptorCount() == 0; })) << "timed out waiting for the close";
    hid.Unplug();
    out = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_VERBOSE, [&] {
        EXPECT_EQ(TStatusFromErrno(ENOENT), mItf.OpenHidRawDevice(mEnum, 0));
    });
    EXPECT_EQ(kOpen + ": open: '" + hid.DevNode() + "'\n" + kOpen + ": open failed (2)\n", out);
    EXPECT_FALSE(mItf.IsOpen());
}

TEST_F(HidrawTest, OpenWithoutPermissionIsNotAllowed)
{
    kemu::EmuHidDevice& hid = Add();
    hid.SetNodeMode(0000);
    ASSERT_EQ(TSTATUS_SUCCESS, mEnum.EnumerateHidRawDevices(nullptr));

    // Root opens any node: the open is tried in a child that gives up root's
    // privileges. It reports its trace through a pipe and its result as exit code.
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    fflush(stdout);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        close(pipeFds[0]);
        if (geteuid() == 0 && (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0))
            _exit(10);
        if (dup2(pipeFds[1], STDOUT_FILENO) < 0)
            _exit(11);
        TPosixSetTraceMask(KARVEX_TRACE_ERROR);
        const TSTATUS status = mItf.OpenHidRawDevice(mEnum, 0);
        fflush(stdout);
        _exit(status == TSTATUS_NOT_ALLOWED && !mItf.IsOpen() ? 0 : 1);
    }
    close(pipeFds[1]);
    std::string out;
    char buf[512];
    for (ssize_t n; (n = read(pipeFds[0], buf, sizeof(buf))) > 0;)
        out.append(buf, static_cast<size_t>(n));
    close(pipeFds[0]);
    int wstatus = 0;
    ASSERT_EQ(child, waitpid(child, &wstatus, 0));
    ASSERT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(0, WEXITSTATUS(wstatus)) << out;
    EXPECT_EQ(kOpen + ": open failed (no permission)\n", out);
    if (geteuid() == 0) {
        EXPECT_EQ(TSTATUS_SUCCESS, mItf.OpenHidRawDevice(mEnum, 0)) << "root itself still opens it";
    }
}

TEST_F(HidrawTest, OtherIoctlFailuresAreReportedWithErrno)
{
    kemu::EmuHidDevice& hid = AddOpened();

    hid.FailIoctl(HIDIOCGRAWINFO, ENODEV);
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_FALSE(mItf.IsConnected()); });
    EXPECT_EQ(kRawInfo + ": HIDIOCGRAWINFO failed (19)\n", out);
    hid.FailIoctl(HIDIOCGRAWINFO, 0);
    EXPECT_TRUE(mItf.IsConnected());

    hid.FailIoctl(HIDIOCGRAWNAME(0), EIO);
    hid.FailIoctl(HIDIOCGRAWPHYS(0), EPERM);
    char buf[100];
    memset(buf, 'x', sizeof(buf));
    out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_LINUX_EIO, mItf.IoctlGetRawName(buf, sizeof(buf)));
        EXPECT_EQ(TSTATUS_LINUX_EPERM, mItf.IoctlGetPhysicalLocation(buf, 64));
    });
    EXPECT_EQ(kRawName + ": HIDIOCGRAWNAME(100) failed (5)\n" + kPhys + ": HIDIOCGRAWPHYS(64) failed (1)\n", out);
    // The output is cleared first, over the whole length.
    EXPECT_EQ(std::string(100, '\0'), std::string(buf, sizeof(buf)));
}

// ---- Device interface: reports ---------------------------------------------

TEST_F(HidrawTest, CallsWhileClosedAreRefused)
{
    LxHidRawDeviceInterface itf;
    LxHidRawReportBuffer buffer;
    ASSERT_TRUE(buffer.AllocateBuffer(8));
    int size = 5;
    hidraw_report_descriptor d;
    hidraw_devinfo info;
    char text[16];
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.WriteReport(buffer));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.ReadReport(buffer));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.ReadReportSync(buffer, 0));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.IoctlGetReportDescriptorSize(size));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.IoctlGetReportDescriptor(d, 10));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.IoctlGetRawInfo(info));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.IoctlGetRawName(text, sizeof(text)));
        EXPECT_EQ(TSTATUS_NOT_OPENED, itf.IoctlGetPhysicalLocation(text, sizeof(text)));
        EXPECT_FALSE(itf.IsConnected());
    });
    EXPECT_EQ(kWrite + ": not open\n" + kRead + ": not open\n" + kSync + ": not open\n" + kDescSize +
                  ": not open\n" + kDesc + ": not open\n" + kRawInfo + ": not open\n" + kRawName + ": not open\n" +
                  kPhys + ": not open\n" + kRawInfo + ": not open\n",
              out);
    EXPECT_FALSE(itf.IsNumberedInputReport());
}

TEST_F(HidrawTest, UnnumberedReadPutsDataAfterAZeroIdByte)
{
    kemu::EmuHidDevice& hid = AddOpened();
    LxHidRawReportBuffer buffer;
    ASSERT_TRUE(buffer.AllocateBuffer(mItf.InputReportByteLength()));
    memset(buffer.Buffer(), 0xEE, buffer.BufferSize());

    EXPECT_EQ("", CaptureTrace(0x7F, [&] { EXPECT_EQ(TSTATUS_NO_DATA, mItf.ReadReport(buffer)); }));
    EXPECT_EQ(0u, buffer.BytesTransferred());

    const auto report = Pattern(320, 3);
    hid.InjectInputReport(report);
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.ReadReport(buffer));
    EXPECT_EQ(321u, buffer.BytesTransferred());
    EXPECT_EQ(0, buffer.GetReportId());
    EXPECT_EQ(report, std::vector<T_UINT8>(buffer.ReportData(), buffer.ReportData() + 320));

    // A short report: the count still includes the ID byte.
    hid.InjectInputReport(Pattern(10, 50));
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.ReadReport(buffer));
    EXPECT_EQ(11u, buffer.BytesTransferred());
    EXPECT_EQ(50, buffer.ReportData()[0]);
    EXPECT_EQ(TSTATUS_NO_DATA, mItf.ReadReport(buffer));

    hid.FailReads(EIO);
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(TSTATUS_LINUX_EIO, mItf.ReadReport(buffer)); });
    EXPECT_EQ(kRead + ": read failed (5)\n", out);
    EXPECT_EQ(0u, buffer.BytesTransferred());
    hid.FailReads(0);
    EXPECT_EQ(TSTATUS_NO_DATA, mItf.ReadReport(buffer));
}

TEST_F(HidrawTest, NumberedReadKeepsTheIdByteFromTheDevice)
{
    kemu::EmuHidDevice& hid = AddOpened(kemu::NumberedAdapterConfig());
    ASSERT_TRUE(mItf.IsNumberedInputReport());
    LxHidRawReportBuffer buffer;
    ASSERT_TRUE(buffer.AllocateBuffer(mItf.InputReportByteLength()));
    std::vector<T_UINT8> report = Pattern(321, 9);
    report[0] = 1;
    hid.InjectInputReport(report);
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.ReadReportSync(buffer, 5000));
    EXPECT_EQ(321u, buffer.BytesTransferred());
    EXPECT_EQ(1, buffer.GetReportId());
    EXPECT_EQ(report, std::vector<T_UINT8>(buffer.Buffer(), buffer.Buffer() + 321));
}

TEST_F(HidrawTest, WriteSendsTheWholeBufferIdByteFirst)
{
    kemu::EmuHidDevice& hid = AddOpened();
    ktest::EventLog<std::vector<T_UINT8>> written;
    hid.SetWriteHook([&](const std::uint8_t* data, std::size_t length) { written.Add({data, data + length}); });
    LxHidRawReportBuffer buffer;
    ASSERT_TRUE(buffer.AllocateBuffer(mItf.OutputReportByteLength()));
    buffer.ZeroBuffer();
    const auto payload = Pattern(320, 77);
    std::copy(payload.begin(), payload.end(), buffer.ReportData());
    buffer.SetBytesTransferred(12345);
    ASSERT_EQ(TSTATUS_SUCCESS, mItf.WriteReport(buffer));
    EXPECT_EQ(321u, buffer.BytesTransferred());
    ASSERT_EQ(1u, written.Size());
    EXPECT_EQ(std::vector<T_UINT8>(buffer.Buffer(), buffer.Buffer() + 321), written.Items()[0]);
    EXPECT_EQ(0, written.Items()[0][0]);

    hid.FailWrites(EPIPE);
    std::string out =
        CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(TStatusFromErrno(EPIPE), mItf.WriteReport(buffer)); });
    EXPECT_EQ(kWrite + ": write failed (32)\n", out);
    EXPECT_EQ(0u, buffer.BytesTransferred());
    hid.SetWriteHook(nullptr);
}

TEST_F(HidrawTest, ReadReportSyncWaitsTimesOutAndSeesUnplug)
{
    kemu::EmuHidDevice& hid = AddOpened();
    LxHidRawReportBuffer buffer;
    ASSERT_TRUE(buffer.AllocateBuffer(mItf.InputReportByteLength()));

    std::string out =
        CaptureTrace(KARVEX_TRACE_INFO, [&] { EXPECT_EQ(TSTATUS_TIMEOUT, mItf.ReadReportSync(buffer, 0)); });
    EXPECT_EQ(kSync + ": timeout after 0 ms\n", out);
    out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(TSTATUS_TIMEOUT, mItf.ReadReportSync(buffer, 20)); });
    EXPECT_EQ("", out) << "the time-out line is information";

    // A report that arrives while waiting.
    const pid_t self = ktest::ThreadId();
    std::thread sender([&] {
        ktest::WaitUntilBlocked(self);
        hid.InjectInputReport(Pattern(320, 1));
    });
    EXPECT_EQ(TSTATUS_SUCCESS, mItf.ReadReportSync(buffer, 10000));
    sender.join();
    EXPECT_EQ(321u, buffer.BytesTransferred());
    EXPECT_EQ(1, buffer.ReportData()[0]);

    // Unplugged while waiting without limit: the wait ends with an error.
    TSTATUS status = TSTATUS_SUCCESS;
    std::atomic<pid_t> readerTid{0};
    std::thread reader([&] {
        readerTid = ktest::ThreadId();
        status = mItf.ReadReportSync(buffer, -1);
    });
    ASSERT_TRUE(ktest::WaitUntil([&] { return readerTid.load() != 0; }) && ktest::WaitUntilBlocked(readerTid))
        << "timed out waiting for the reader to block";
    hid.Unplug();
    reader.join();
    EXPECT_EQ(TSTATUS_LINUX_EIO, status);
    out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(TSTATUS_LINUX_EIO, mItf.ReadReportSync(buffer, 1000)); });
    EXPECT_TRUE(out == kSync + ": POLLERR event\n" || out == kRead + ": read failed (5)\n") << out;
    EXPECT_FALSE(mItf.IsConnected());
}
