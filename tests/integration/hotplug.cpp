// Hot-plug notification against emulated hidraw devices: the udev monitor
// notificator (action decoding, filter hook, thread lifetime) and the hidraw
// notificator on top of it (VID/PID filter, its own enumeration cache).
#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
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

using ktest::CaptureTrace;
using ktest::CountOf;

constexpr T_UINT16 cAdapterVid = 0x1209;
constexpr T_UINT16 cAdapterPid = 0x7A01;

const std::string cFilterSig =
    "virtual bool LxHidRawPnPNotificator::OnFilterDeviceInstance(LxUdevDevice&, LxPnPNotificatorAction)";
const std::string cStartSig = "TSTATUS LxHidRawPnPNotificator::StartForHidRawDevices("
                              "LxPnPNotificatorCallbackInterface*, const TbUsbVidPidList*, bool)";
const std::string cHandleSig = "void LxPnPNotificator::HandlePnPEvent()";
const std::string cThreadSig = "void* LxPnPNotificator::ThreadCallback()";

struct Notification {
    LxPnPNotificatorAction action;
    std::string syspath;
    bool onNotificationThread;
    pid_t tid; // the monitor thread
};

// The application side: receives notifications through the forwarder, as the
// API object does, and records them.
class Receiver {
public:
    Receiver() { mForwarder.Init(this, &Receiver::OnDeviceChange); }
    LxPnPNotificatorCallbackInterface* Callback() { return &mForwarder; }

    LxPnPNotificator* watched = nullptr; // asked for IsNotificationThread inside the callback
    std::function<void()> hook;          // runs inside the callback before it is recorded
    ktest::EventLog<Notification> events;

private:
    void OnDeviceChange(LxPnPNotificatorAction action, const char* syspath)
    {
        if (hook)
            hook();
        const bool onThread = watched != nullptr && watched->IsNotificationThread();
        events.Add(Notification{action, syspath != nullptr ? syspath : "<null>", onThread, ktest::ThreadId()});
    }

    LxPnPNotificatorCallbackForwarderT<Receiver> mForwarder;
};

// Base notificator whose filter hook records the actions it is asked about
// and vetoes one of them, to show that its verdict is obeyed.
class ObservedNotificator : public LxPnPNotificator {
public:
    // Stop while the override still exists: the monitor thread calls it.
    ~ObservedNotificator() override { Stop(); }
    int MonitorFd() { return mUdevMonitor.GetFd(); }

    int veto = -1; // set before Start
    ktest::EventLog<LxPnPNotificatorAction> filtered;

protected:
    bool OnFilterDeviceInstance(LxUdevDevice& /*device*/, LxPnPNotificatorAction action) override
    {
        filtered.Add(action);
        return static_cast<int>(action) != veto;
    }
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

    ktest::EventLog<Decision> decisions;

    // Only while no monitor thread runs (before start or after stop).
    std::vector<std::string> CacheWhileIdle() { return CachePaths(); }

    bool ThreadRunning() { return mThread.IsRunning(); }
    bool PipeOpen() { return mPipe.GetReadEnd() != -1; }
    bool MonitorOpen() { return mUdevMonitor.IsInitialized(); }

    // Hangs up the terminate pipe: its read end reports POLLHUP for good.
    bool HangUpTerminatePipe()
    {
        mPipe.CloseWriteEnd();
        return true;
    }

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

protected:
    bool OnFilterDeviceInstance(LxUdevDevice& device, LxPnPNotificatorAction action) override
    {
        std::unique_lock<std::mutex> emulatorLock(gEmulatorLock);
        bool passed = LxHidRawPnPNotificator::OnFilterDeviceInstance(device, action);
        Decision decision{action, passed, CachePaths()};
        emulatorLock.unlock();
        decisions.Add(decision);
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
};

class HotplugTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mTestbed = std::make_unique<kemu::EmuTestbed>();
        mAdapterFilter.AddVidPid(cAdapterVid, cAdapterPid);
        mReceiver.watched = &mNotificator;
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

