// Unplugging adapters at the worst moments, through the public API only, with
// a device-change callback that closes the handle as an application does.
// Every call returns within its own time budget with the documented status,
// nothing is left behind (no thread, no descriptor), the adapter works again
// once replugged, and adapters that leave together are each reported once.
#include "support/reliability.h"

#include <dirent.h>
#include <unistd.h>

#include <cstring>
#include <future>

using namespace karvex_test;

namespace {

// Before any testbed: this test plugs and unplugs hundreds of times.
const bool kMemoryTestbeds = reliability::PreferMemoryFileSystemForTestbeds();

using Clock = std::chrono::steady_clock;
using ktest::ElapsedMs;

constexpr std::uint8_t kCmdGetProtocolVersion = 0x01;
constexpr std::uint8_t kCmdSetPinState = 0x12;
constexpr std::uint8_t kCmdGetPinState = 0x13;
constexpr std::uint8_t kCmdI2c = 0x18;
constexpr unsigned kEepromAddress = 0x50; // where the fixture attaches the EEPROM (bus 0)

// One exported call on a thread of its own; get() gives its status and the
// time it returned.
template <typename F>
std::future<std::pair<TSTATUS, Clock::time_point>> InFlight(F call)
{
    return std::async(std::launch::async, [call] {
        const TSTATUS st = call();
        return std::make_pair(st, Clock::now());
    });
}

long long MsBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration_cast<ktest::Ms>(to - from).count();
}

// Pin callback of the storm: calls back into the library on the pin event
// thread while the adapter goes away under it.
struct StormSink {
    KARVEXDeviceHandle handle = 0;
    const std::atomic<bool>* closeReturned = nullptr; // the removal callback's close
    std::atomic<unsigned> afterClose{0};
    std::atomic<unsigned> events{0};
    std::atomic<unsigned> unexpected{0};
    std::atomic<TSTATUS> lastUnexpected{TSTATUS_SUCCESS};
};

void OnStormEvent(void* context, unsigned int, KARVEX_GPIOState)
{
    auto* sink = static_cast<StormSink*>(context);
    if (sink->closeReturned->load())
        ++sink->afterClose;
    KARVEX_GPIOMode mode = GPIOMode_Input;
    const TSTATUS st = KARVEX_GetPinMode(sink->handle, 5, &mode);
    // Before the unplug it answers; after it the write fails (ENODEV); a
    // command waiting for its answer when the adapter went is aborted by the
    // close; once the handle is being closed it is unknown.
    if (st != TSTATUS_SUCCESS && st != TSTATUS_LINUX_ENODEV && st != TSTATUS_ABORTED && st != TSTATUS_INVALID_HANDLE) {
        ++sink->unexpected;
        sink->lastUnexpected = st;
    }
    ++sink->events;
}

// File descriptors of this process that the library could hold: device
// nodes (the emulated hidraw nodes are terminals) and pipes. umockdev's own
// sockets are left out: its preload library keeps them as it sees fit.
std::size_t LibraryFdCount()
{
    std::size_t count = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (dirent* entry = readdir(dir)) {
            char link[256];
            const std::string path = std::string("/proc/self/fd/") + entry->d_name;
            const ssize_t n = readlink(path.c_str(), link, sizeof link - 1);
            link[n > 0 ? n : 0] = '\0';
            count += std::strncmp(link, "/dev/pts/", 9) == 0 || std::strncmp(link, "pipe:", 5) == 0;
        }
        closedir(dir);
    }
    return count;
}

