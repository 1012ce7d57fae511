// Hot-plug notification against emulated hidraw devices: the udev monitor
// notificator (action decoding, filter hook, thread lifetime) and the hidraw
// notificator on top of it (VID/PID filter, its own enumeration cache).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"
#include "liblinux/LxHidRawPnPNotificator.h"
#include "liblinux/LxPnPNotificator.h"
#include "liblinux/LxPnPNotificatorCallbackForwarderT.h"
#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;
using ktest::CountOf;
using ktest::TraceMaskGuard;

// Long enough for a loaded machine; a passing test never waits this long.
constexpr auto cEventWait = ktest::kWaitLimit;

constexpr T_UINT16 cAdapterVid = 0x1209;
constexpr T_UINT16 cAdapterPid = 0x7A01;

constexpr unsigned cTraceLines = KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING | KARVEX_TRACE_INFO;

const char* const cFilterSig =
    "virtual bool LxHidRawPnPNotificator::OnFilterDeviceInstance(LxUdevDevice&, LxPnPNotificatorAction)";
const char* const cStartSig = "TSTATUS LxHidRawPnPNotificator::StartForHidRawDevices("
                              "LxPnPNotificatorCallbackInterface*, const TbUsbVidPidList*, bool)";
const char* const cHandleSig = "void LxPnPNotificator::HandlePnPEvent()";
const char* const cThreadSig = "void* LxPnPNotificator::ThreadCallback()";