    static kemu::EmuHidDeviceConfig Adapter(T_UINT16 pid = cAdapterPid) { return kemu::AdapterConfig(pid); }

    // Another vendor's device; letters in both IDs show the hex case.
    static kemu::EmuHidDeviceConfig Foreign(T_UINT16 vid = 0x04AB, T_UINT16 pid = 0xC0DE)
    {
        kemu::EmuHidDeviceConfig config = kemu::ForeignDeviceConfig();
        config.vid = vid;
        config.pid = pid;
        return config;
    }

    TSTATUS Start(const TbUsbVidPidList* filter, bool updateCacheOnRemove = true)
    {
        return mNotificator.StartForHidRawDevices(mReceiver.Callback(), filter, updateCacheOnRemove);
    }

    ktest::TraceMaskGuard mMask{KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING | KARVEX_TRACE_INFO};
    std::unique_ptr<kemu::EmuTestbed> mTestbed;
    TbUsbVidPidList mAdapterFilter;
    Receiver mReceiver;
    ObservedHidRawNotificator mNotificator; // goes first: its thread uses the receiver and the testbed
};

// ---------------------------------------------------------------------------
// LxPnPNotificator
// ---------------------------------------------------------------------------

TEST_F(HotplugTest, BaseDecodesEveryKnownActionIgnoresOthersAndObeysTheFilter)
{
    kemu::EmuHidDevice& dev = Add(Adapter());
    Receiver receiver;
    ObservedNotificator notificator;
    receiver.watched = &notificator;
    notificator.veto = Action_change;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(receiver.Callback(), "hidraw", nullptr));
    EXPECT_TRUE(notificator.IsStarted());
    EXPECT_FALSE(notificator.IsNotificationThread());

    // libudev itself refuses actions it does not know and names in other
    // letter case ("ADD"): nothing is received for them and the thread must
    // carry on. "bind" is known to libudev but not to the notificator.
    const std::string out = CaptureTrace([&] {
        for (const char* action : {"ADD", "bind", "add", "remove", "change", "online", "offline"})
            Send(dev, action);
        EXPECT_TRUE(receiver.events.WaitForCount(4)) << "timed out waiting for four notifications";
    });
    const std::vector<Notification> events = receiver.events.Items();
    ASSERT_EQ(4u, events.size());
    const LxPnPNotificatorAction expected[] = {Action_add, Action_remove, Action_online, Action_offline};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(expected[i], events[i].action) << i;
        EXPECT_EQ(dev.SysPath(), events[i].syspath) << i;
        EXPECT_TRUE(events[i].onNotificationThread) << i;
    }
    // "change" was decoded and vetoed by the filter; the ignored "bind" never reached it.
    EXPECT_EQ((std::vector<LxPnPNotificatorAction>{Action_add, Action_remove, Action_change, Action_online,
                                                   Action_offline}),
              notificator.filtered.Items());
    EXPECT_EQ(1u, CountOf(out, cHandleSig + ": ignore unexpected action bind\n")) << out;
    EXPECT_EQ(1u, CountOf(out, "ignore unexpected action")) << out;
}

TEST_F(HotplugTest, BaseWithoutCallbackDropsEventsWithoutConsultingTheFilter)
{
    kemu::EmuHidDevice& dev = Add(Adapter());
    ObservedNotificator notificator;
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(nullptr, "hidraw", nullptr));

    // The unknown action is traced before the callback is looked at: once
    // its line is out, the two events before it have been handled too. The
    // socket is drained when the thread has received all three.
    const std::string out = CaptureTrace([&] {
        for (const char* action : {"add", "remove", "bind"})
            Send(dev, action);
        int pending = 1;
        EXPECT_TRUE(ktest::WaitUntil([&] { return ioctl(notificator.MonitorFd(), FIONREAD, &pending) == 0 && !pending; }))
            << "timed out waiting for the monitor socket to drain";
        notificator.Stop(); // joins: the thread has finished whatever it received
    });
    EXPECT_EQ(1u, CountOf(out, cHandleSig + ": ignore unexpected action bind\n")) << out;
    EXPECT_EQ(0u, notificator.filtered.Size());
}