class UnplugTest : public ApiTest {
protected:
    void SetUp() override
    {
        ApiTest::SetUp();
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(reliability::HotPlugHold::Callback, &mHotPlug));
    }
    void TearDown() override
    {
        mHotPlug.StopHolding();
        ApiTest::TearDown();
    }

    // One change of the testbed while the hot-plug thread is held (or idle,
    // for a first plug); then the thread may go on, and the application's
    // callback reports the change.
    void Change(const std::function<void()>& change, KARVEXDeviceEvent expected)
    {
        const std::size_t before = mHotPlug.Count(expected);
        change();
        mHotPlug.Release();
        ASSERT_TRUE(WaitUntil([&] { return mHotPlug.Count(expected) > before; }))
            << (expected == KARVEXEvent_DeviceRemoved ? "no removal reported" : "no arrival reported");
    }
    void UnplugAndWait(EmulatedAdapter& a) { Change([&] { a.device->Unplug(); }, KARVEXEvent_DeviceRemoved); }
    void PlugAndWait(EmulatedAdapter& a) { Change([&] { a.device->Plug(); }, KARVEXEvent_DeviceAttached); }
    EmulatedAdapter& AddAdapterAndWait(std::uint16_t pid, const std::string& serial)
    {
        EmulatedAdapter* added = nullptr;
        Change([&] { added = &AddAdapter(pid, serial); }, KARVEXEvent_DeviceAttached);
        return *added;
    }
    // Adapters that leave together (a hub pulled out, a composite adapter
    // with two matching interfaces): udev sends each "remove" only after the
    // node has left sysfs, so when the hot-plug thread handles the first
    // removal, the second adapter is already gone from any enumeration.
    // Each must still be reported once: unplugAll runs while the thread is
    // held after an arrival, and a sentinel's arrival is the next event.
    void ExpectEachRemovalOnce(const std::function<void()>& unplugAll)
    {
        const std::size_t before = mHotPlug.log.Size();
        unplugAll();
        mHotPlug.StopHolding();
        ASSERT_TRUE(mHotPlug.log.WaitForCount(before + 2)) << "two removals";
        AddAdapter(KARVEX_USB_PRODUCT_ID_3, "KVXSENT01");
        ASSERT_TRUE(mHotPlug.log.WaitForCount(before + 3)) << "the sentinel's arrival";
        const auto events = mHotPlug.log.Items();
        EXPECT_EQ(std::vector<KARVEXDeviceEvent>({KARVEXEvent_DeviceRemoved, KARVEXEvent_DeviceRemoved,
                                                  KARVEXEvent_DeviceAttached}),
                  std::vector<KARVEXDeviceEvent>(events.begin() + before, events.end()));
    }
    KARVEXDeviceHandle OpenQuietly(const EmulatedAdapter& a)
    {
        KARVEXDeviceHandle h = 0;
        const TSTATUS st = KARVEX_OpenDevice(a.device->DevNode().c_str(), &h);
        EXPECT_EQ(TSTATUS_SUCCESS, st) << StatusName(st);
        return h;
    }

    reliability::HotPlugHold mHotPlug;
};

TEST_F(UnplugTest, TwoAdaptersOnAHubLeaveTogether)
{
    auto& a = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_1, "KVXBURST1");
    auto& b = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_1, "KVXBURST2");
    ExpectEachRemovalOnce([&] {
        a.device->Unplug();
        b.device->Unplug();
    });
}

TEST_F(UnplugTest, CompositeAdapterWithTwoMatchingInterfacesLeaves)
{
    std::vector<kemu::EmuHidDevice*> interfaces;
    for (const kemu::EmuHidDeviceConfig& config : kemu::CompositeDeviceConfigs())
        Change([&] { interfaces.push_back(&mTestbed->AddDevice(config)); }, KARVEXEvent_DeviceAttached);
    unsigned int count = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    ASSERT_EQ(2u, count);
    ExpectEachRemovalOnce([&] {
        for (kemu::EmuHidDevice* device : interfaces)
            device->Unplug();
    });
}