std::string Format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string Format(const char* fmt, ...)
{
    char buffer[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(buffer, sizeof(buffer), fmt, args);
    va_end(args);
    return buffer;
}

// Collects stdout while alive (trace lines from every thread). gtest
// reports failures on stdout too: those would vanish with the capture, so
// the captured text is passed on whenever the test has failed.
class StdoutCapture {
public:
    StdoutCapture()
    {
        fflush(stdout);
        testing::internal::CaptureStdout();
    }
    ~StdoutCapture() { Take(); }
    std::string Take()
    {
        if (!mActive)
            return mText;
        fflush(stdout);
        mText = testing::internal::GetCapturedStdout();
        mActive = false;
        if (testing::Test::HasFailure())
            std::fputs(mText.c_str(), stdout);
        return mText;
    }

private:
    bool mActive = true;
    std::string mText;
};

struct Notification {
    LxPnPNotificatorAction action;
    std::string syspath;
    bool onNotificationThread;
};

// The application side: receives notifications through the forwarder, as the
// API object does, and lets tests wait for them.
class Receiver {
public:
    Receiver() { mForwarder.Init(this, &Receiver::OnDeviceChange); }

    LxPnPNotificatorCallbackInterface* Callback() { return &mForwarder; }

    // The notificator asked for IsNotificationThread inside the callback.
    void Watch(LxPnPNotificator* notificator) { mNotificator = notificator; }

    // Runs inside the callback, on the monitor thread, before it is recorded.
    void SetHook(std::function<void()> hook) { mHook = std::move(hook); }

    bool WaitForCount(size_t count) { return mEvents.WaitForCount(count); }
    std::vector<Notification> Events() { return mEvents.Items(); }

    pid_t MonitorThreadId() { return mMonitorTid.load(); }

private:
    void OnDeviceChange(LxPnPNotificatorAction action, const char* syspath)
    {
        mMonitorTid = static_cast<pid_t>(syscall(SYS_gettid));
        if (mHook)
            mHook();
        bool onThread = mNotificator != nullptr && mNotificator->IsNotificationThread();
        mEvents.Add(Notification{action, syspath != nullptr ? syspath : "<null>", onThread});
    }

    LxPnPNotificatorCallbackForwarderT<Receiver> mForwarder;
    LxPnPNotificator* mNotificator = nullptr;
    std::function<void()> mHook;
    ktest::EventLog<Notification> mEvents;
    std::atomic<pid_t> mMonitorTid{0};
};

// Base notificator with an observable filter hook. Vetoes one action when
// asked, to show that the hook's verdict is obeyed.
class ObservedNotificator : public LxPnPNotificator {
public:
    // Stop while the override still exists: the monitor thread calls it.
    ~ObservedNotificator() override { Stop(); }

    void VetoAction(int action) { mVetoAction = action; }
    int FilterCalls() { return mFilterCalls.load(); }
    int MonitorFd() { return mUdevMonitor.GetFd(); }

protected:
    bool OnFilterDeviceInstance(LxUdevDevice& /*device*/, LxPnPNotificatorAction action) override
    {
        mFilterCalls++;
        return static_cast<int>(action) != mVetoAction;
    }

private:
    std::atomic<int> mFilterCalls{0};
    int mVetoAction = -1;
};

// umockdev's preload library redirects every file system path through one
// shared buffer and is not safe when one thread reads sysfs while another
// changes the testbed or sends a uevent: paths get mixed up and uevents are
// lost. Tests therefore drive the emulator under this lock, and the observed
// hidraw filter (which reads sysfs) runs under it too.
std::mutex gEmulatorLock;

// What the hidraw filter decided and what its cache held right after the
// decision, recorded on the monitor thread itself.
struct Decision {
    LxPnPNotificatorAction action;
    bool passed;
    std::vector<std::string> cache;
};

class ObservedHidRawNotificator : public LxHidRawPnPNotificator {
public:
    ~ObservedHidRawNotificator() override { Stop(); }

    std::vector<Decision> Decisions() { return mDecisions.Items(); }
    bool WaitForDecisions(size_t count) { return mDecisions.WaitForCount(count); }

    // Only while no monitor thread runs (before start or after stop).
    std::vector<std::string> CacheWhileIdle() { return CachePaths(); }

    bool ThreadRunning() { return mThread.IsRunning(); }
    bool WaitForThreadEnd() { return ktest::WaitUntil([this] { return !mThread.IsRunning(); }); }

    // Hangs up the terminate pipe: its read end reports POLLHUP for good.
    void HangUpTerminatePipe() { mPipe.CloseWriteEnd(); }

    // Replaces the monitor's socket by the write end of a pipe that has no
    // reader (which polls as POLLERR), then wakes the thread so that it polls
    // the replacement. Stop later closes it in place of the socket.
    bool BreakMonitorSocket()
    {
        int fds[2];
        if (pipe(fds) != 0)
            return false;
        close(fds[0]);
        bool ok = dup2(fds[1], mUdevMonitor.GetFd()) >= 0;
        close(fds[1]);
        return ok && mPipe.WriteChar('w') == 1;
    }

    bool PipeOpen() { return mPipe.GetReadEnd() != -1; }
    bool MonitorOpen() { return mUdevMonitor.IsInitialized(); }

protected:
    bool OnFilterDeviceInstance(LxUdevDevice& device, LxPnPNotificatorAction action) override
    {
        std::unique_lock<std::mutex> emulatorLock(gEmulatorLock);
        bool passed = LxHidRawPnPNotificator::OnFilterDeviceInstance(device, action);
        Decision decision{action, passed, CachePaths()};
        emulatorLock.unlock();
        mDecisions.Add(decision);
        return passed;
    }

private:
    std::vector<std::string> CachePaths()
    {
        std::vector<std::string> paths;
        for (unsigned i = 0; i < mEnumerator.DeviceCount(); ++i)
            paths.push_back(mEnumerator.DevicePath(i));
        return paths;
    }

    ktest::EventLog<Decision> mDecisions;
};

bool Contains(const std::vector<std::string>& list, const std::string& item)
{
    return std::find(list.begin(), list.end(), item) != list.end();
}

// Waits until a kernel thread of this process has gone.
bool WaitForTaskGone(pid_t tid)
{
    const std::string path = "/proc/self/task/" + std::to_string(tid);
    struct stat st;
    return ktest::WaitUntil([&] { return stat(path.c_str(), &st) != 0; });
}

class HotplugTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mTestbed = std::make_unique<kemu::EmuTestbed>();
        mAdapterFilter.AddVidPid(cAdapterVid, cAdapterPid);
    }

    kemu::EmuHidDevice& Add(const kemu::EmuHidDeviceConfig& config)
    {
        std::lock_guard<std::mutex> lock(gEmulatorLock);
        return mTestbed->AddDevice(config, true, true);
    }

    static void Unplug(kemu::EmuHidDevice& device)
    {
        std::lock_guard<std::mutex> lock(gEmulatorLock);
        device.Unplug(true);
    }

    static void Send(kemu::EmuHidDevice& device, const char* action)
    {
        std::lock_guard<std::mutex> lock(gEmulatorLock);
        device.SendUevent(action);
    }

    static kemu::EmuHidDeviceConfig Adapter(int hidrawIndex, T_UINT16 pid = cAdapterPid)
    {
        kemu::EmuHidDeviceConfig config = kemu::AdapterConfig(pid);
        config.hidrawIndex = hidrawIndex;
        return config;
    }

    // Another vendor's device; letters in both IDs show the hex case.
    static kemu::EmuHidDeviceConfig Foreign(int hidrawIndex, T_UINT16 vid = 0x04AB, T_UINT16 pid = 0xC0DE)
    {
        kemu::EmuHidDeviceConfig config = kemu::ForeignDeviceConfig();
        config.vid = vid;
        config.pid = pid;
        config.hidrawIndex = hidrawIndex;
        return config;
    }

    TraceMaskGuard mMask{cTraceLines};
    std::unique_ptr<kemu::EmuTestbed> mTestbed;
    TbUsbVidPidList mAdapterFilter;
};