TEST_F(HotplugTest, BaseStartTwiceAndStopTwice)
{
    kemu::EmuHidDevice& dev = Add(Adapter());
    Receiver first;
    Receiver second;
    ObservedNotificator notificator;
    notificator.Stop(); // never started: nothing to do
    EXPECT_FALSE(notificator.IsStarted());

    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(first.Callback(), "hidraw", nullptr));
    EXPECT_EQ("", CaptureTrace([&] {
                  EXPECT_EQ(TSTATUS_ALREADY_DONE, notificator.Start(second.Callback(), "input", nullptr));
              })) << "refused silently";

    // Still the first callback and subsystem.
    Send(dev, "change");
    ASSERT_TRUE(first.events.WaitForCount(1)) << "timed out waiting for the first receiver";
    EXPECT_EQ(0u, second.events.Size());

    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());
    notificator.Stop();
    EXPECT_FALSE(notificator.IsStarted());

    // And it can be started again, now for the second receiver.
    ASSERT_EQ(TSTATUS_SUCCESS, notificator.Start(second.Callback(), "hidraw", nullptr));
    Send(dev, "online");
    ASSERT_TRUE(second.events.WaitForCount(1)) << "timed out waiting for the second receiver";
    EXPECT_EQ(Action_online, second.events.Items()[0].action);
    EXPECT_EQ(1u, first.events.Size());
}

// ---------------------------------------------------------------------------
// LxHidRawPnPNotificator: filtering and cache
// ---------------------------------------------------------------------------

// The cache is refreshed on every arrival, and on a removal only when asked
// to: otherwise the removed adapter stays in it until the next arrival.
// Adapters present at start are in the cache, so their removal passes.
TEST_F(HotplugTest, AdapterPlugAndUnplugReportedWithSameSyspathAndCacheFollows)
{
    for (bool updateCacheOnRemove : {true, false}) {
        SCOPED_TRACE(updateCacheOnRemove);
        const size_t seen = mReceiver.events.Size();
        kemu::EmuHidDevice& present = Add(Adapter());
        const std::string gone = present.DevNode();
        ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter, updateCacheOnRemove));
        EXPECT_TRUE(mNotificator.IsStarted());
        Unplug(present);
        ASSERT_TRUE(mReceiver.events.WaitForCount(seen + 1)) << "timed out waiting for the first removal";
        kemu::EmuHidDevice& dev = Add(Adapter());
        const std::string syspath = dev.SysPath(), devnode = dev.DevNode();
        ASSERT_TRUE(mReceiver.events.WaitForCount(seen + 2)) << "timed out waiting for the arrival";
        Unplug(dev);
        ASSERT_TRUE(mReceiver.events.WaitForCount(seen + 3)) << "timed out waiting for the removal";
        mNotificator.Stop();

        const std::vector<Notification> events = mReceiver.events.Items();
        ASSERT_EQ(seen + 3, events.size());
        EXPECT_EQ(Action_remove, events[seen].action);
        EXPECT_EQ(Action_add, events[seen + 1].action);
        EXPECT_EQ(Action_remove, events[seen + 2].action);
        EXPECT_EQ(syspath, events[seen + 1].syspath);
        EXPECT_EQ(syspath, events[seen + 2].syspath);
        EXPECT_TRUE(events[seen + 1].onNotificationThread);
        EXPECT_FALSE(mNotificator.IsNotificationThread());

        const std::vector<Decision> decisions = mNotificator.decisions.Items();
        ASSERT_EQ(seen + 3, decisions.size());
        using Paths = std::vector<std::string>;
        EXPECT_EQ(updateCacheOnRemove ? Paths{} : Paths{gone}, decisions[seen].cache);
        EXPECT_EQ(Paths{devnode}, decisions[seen + 1].cache);
        EXPECT_EQ(updateCacheOnRemove ? Paths{} : Paths{devnode}, decisions[seen + 2].cache);
    }
}