// The long test: 200 cycles of open, fault, unplug, close, replug, each
// cycle taking the adapter away at another moment.
TEST_F(UnplugTest, TwoHundredUnplugCyclesAtTheWorstMoments)
{
    reliability::Activity activity{};
    reliability::Watchdog watchdog(std::chrono::seconds(240), &activity);
    auto& a = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_1, "KVX000001");
    // A second adapter stays open through it all and keeps working.
    auto& other = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_2, "OTHER");
    const KARVEXDeviceHandle otherHandle = Open(other);
    ASSERT_NE(0u, otherHandle);

    enum Scenario {
        SetPinStateWaits, GetPinStateWaits, LongI2cWaits, OpenAfterUnplug, PinEventStorm, PinCallbackWaits, Idle, Count
    };
    const char* const names[] = {"SetPinState waiting", "GetPinState waiting", "I2C (30 s time-out) waiting",
                                 "OpenDevice racing the removal", "pin event storm", "pin callback's command waiting",
                                 "idle handle"};
    std::size_t fdsBefore = 0;
    std::size_t threadsBefore = 0;
    long long slowestRelease = 0;
    const auto start = Clock::now();
    constexpr int kCycles = 200;

    for (int cycle = 0; cycle < kCycles && !HasFatalFailure(); ++cycle) {
        const Scenario scenario = static_cast<Scenario>(cycle % Count);
        SCOPED_TRACE(std::string("cycle ") + std::to_string(cycle) + ": " + names[scenario]);
        activity[0] = names[scenario];
        if (cycle == Count) {
            // Counted once every scenario ran: what a cycle leaves behind shows as growth.
            fdsBefore = LibraryFdCount();
            threadsBefore = ktest::Tasks().size();
        }
        const KARVEXDeviceHandle h = OpenQuietly(a);
        ASSERT_NE(0u, h);
        // The reopened adapter answers (and keeps what the firmware holds).
        KARVEX_GPIOState level = GPIOState_Low;
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 1, GPIOMode_Output_High));
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 1, &level));
        EXPECT_EQ(GPIOState_High, level);
        mHotPlug.closeOnRemoval = scenario == Idle ? 0 : h;

        switch (scenario) {
        case SetPinStateWaits:
        case GetPinStateWaits:
        case LongI2cWaits: {
            // The adapter takes the command and goes away before answering.
            kemu::EmuAdapterFirmware::Faults silent;
            silent.noAnswer = true;
            const std::uint8_t code =
                scenario == SetPinStateWaits ? kCmdSetPinState : scenario == GetPinStateWaits ? kCmdGetPinState : kCmdI2c;
            a.firmware->SetOneShotFaults(code, silent);
            const std::size_t commands = a.firmware->CommandCount();
            KARVEX_GPIOState state = GPIOState_High;
            unsigned char buffer[16];
            std::memset(buffer, 0x5A, sizeof buffer);
            auto call = InFlight([&]() -> TSTATUS {
                if (scenario == SetPinStateWaits)
                    return KARVEX_SetPinState(h, 1, GPIOState_Low);
                if (scenario == GetPinStateWaits)
                    return KARVEX_GetPinState(h, 1, &state);
                const unsigned char offset = 0;
                return KARVEX_I2cTransaction(h, 0, 100000, kEepromAddress, &offset, 1, buffer, sizeof buffer, 30000);
            });
            KT_WAIT_FOR(a.firmware->CommandCount() > commands, "the adapter to receive the command");
            const auto unplugged = Clock::now();
            UnplugAndWait(a);
            const auto [st, returned] = call.get();
            // Released by the close in the removal callback, long before its
            // own time-out (5 s; 60 s for the I2C transfer).
            EXPECT_EQ(TSTATUS_ABORTED, st) << StatusName(st);
            EXPECT_LT(MsBetween(unplugged, returned), 2000);
            slowestRelease = std::max(slowestRelease, MsBetween(unplugged, returned));
            EXPECT_EQ(scenario == GetPinStateWaits ? GPIOState_Low : GPIOState_High, state);
            EXPECT_EQ(0x5A, buffer[0]);
            EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CloseDevice(h)) << "the callback closed it";
            break;
        }
        case OpenAfterUnplug:
            // The adapter is gone from the enumeration before its removal
            // is reported: an application that opens it in that moment
            // (another thread, the handle of a previous session) is told so.
            Change(
                [&] {
                    a.device->Unplug();
                    KARVEXDeviceHandle h2 = 0xDEADBEEF;
                    const TSTATUS st = KARVEX_OpenDevice(a.device->DevNode().c_str(), &h2);
                    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, st) << StatusName(st);
                    EXPECT_EQ(0u, h2);
                },
                KARVEXEvent_DeviceRemoved);
            break;
        case PinEventStorm: {
            StormSink sink;
            sink.handle = h;
            mHotPlug.closeReturned = false;
            sink.closeReturned = &mHotPlug.closeReturned;
            ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 5, GPIOMode_InputEvent));
            ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, OnStormEvent, &sink));
            std::atomic<bool> stop{false};
            std::thread storm([&] {
                // As fast as the library reads, leaving the device queue
                // room for the answers to the callback's own commands.
                while (!stop) {
                    if (a.device->PendingInputReports() < 32)
                        a.firmware->SendPinEventBurst(5, 8);
                    else
                        usleep(100);
                }
            });
            KT_WAIT_FOR(sink.events >= 5, "five pin events");
            UnplugAndWait(a);
            stop = true;
            storm.join();
            // The close in the removal callback waited for a running pin
            // callback; after it no callback runs.
            EXPECT_EQ(0u, sink.afterClose.load());
            EXPECT_EQ(0u, sink.unexpected.load()) << StatusName(sink.lastUnexpected);
            break;
        }
        case PinCallbackWaits: {
            // Regression: the pin callback waits in a command of its own
            // device when the adapter goes; the close in the removal callback
            // must release it at once (TSTATUS_ABORTED). Close joins the pin
            // event thread first, so it used to sit out the command's 5 s
            // time-out, holding up the hot-plug thread that called it.
            static KARVEXDeviceHandle sHandle;
            static std::atomic<TSTATUS> sInner;
            sHandle = h;
            sInner = TSTATUS_PENDING;
            ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 6, GPIOMode_InputEvent));
            ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, [](void*, unsigned int, KARVEX_GPIOState) {
                KARVEX_GPIOState level = GPIOState_Low;
                if (sInner.load() == TSTATUS_PENDING)
                    sInner = KARVEX_GetPinState(sHandle, 0, &level);
            }, nullptr));
            kemu::EmuAdapterFirmware::Faults silent;
            silent.noAnswer = true;
            a.firmware->SetOneShotFaults(kCmdGetPinState, silent);
            const std::size_t commands = a.firmware->CommandCount();
            a.firmware->SetInputLevel(6, (cycle / Count) % 2 == 0); // a change of level each time
            KT_WAIT_FOR(a.firmware->CommandCount() > commands, "the callback's command to reach the adapter");
            const auto unplugged = Clock::now();
            UnplugAndWait(a); // reported after the callback's close returned
            EXPECT_LT(ElapsedMs(unplugged), 2000) << "the close waited for the command's time-out";
            EXPECT_EQ(TSTATUS_ABORTED, sInner.load()) << StatusName(sInner);
            break;
        }
        case Idle: {
            // Nobody closes for the application: the handle stays, and
            // every call on it fails at once with the reason.
            UnplugAndWait(a);
            const auto t0 = Clock::now();
            EXPECT_EQ(TSTATUS_DEVICE_REMOVED, KARVEX_CheckDeviceConnection(h));
            EXPECT_EQ(TSTATUS_LINUX_ENODEV, KARVEX_SetPinState(h, 1, GPIOState_Low));
            KARVEX_GPIOState state = GPIOState_High;
            EXPECT_EQ(TSTATUS_LINUX_ENODEV, KARVEX_GetPinState(h, 1, &state));
            EXPECT_EQ(GPIOState_Low, state);
            unsigned char byte = 0;
            EXPECT_EQ(TSTATUS_LINUX_ENODEV, KARVEX_I2cTransaction(h, 0, 100000, kEepromAddress, &byte, 1, nullptr, 0, 100));
            unsigned int vid = 0;
            EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceUsbInfo(h, &vid, nullptr, nullptr));
            EXPECT_EQ(static_cast<unsigned>(KARVEX_USB_VENDOR_ID), vid);
            EXPECT_LT(ElapsedMs(t0), 1000);
            EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
            break;
        }
        case Count:
            break;
        }
        EXPECT_EQ(TSTATUS_SUCCESS, mHotPlug.closeStatus.load()) << StatusName(mHotPlug.closeStatus);
        // The other adapter never noticed.
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(otherHandle, 3, (cycle & 1) ? GPIOState_High : GPIOState_Low));
        PlugAndWait(a);
    }
    activity[0] = "checking resources";
    std::printf("  %d unplug cycles in %lld ms, slowest release of a waiting call %lld ms\n", kCycles,
                ElapsedMs(start), slowestRelease);
    // Every device closed: no reader or pin event thread, no descriptor
    // or pipe is left of the 200 opens.
    EXPECT_EQ(fdsBefore, LibraryFdCount());
    EXPECT_EQ(threadsBefore, ktest::Tasks().size());
    EXPECT_EQ(kCycles - kCycles / Count, static_cast<int>(mHotPlug.closes.load())) << "closes by the callback";
}