// ---------------------------------------------------------------------------
// LxPnPNotificator
// ---------------------------------------------------------------------------

TEST_F(HotplugTest, BaseDecodesEveryKnownActionAndIgnoresOthers)
{
    kemu::EmuHidDevice& dev = Add(Adapter(2));
    Receiver receiver;
    ObservedNotificator notificator;
    receiver.Watch(&notificator);
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(receiver.Callback(), "hidraw", nullptr));
    EXPECT_TRUE(notificator.IsStarted());
    EXPECT_FALSE(notificator.IsNotificationThread());

    StdoutCapture capture;
    // libudev itself refuses actions it does not know and names in other
    // letter case ("ADD"): nothing is received for them and the thread must
    // carry on. "bind" is known to libudev but not to the notificator.
    Send(dev, "ADD");
    Send(dev, "bind");
    for (const char* action : {"add", "remove", "change", "online", "offline"})
        Send(dev, action);
    ASSERT_TRUE(receiver.WaitForCount(5));
    std::string out = capture.Take();

    std::vector<Notification> events = receiver.Events();
    ASSERT_EQ(5u, events.size());
    const LxPnPNotificatorAction expected[] = {Action_add, Action_remove, Action_change, Action_online,
                                               Action_offline};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(expected[i], events[i].action) << i;
        EXPECT_EQ(dev.SysPath(), events[i].syspath) << i;
        EXPECT_TRUE(events[i].onNotificationThread) << i;
    }
    EXPECT_EQ(5, notificator.FilterCalls()); // not for the ignored bind
    EXPECT_EQ(1u, CountOf(out, Format("%s: ignore unexpected action bind\n", cHandleSig))) << out;
    EXPECT_EQ(1u, CountOf(out, "ignore unexpected action")) << out;
}

TEST_F(HotplugTest, BaseFilterVerdictDecides)
{
    kemu::EmuHidDevice& dev = Add(Adapter(2));
    Receiver receiver;
    ObservedNotificator notificator;
    notificator.VetoAction(Action_change);
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(receiver.Callback(), "hidraw", nullptr));

    Send(dev, "change");
    Send(dev, "online");
    ASSERT_TRUE(receiver.WaitForCount(1));
    std::vector<Notification> events = receiver.Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(Action_online, events[0].action);
    EXPECT_EQ(2, notificator.FilterCalls());
}

TEST_F(HotplugTest, BaseWithoutCallbackDropsEventsWithoutConsultingTheFilter)
{
    kemu::EmuHidDevice& dev = Add(Adapter(2));
    ObservedNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(nullptr, "hidraw", nullptr));

    StdoutCapture capture;
    Send(dev, "add");
    Send(dev, "remove");
    // The unknown action is traced before the callback is looked at: once
    // its line is out, the two events before it have been handled too. The
    // socket is drained when the thread has received all three.
    Send(dev, "bind");
    int fd = notificator.MonitorFd();
    auto deadline = std::chrono::steady_clock::now() + cEventWait;
    int pending = 1;
    while (ioctl(fd, FIONREAD, &pending) == 0 && pending > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(0, pending);
    notificator.Stop(); // joins: the thread has finished whatever it received
    std::string out = capture.Take();

    EXPECT_EQ(1u, CountOf(out, Format("%s: ignore unexpected action bind\n", cHandleSig))) << out;
    EXPECT_EQ(0, notificator.FilterCalls());
}