TEST_F(HotplugTest, DevicesOutsideTheFilterOrWithoutUsbParentAreNeverReported)
{
    // Two entries: a hit on the second one counts; VID and PID must both match.
    TbUsbVidPidList filter;
    filter.AddVidPid(cAdapterVid, 0x7A09);
    filter.AddVidPid(cAdapterVid, cAdapterPid);
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&filter));

    // Each event is decided before the next change: an arrival handled
    // after its device has gone again could no longer be looked at.
    std::string foreignNode;
    kemu::EmuHidDevice* adapter = nullptr;
    const std::string out = CaptureTrace([&] {
        size_t decided = 0;
        for (const auto& config : {Foreign(), Foreign(cAdapterVid, 0x7A02), Foreign(0x16C0, cAdapterPid)}) {
            Add(config);
            ASSERT_TRUE(mNotificator.decisions.WaitForCount(++decided)) << "timed out waiting for decision " << decided;
        }
        kemu::EmuHidDevice& foreign = *mTestbed->Devices()[0];
        foreignNode = foreign.DevNode();
        Unplug(foreign);
        ASSERT_TRUE(mNotificator.decisions.WaitForCount(4)) << "timed out waiting for the foreign removal";
        Add(kemu::NoUsbParentConfig());
        adapter = &Add(Adapter());
        EXPECT_TRUE(mReceiver.events.WaitForCount(1)) << "timed out waiting for the adapter";
    });
    const std::vector<Notification> events = mReceiver.events.Items();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(Action_add, events[0].action);
    EXPECT_EQ(adapter->SysPath(), events[0].syspath);

    const std::string ignoring = cFilterSig + ": ignoring HID device VID=0x";
    const std::string because = " because it's not in the filter list\n";
    EXPECT_EQ(1u, CountOf(out, ignoring + "04AB PID=0xC0DE" + because)) << out;
    EXPECT_EQ(1u, CountOf(out, ignoring + "1209 PID=0x7A02" + because)) << out;
    EXPECT_EQ(1u, CountOf(out, ignoring + "16C0 PID=0x7A01" + because)) << out;
    EXPECT_EQ(1u, CountOf(out, cFilterSig + ": FindIndexForDevicePath('" + foreignNode +
                                   "') failed, err = 0xE0000081, ignore device\n"))
        << out;
    EXPECT_EQ(1u, CountOf(out, cFilterSig + ": InitWithGetParentWithSubsystemDevtype usb_device failed\n")) << out;
    EXPECT_EQ(5u, CountOf(out, cFilterSig)) << out; // nothing else from the filter
}

TEST_F(HotplugTest, OnlyArrivalAndRemovalActionsOfAdaptersPass)
{
    kemu::EmuHidDevice& adapter = Add(Adapter());
    kemu::EmuHidDevice& foreign = Add(Foreign());
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter));

    const std::string out = CaptureTrace([&] {
        Send(adapter, "change");  // never reported
        Send(foreign, "online");  // arrival rules: not in the filter
        Send(foreign, "offline"); // removal rules: not in the cache
        Send(adapter, "online");
        Send(adapter, "offline");
        EXPECT_TRUE(mReceiver.events.WaitForCount(2)) << "timed out waiting for online and offline";
    });
    const std::vector<Notification> events = mReceiver.events.Items();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(Action_online, events[0].action);
    EXPECT_EQ(Action_offline, events[1].action);
    EXPECT_EQ(adapter.SysPath(), events[1].syspath);
    EXPECT_EQ(1u, CountOf(out, cFilterSig + ": ignore unknown action 2 for device '" + adapter.DevNode() + "'\n"))
        << out;
    EXPECT_EQ(1u, CountOf(out, "VID=0x04AB PID=0xC0DE")) << out;
    EXPECT_EQ(1u, CountOf(out, "FindIndexForDevicePath('" + foreign.DevNode() + "') failed")) << out;
}