// Without anybody closing the handle, a call on an adapter that went away
// mid-command ends at its own time-out: 5 s for pin commands and the open's
// version query, twice the transfer's time-out (at least 1 s) for I2C.
TEST_F(UnplugTest, WithoutACloseEachCallEndsAtItsOwnTimeOut)
{
    reliability::Watchdog watchdog(std::chrono::seconds(60));
    auto& pins = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_1, "PINS");
    auto& i2c = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_2, "I2C");
    auto& opening = AddAdapterAndWait(KARVEX_USB_PRODUCT_ID_3, "OPENING");
    const KARVEXDeviceHandle hp = OpenQuietly(pins);
    const KARVEXDeviceHandle hi = OpenQuietly(i2c);
    ASSERT_NE(0u, hp);
    ASSERT_NE(0u, hi);
    kemu::EmuAdapterFirmware::Faults silent;
    silent.noAnswer = true;
    pins.firmware->SetFaults(silent);
    i2c.firmware->SetFaults(silent);
    opening.firmware->SetOneShotFaults(kCmdGetProtocolVersion, silent);

    // The pin and I2C commands first: past their handle lookup, they hold
    // nothing an open needs. The open then holds the API lock for its version
    // query, as documented.
    KARVEX_GPIOState state = GPIOState_High;
    unsigned char buffer[4] = {1, 2, 3, 4};
    const auto started = Clock::now();
    auto get = InFlight([&] { return KARVEX_GetPinState(hp, 2, &state); });
    auto transfer = InFlight([&] {
        const unsigned char offset = 0;
        return KARVEX_I2cTransaction(hi, 0, 100000, kEepromAddress, &offset, 1, buffer, sizeof buffer, 300);
    });
    KT_WAIT_FOR(pins.firmware->CommandCount() >= 2 && i2c.firmware->CommandCount() >= 2, "the pin and I2C commands");
    KARVEXDeviceHandle ho = 0xDEADBEEF;
    auto open = InFlight([&] { return KARVEX_OpenDevice(opening.device->DevNode().c_str(), &ho); });
    KT_WAIT_FOR(opening.firmware->CommandCount() >= 1, "the open's version query");
    for (auto* adapter : {&pins, &i2c, &opening})
        UnplugAndWait(*adapter);

    // Each call, with its time-out (a liveness margin is added below).
    const struct {
        const char* what;
        std::future<std::pair<TSTATUS, Clock::time_point>>& call;
        long long budgetMs;
    } calls[] = {{"GetPinState", get, 5000}, {"I2C (300 ms transfer time-out)", transfer, 1000}, {"OpenDevice", open, 5000}};
    for (const auto& c : calls) {
        const auto [st, returned] = c.call.get();
        std::printf("  %s returned after %lld ms\n", c.what, MsBetween(started, returned));
        EXPECT_EQ(TSTATUS_TIMEOUT, st) << c.what << ": " << StatusName(st);
        EXPECT_LT(MsBetween(started, returned), c.budgetMs + 1500) << c.what;
    }
    EXPECT_EQ(GPIOState_Low, state);
    EXPECT_EQ(1, buffer[0]);
    EXPECT_EQ(0u, ho);

    // The application closes the dead handles; the adapters come back and work.
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(hp));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(hi));
    pins.firmware->SetFaults({});
    i2c.firmware->SetFaults({});
    for (auto* adapter : {&pins, &i2c, &opening}) {
        PlugAndWait(*adapter);
        const KARVEXDeviceHandle h = OpenQuietly(*adapter);
        ASSERT_NE(0u, h);
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 2, &state));
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
    }
}

} // namespace