TEST_F(HotplugTest, BaseStartTwiceAndStopTwice)
{
    kemu::EmuHidDevice& dev = Add(Adapter(2));
    Receiver first;
    Receiver second;
    ObservedNotificator notificator;
    notificator.Stop(); // never started: nothing to do
    EXPECT_FALSE(notificator.IsStarted());

    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(first.Callback(), "hidraw", nullptr));
    StdoutCapture capture;
    EXPECT_EQ(TSTATUS_ALREADY_DONE, notificator.Start(second.Callback(), "input", nullptr));
    EXPECT_EQ("", capture.Take()); // silent

    // Still the first callback and subsystem.
    Send(dev, "change");
    ASSERT_TRUE(first.WaitForCount(1));
    EXPECT_TRUE(second.Events().empty());

    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());
    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());

    // And it can be started again, now for the second receiver.
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(second.Callback(), "hidraw", nullptr));
    Send(dev, "online");
    ASSERT_TRUE(second.WaitForCount(1));
    EXPECT_EQ(Action_online, second.Events()[0].action);
    EXPECT_EQ(1u, first.Events().size());
}

// ---------------------------------------------------------------------------
// LxHidRawPnPNotificator: filtering and cache
// ---------------------------------------------------------------------------

TEST_F(HotplugTest, AdapterPlugAndUnplugReportedWithSameSyspathAndCacheFollows)
{
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    receiver.Watch(&notificator);
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));
    EXPECT_TRUE(notificator.IsStarted());

    kemu::EmuHidDevice& dev = Add(Adapter(3));
    const std::string syspath = dev.SysPath();
    const std::string devnode = dev.DevNode();
    ASSERT_TRUE(receiver.WaitForCount(1));
    Unplug(dev);
    ASSERT_TRUE(receiver.WaitForCount(2));

    std::vector<Notification> events = receiver.Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(Action_add, events[0].action);
    EXPECT_EQ(Action_remove, events[1].action);
    EXPECT_EQ(syspath, events[0].syspath);
    EXPECT_EQ(syspath, events[1].syspath);
    EXPECT_TRUE(events[0].onNotificationThread);
    EXPECT_FALSE(notificator.IsNotificationThread());

    std::vector<Decision> decisions = notificator.Decisions();
    ASSERT_EQ(2u, decisions.size());
    EXPECT_TRUE(Contains(decisions[0].cache, devnode)); // refreshed on arrival
    EXPECT_FALSE(Contains(decisions[1].cache, devnode)); // refreshed on removal
    EXPECT_TRUE(decisions[1].cache.empty());
}

TEST_F(HotplugTest, WithoutCacheUpdateOnRemoveTheRemovedAdapterStaysUntilNextArrival)
{
    kemu::EmuHidDevice& present = Add(Adapter(3));
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, false));

    // Adapters present at start are in the cache, so their removal passes.
    const std::string gone = present.DevNode();
    Unplug(present);
    ASSERT_TRUE(receiver.WaitForCount(1));
    EXPECT_EQ(Action_remove, receiver.Events()[0].action);

    kemu::EmuHidDevice& next = Add(Adapter(4, 0x7A01));
    ASSERT_TRUE(receiver.WaitForCount(2));
    EXPECT_EQ(Action_add, receiver.Events()[1].action);

    std::vector<Decision> decisions = notificator.Decisions();
    ASSERT_EQ(2u, decisions.size());
    EXPECT_EQ(std::vector<std::string>{gone}, decisions[0].cache);
    EXPECT_EQ(std::vector<std::string>{next.DevNode()}, decisions[1].cache);
}