TEST_F(HotplugTest, WithoutFilterEveryHidrawEventPasses)
{
    ASSERT_EQ(TSTATUS_SUCCESS, Start(nullptr));

    kemu::EmuHidDevice& foreign = Add(Foreign());
    Send(foreign, "change");
    ASSERT_TRUE(mReceiver.events.WaitForCount(2)) << "timed out waiting for add and change";
    const std::vector<Notification> events = mReceiver.events.Items();
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
    Receiver intruder;
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter));
    EXPECT_EQ(cStartSig + ": already started\n", CaptureTrace([&] {
                  EXPECT_EQ(TSTATUS_ALREADY_DONE,
                            mNotificator.StartForHidRawDevices(intruder.Callback(), &foreignFilter, false));
              }));

    kemu::EmuHidDevice* adapter = nullptr;
    const std::string out = CaptureTrace([&] {
        Add(Foreign());
        adapter = &Add(Adapter());
        EXPECT_TRUE(mReceiver.events.WaitForCount(1)) << "timed out waiting for the adapter";
    });
    EXPECT_EQ(1u, CountOf(out, "VID=0x04AB PID=0xC0DE because it's not in the filter list")) << out;
    ASSERT_EQ(1u, mReceiver.events.Size());
    EXPECT_EQ(adapter->SysPath(), mReceiver.events.Items()[0].syspath);
    EXPECT_EQ(0u, intruder.events.Size());

    // updateCacheOnRemove also stayed true.
    Unplug(*adapter);
    ASSERT_TRUE(mNotificator.decisions.WaitForCount(3)) << "timed out waiting for the removal";
    EXPECT_TRUE(mNotificator.decisions.Items()[2].cache.empty());
}

TEST_F(HotplugTest, StopWaitsForTheMonitorThreadAndRepeatsHarmlessly)
{
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter));

    // The callback holds the monitor thread until the test releases it.
    ktest::Gate entered;
    ktest::Gate release;
    std::atomic<bool> stopReturned{false};
    std::atomic<bool> stopReturnedBeforeCallbackLeft{false};
    mReceiver.hook = [&] {
        entered.Open();
        release.Pass();
        stopReturnedBeforeCallbackLeft = stopReturned.load();
    };
    Add(Adapter());
    ASSERT_TRUE(entered.Pass()) << "timed out waiting for the callback";
    std::thread stopper([&] {
        mNotificator.Stop();
        stopReturned = true;
    });
    // A Stop that does not wait for the thread returns within this time.
    EXPECT_FALSE(ktest::WaitUntil([&] { return stopReturned.load(); }, ktest::Ms(200)));
    release.Open();
    stopper.join();
    EXPECT_FALSE(stopReturnedBeforeCallbackLeft.load());
    EXPECT_FALSE(mNotificator.IsStarted());
    EXPECT_FALSE(mNotificator.ThreadRunning());
    EXPECT_FALSE(mNotificator.PipeOpen());
    EXPECT_FALSE(mNotificator.MonitorOpen());
    ASSERT_EQ(1u, mReceiver.events.Size());
    const pid_t monitorTid = mReceiver.events.Items()[0].tid;
    KT_WAIT_FOR(ktest::Tasks().count(monitorTid) == 0, "the monitor thread to be gone");

    mNotificator.Stop();
    EXPECT_FALSE(mNotificator.IsStarted());
    EXPECT_EQ(1u, mReceiver.events.Size());
}

TEST_F(HotplugTest, StopAfterTheThreadEndedOnAnErrorJoinsAndResets)
{
    struct {
        const char* line;
        std::function<bool()> breakIt;
    } cases[] = {
        {": fds[0] error\n", [&] { return mNotificator.HangUpTerminatePipe(); }},
        {": fds[1] error\n", [&] { return mNotificator.BreakMonitorSocket(); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter));
        ASSERT_TRUE(mNotificator.ThreadRunning());
        const std::string out = CaptureTrace([&] {
            ASSERT_TRUE(c.breakIt());
            EXPECT_TRUE(ktest::WaitUntil([&] { return !mNotificator.ThreadRunning(); }))
                << "timed out waiting for the monitor thread to end";
        });
        EXPECT_EQ(cThreadSig + c.line, out);
        EXPECT_TRUE(mNotificator.IsStarted()); // until the owner stops it

        mNotificator.Stop();
        EXPECT_FALSE(mNotificator.IsStarted());
        EXPECT_FALSE(mNotificator.PipeOpen());
        EXPECT_FALSE(mNotificator.MonitorOpen());
    }
    // Fully usable again.
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter));
    Add(Adapter());
    EXPECT_TRUE(mReceiver.events.WaitForCount(1)) << "timed out waiting for the arrival after the restart";
}