TEST_F(HotplugTest, DevicesOutsideTheFilterAreNeverReported)
{
    // Two entries: a hit on the second one counts; VID and PID must both match.
    TbUsbVidPidList filter;
    filter.AddVidPid(cAdapterVid, 0x7A09);
    filter.AddVidPid(cAdapterVid, cAdapterPid);
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &filter, true));

    // Each event is decided before the next change: an arrival handled
    // after its device has gone again could no longer be looked at.
    StdoutCapture capture;
    kemu::EmuHidDevice& foreign = Add(Foreign(5));
    ASSERT_TRUE(notificator.WaitForDecisions(1));
    Add(Foreign(6, cAdapterVid, 0x7A02));
    ASSERT_TRUE(notificator.WaitForDecisions(2));
    Add(Foreign(7, 0x16C0, cAdapterPid));
    ASSERT_TRUE(notificator.WaitForDecisions(3));
    const std::string foreignNode = foreign.DevNode();
    Unplug(foreign);
    ASSERT_TRUE(notificator.WaitForDecisions(4));
    kemu::EmuHidDevice& adapter = Add(Adapter(8));
    ASSERT_TRUE(receiver.WaitForCount(1));
    std::string out = capture.Take();

    std::vector<Notification> events = receiver.Events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(Action_add, events[0].action);
    EXPECT_EQ(adapter.SysPath(), events[0].syspath);

    const char* ignoring = "%s: ignoring HID device VID=0x%s PID=0x%s because it's not in the filter list\n";
    EXPECT_EQ(1u, CountOf(out, Format(ignoring, cFilterSig, "04AB", "C0DE"))) << out;
    EXPECT_EQ(1u, CountOf(out, Format(ignoring, cFilterSig, "1209", "7A02"))) << out;
    EXPECT_EQ(1u, CountOf(out, Format(ignoring, cFilterSig, "16C0", "7A01"))) << out;
    EXPECT_EQ(1u, CountOf(out, Format("%s: FindIndexForDevicePath('%s') failed, err = 0xE0000081, ignore device\n",
                                      cFilterSig, foreignNode.c_str())))
        << out;
    EXPECT_EQ(4u, CountOf(out, cFilterSig)) << out; // nothing else from the filter
}

TEST_F(HotplugTest, OnlyArrivalAndRemovalActionsOfAdaptersPass)
{
    kemu::EmuHidDevice& adapter = Add(Adapter(3));
    kemu::EmuHidDevice& foreign = Add(Foreign(4));
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));

    StdoutCapture capture;
    Send(adapter, "change");  // never reported
    Send(foreign, "online");  // arrival rules: not in the filter
    Send(foreign, "offline"); // removal rules: not in the cache
    Send(adapter, "online");
    Send(adapter, "offline");
    ASSERT_TRUE(receiver.WaitForCount(2));
    std::string out = capture.Take();

    std::vector<Notification> events = receiver.Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(Action_online, events[0].action);
    EXPECT_EQ(Action_offline, events[1].action);
    EXPECT_EQ(adapter.SysPath(), events[1].syspath);
    EXPECT_EQ(1u, CountOf(out, Format("%s: ignore unknown action 2 for device '%s'\n", cFilterSig,
                                      adapter.DevNode().c_str())))
        << out;
    EXPECT_EQ(1u, CountOf(out, "VID=0x04AB PID=0xC0DE")) << out;
    EXPECT_EQ(1u, CountOf(out, Format("FindIndexForDevicePath('%s') failed", foreign.DevNode().c_str()))) << out;
}

TEST_F(HotplugTest, HidrawWithoutUsbParentIsRefused)
{
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));

    StdoutCapture capture;
    kemu::EmuHidDeviceConfig bluetooth = kemu::NoUsbParentConfig();
    bluetooth.hidrawIndex = 5;
    Add(bluetooth);
    kemu::EmuHidDevice& adapter = Add(Adapter(6));
    ASSERT_TRUE(receiver.WaitForCount(1));
    std::string out = capture.Take();

    EXPECT_EQ(adapter.SysPath(), receiver.Events()[0].syspath);
    EXPECT_EQ(1u, CountOf(out, Format("%s: InitWithGetParentWithSubsystemDevtype usb_device failed\n", cFilterSig)))
        << out;
}

TEST_F(HotplugTest, WithoutFilterEveryHidrawEventPasses)
{
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), nullptr, true));

    kemu::EmuHidDevice& foreign = Add(Foreign(4));
    Send(foreign, "change");
    ASSERT_TRUE(receiver.WaitForCount(2));
    std::vector<Notification> events = receiver.Events();
    EXPECT_EQ(Action_add, events[0].action);
    EXPECT_EQ(Action_change, events[1].action);
    EXPECT_EQ(foreign.SysPath(), events[1].syspath);
}

// ---------------------------------------------------------------------------
// LxHidRawPnPNotificator: start, stop and thread lifetime
// ---------------------------------------------------------------------------

TEST_F(HotplugTest, SecondStartIsRefusedAndKeepsTheFirstFilter)
{
    TbUsbVidPidList foreignFilter;
    foreignFilter.AddVidPid(0x04AB, 0xC0DE);
    Receiver receiver;
    Receiver intruder;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));

    StdoutCapture capture;
    EXPECT_EQ(TSTATUS_ALREADY_DONE, notificator.StartForHidRawDevices(intruder.Callback(), &foreignFilter, false));
    EXPECT_EQ(Format("%s: already started\n", cStartSig), capture.Take());

    StdoutCapture eventCapture;
    Add(Foreign(4));
    kemu::EmuHidDevice& adapter = Add(Adapter(5));
    ASSERT_TRUE(receiver.WaitForCount(1));
    EXPECT_EQ(1u, CountOf(eventCapture.Take(), "VID=0x04AB PID=0xC0DE because it's not in the filter list"));
    EXPECT_EQ(adapter.SysPath(), receiver.Events()[0].syspath);
    EXPECT_EQ(1u, receiver.Events().size());
    EXPECT_TRUE(intruder.Events().empty());

    // updateCacheOnRemove also stayed true.
    Unplug(adapter);
    ASSERT_TRUE(notificator.WaitForDecisions(3));
    EXPECT_TRUE(notificator.Decisions()[2].cache.empty());
}

TEST_F(HotplugTest, StopWaitsForTheMonitorThreadAndRepeatsHarmlessly)
{
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));

    // The callback holds the monitor thread until the test releases it.
    std::mutex gateMutex;
    std::condition_variable gateCond;
    bool entered = false;
    bool released = false;
    std::atomic<bool> stopReturned{false};
    std::atomic<bool> stopReturnedBeforeCallbackLeft{false};
    receiver.SetHook([&] {
        std::unique_lock<std::mutex> lock(gateMutex);
        entered = true;
        gateCond.notify_all();
        gateCond.wait_for(lock, cEventWait, [&] { return released; });
        stopReturnedBeforeCallbackLeft = stopReturned.load();
    });

    Add(Adapter(3));
    {
        std::unique_lock<std::mutex> lock(gateMutex);
        ASSERT_TRUE(gateCond.wait_for(lock, cEventWait, [&] { return entered; }));
    }
    std::thread stopper([&] {
        notificator.Stop();
        std::lock_guard<std::mutex> lock(gateMutex);
        stopReturned = true;
        gateCond.notify_all();
    });
    {
        // A Stop that does not wait for the thread returns within this time.
        std::unique_lock<std::mutex> lock(gateMutex);
        EXPECT_FALSE(gateCond.wait_for(lock, 200ms, [&] { return stopReturned.load(); }));
        released = true;
        gateCond.notify_all();
    }
    stopper.join();
    EXPECT_FALSE(stopReturnedBeforeCallbackLeft.load());
    EXPECT_TRUE(stopReturned.load());
    EXPECT_FALSE(notificator.IsStarted());
    EXPECT_FALSE(notificator.ThreadRunning());
    EXPECT_FALSE(notificator.PipeOpen());
    EXPECT_FALSE(notificator.MonitorOpen());
    EXPECT_TRUE(WaitForTaskGone(receiver.MonitorThreadId()));

    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());
    EXPECT_EQ(1u, receiver.Events().size());
}