TEST_F(HotplugTest, DestroyingAStartedNotificatorStopsItsThread)
{
    // Present at start and reported through "offline" without a cache
    // refresh: the plain filter then reads no sysfs while the test drives
    // the emulator.
    kemu::EmuHidDevice& adapter = Add(Adapter());
    auto notificator = std::make_unique<LxHidRawPnPNotificator>();
    ASSERT_EQ(TSTATUS_SUCCESS, notificator->StartForHidRawDevices(mReceiver.Callback(), &mAdapterFilter, false));
    Send(adapter, "offline");
    ASSERT_TRUE(mReceiver.events.WaitForCount(1)) << "timed out waiting for the offline event";
    const pid_t monitorTid = mReceiver.events.Items()[0].tid;

    // A thread left running would be woken by the pipe's hang-up when its
    // descriptors are closed, and would end with an error line.
    EXPECT_EQ("", CaptureTrace([&] {
                  notificator.reset();
                  EXPECT_TRUE(ktest::WaitUntil([&] { return ktest::Tasks().count(monitorTid) == 0; }))
                      << "timed out waiting for the monitor thread to be gone";
              }));
    Unplug(adapter); // nobody listens any more
    EXPECT_EQ(1u, mReceiver.events.Size());
}

TEST_F(HotplugTest, RestartWithAnotherFilterUsesItAndAFreshCache)
{
    kemu::EmuHidDevice& first = Add(Adapter(cAdapterPid));
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&mAdapterFilter));
    EXPECT_EQ(std::vector<std::string>{first.DevNode()}, mNotificator.CacheWhileIdle());
    mNotificator.Stop();

    TbUsbVidPidList otherFilter;
    otherFilter.AddVidPid(cAdapterVid, 0x7A02);
    kemu::EmuHidDevice& second = Add(Adapter(0x7A02));
    ASSERT_EQ(TSTATUS_SUCCESS, Start(&otherFilter));
    EXPECT_EQ(std::vector<std::string>{second.DevNode()}, mNotificator.CacheWhileIdle());

    const std::string firstNode = first.DevNode();
    const std::string out = CaptureTrace([&] {
        Unplug(first);                // no longer ours: not in the new cache
        Add(Adapter(cAdapterPid)); // no longer ours: not in the new filter
        Add(Adapter(0x7A02));
        // The cache is refreshed when the arrival is handled; a device that has
        // vanished by then is missing from it and its removal would be ignored.
        ASSERT_TRUE(mReceiver.events.WaitForCount(1)) << "timed out waiting for the arrival";
        Unplug(second);
        EXPECT_TRUE(mReceiver.events.WaitForCount(2) && mNotificator.decisions.WaitForCount(4))
            << "timed out waiting for the removal";
    });
    EXPECT_EQ(1u, CountOf(out, "FindIndexForDevicePath('" + firstNode + "') failed")) << out;
    EXPECT_EQ(1u, CountOf(out, "VID=0x1209 PID=0x7A01 because")) << out;

    const std::vector<Notification> events = mReceiver.events.Items();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ(Action_add, events[0].action);
    EXPECT_EQ(Action_remove, events[1].action);
    const std::vector<Decision> decisions = mNotificator.decisions.Items();
    ASSERT_GE(decisions.size(), 2u);
    EXPECT_FALSE(decisions[0].passed);
    EXPECT_FALSE(decisions[1].passed);
}

} // namespace