TEST_F(HotplugTest, StopAfterTheThreadEndedOnAPipeHangUpJoinsAndResets)
{
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));
    ASSERT_TRUE(notificator.ThreadRunning());

    StdoutCapture capture;
    notificator.HangUpTerminatePipe();
    ASSERT_TRUE(notificator.WaitForThreadEnd());
    EXPECT_EQ(Format("%s: fds[0] error\n", cThreadSig), capture.Take());
    EXPECT_TRUE(notificator.IsStarted()); // until the owner stops it

    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());
    EXPECT_FALSE(notificator.PipeOpen());
    EXPECT_FALSE(notificator.MonitorOpen());

    // Fully usable again.
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));
    Add(Adapter(3));
    EXPECT_TRUE(receiver.WaitForCount(1));
}

TEST_F(HotplugTest, StopAfterTheThreadEndedOnAMonitorErrorJoinsAndResets)
{
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));

    StdoutCapture capture;
    ASSERT_TRUE(notificator.BreakMonitorSocket());
    ASSERT_TRUE(notificator.WaitForThreadEnd());
    EXPECT_EQ(Format("%s: fds[1] error\n", cThreadSig), capture.Take());
    EXPECT_TRUE(notificator.IsStarted());

    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());
    EXPECT_FALSE(notificator.MonitorOpen());

    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));
    Add(Adapter(3));
    EXPECT_TRUE(receiver.WaitForCount(1));
}

TEST_F(HotplugTest, DestroyingAStartedNotificatorStopsItsThread)
{
    // Present at start and reported through "offline" without a cache
    // refresh: the plain filter then reads no sysfs while the test drives
    // the emulator.
    kemu::EmuHidDevice& adapter = Add(Adapter(3));
    Receiver receiver;
    auto notificator = std::make_unique<LxHidRawPnPNotificator>();
    ASSERT_EQ(TSTATUS_SUCCESS, notificator->StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, false));
    Send(adapter, "offline");
    ASSERT_TRUE(receiver.WaitForCount(1));
    const pid_t monitorTid = receiver.MonitorThreadId();
    ASSERT_NE(0, monitorTid);

    StdoutCapture capture;
    notificator.reset();
    EXPECT_TRUE(WaitForTaskGone(monitorTid));
    // A thread left running would be woken by the pipe's hang-up when its
    // descriptors are closed, and would end with an error line.
    EXPECT_EQ("", capture.Take());
    Unplug(adapter); // nobody listens any more
    EXPECT_EQ(1u, receiver.Events().size());
}

TEST_F(HotplugTest, RestartWithAnotherFilterUsesItAndAFreshCache)
{
    kemu::EmuHidDevice& first = Add(Adapter(3, cAdapterPid));
    Receiver receiver;
    ObservedHidRawNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &mAdapterFilter, true));
    EXPECT_EQ(std::vector<std::string>{first.DevNode()}, notificator.CacheWhileIdle());
    notificator.Stop();

    TbUsbVidPidList otherFilter;
    otherFilter.AddVidPid(cAdapterVid, 0x7A02);
    kemu::EmuHidDevice& second = Add(Adapter(4, 0x7A02));
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.StartForHidRawDevices(receiver.Callback(), &otherFilter, true));
    EXPECT_EQ(std::vector<std::string>{second.DevNode()}, notificator.CacheWhileIdle());

    const std::string firstNode = first.DevNode();
    StdoutCapture capture;
    Unplug(first);                  // no longer ours: not in the new cache
    Add(Adapter(5, cAdapterPid));    // no longer ours: not in the new filter
    Add(Adapter(6, 0x7A02));
    // The cache is refreshed when the arrival is handled; a device that has
    // vanished by then is missing from it and its removal would be ignored.
    ASSERT_TRUE(receiver.WaitForCount(1));
    Unplug(second);
    ASSERT_TRUE(receiver.WaitForCount(2));
    ASSERT_TRUE(notificator.WaitForDecisions(4));
    std::string out = capture.Take();
    EXPECT_EQ(1u, CountOf(out, "FindIndexForDevicePath('" + firstNode + "') failed")) << out;
    EXPECT_EQ(1u, CountOf(out, "VID=0x1209 PID=0x7A01 because")) << out;

    std::vector<Notification> events = receiver.Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(Action_add, events[0].action);
    EXPECT_EQ(Action_remove, events[1].action);
    std::vector<Decision> decisions = notificator.Decisions();
    EXPECT_FALSE(decisions[0].passed);
    EXPECT_FALSE(decisions[1].passed);
}

} // namespace
