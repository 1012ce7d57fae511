// Eight threads hammer two adapters through the public API: pin and I2C calls
// mixed with closing and reopening the adapters and (re)registering both
// callbacks, which call exported functions, while an emulator thread toggles
// event pins, plugs a third adapter in and out and re-sends its arrival. No
// deadlock, and no answer lost or given to the wrong call: each thread owns a
// pin and 32 EEPROM bytes on each adapter, so every read has one right answer,
// which the firmware also holds at the end. A call may fail only because
// another thread closed its handle under it (reopening the adapter).
#include "support/reliability.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

using namespace karvex_test;

namespace {

const bool kMemoryTestbeds = reliability::PreferMemoryFileSystemForTestbeds();

constexpr unsigned kThreads = 8;
constexpr unsigned kEventPin = 15;
constexpr unsigned kEepromAddress = 0x50;
constexpr unsigned kRegionBytes = 32; // EEPROM bytes per thread
// The adapter's I2C time-out: the host waits twice as long for the answer,
// which on a machine loaded far beyond its cores can take well over a second.
constexpr unsigned kI2cTimeoutMs = 10000;

// What a call may return when another thread closes its handle under it.
bool ClosedUnderIt(TSTATUS st)
{
    return st == TSTATUS_INVALID_HANDLE || st == TSTATUS_ABORTED || st == TSTATUS_NOT_OPENED;
}

// One of the two adapters everybody works on. Its handle is replaced now and
// then (close, then open: never two handles on one adapter, whose answers
// every open descriptor would see).
struct Shared {
    EmulatedAdapter* adapter = nullptr;
    std::atomic<KARVEXDeviceHandle> handle{0};
    std::mutex reopen;
    std::atomic<unsigned> reopened{0};
};

// The testbed must not change while another thread reads sysfs (see
// HotPlugHold): opening, enumerating and registering take this lock, as does
// the emulator thread. The hot-plug thread reads sysfs for every event, so the
// emulator plugs only while no device-change callback is registered; while
// one is, it re-sends a present adapter's "add" (as "udevadm trigger" does).
std::mutex gSysfs;
bool gChangeCallbackRegistered = false; // under gSysfs

// What the threads and callbacks found wrong.
EventLog<std::string> gFailures;

struct PinCallbackContext {
    Shared* shared = nullptr;
    std::atomic<unsigned> calls{0};
};

// Pin callback: reads the event pin's mode back on the pin event thread.
void OnPin(void* context, unsigned int pin, KARVEX_GPIOState state)
{
    auto* c = static_cast<PinCallbackContext*>(context);
    ++c->calls;
    KARVEX_GPIOMode mode = GPIOMode_Input;
    const TSTATUS st = KARVEX_GetPinMode(c->shared->handle.load(), kEventPin, &mode);
    const bool ok = (st == TSTATUS_SUCCESS && mode == GPIOMode_InputEvent) || ClosedUnderIt(st);
    if (!ok || pin != kEventPin || (state != GPIOState_Low && state != GPIOState_High))
        gFailures.Add("pin callback: pin " + std::to_string(pin) + ", GetPinMode " + StatusName(st));
}

struct ChangeContext {
    std::atomic<unsigned> calls{0};
};

// Device-change callback: enumerates on the hot-plug thread.
void OnChange(void* context, KARVEXDeviceEvent event)
{
    auto* c = static_cast<ChangeContext*>(context);
    unsigned int count = 0;
    const TSTATUS st = KARVEX_EnumerateDevices(&count);
    char id[64];
    const bool ok = st == TSTATUS_SUCCESS && count >= 2 && count <= 3 &&
                    KARVEX_GetDeviceInstanceId(0, id, sizeof id) == TSTATUS_SUCCESS &&
                    (event == KARVEXEvent_DeviceAttached || event == KARVEXEvent_DeviceRemoved);
    if (!ok)
        gFailures.Add("device-change callback: enumeration " + StatusName(st) + ", count " + std::to_string(count));
    ++c->calls;
}

// What one thread believes its pin and EEPROM region on one adapter hold;
// "known" is false after a set that may or may not have reached the adapter.
struct Model {
    KARVEX_GPIOState level = GPIOState_Low;
    bool levelKnown = false;
    std::array<std::uint8_t, kRegionBytes> bytes{};
    bool bytesKnown = false;
};

class StressTest : public ApiTest {
protected:
    void Worker(unsigned t, unsigned iterations);
    void Reopen(Shared& s, unsigned t);
    void Check(unsigned t, const char* what, TSTATUS st);
    void Fail(unsigned t, const std::string& what) { gFailures.Add("thread " + std::to_string(t) + ": " + what); }

    Shared mShared[2];
    PinCallbackContext mPinContext[2];
    ChangeContext mChangeContext;
    reliability::Activity mActivity{};
    std::atomic<unsigned> mReopenTurn{0};
    Model mModels[kThreads][2];
};

void StressTest::Check(unsigned t, const char* what, TSTATUS st)
{
    if (st != TSTATUS_SUCCESS && !ClosedUnderIt(st))
        Fail(t, std::string(what) + ": " + StatusName(st));
}

void StressTest::Reopen(Shared& s, unsigned t)
{
    std::lock_guard<std::mutex> reopen(s.reopen);
    const KARVEXDeviceHandle old = s.handle.exchange(0);
    const TSTATUS closed = KARVEX_CloseDevice(old);
    if (closed != TSTATUS_SUCCESS)
        Fail(t, "close for reopen: " + StatusName(closed));
    KARVEXDeviceHandle h = 0;
    TSTATUS st;
    {
        std::lock_guard<std::mutex> sysfs(gSysfs);
        st = KARVEX_OpenDevice(s.adapter->device->DevNode().c_str(), &h);
    }
    if (st != TSTATUS_SUCCESS)
        Fail(t, "reopen: " + StatusName(st));
    s.handle = h;
    ++s.reopened;
}

void StressTest::Worker(unsigned t, unsigned iterations)
{
    const unsigned pin = t; // each thread's own pin, on both adapters
    for (unsigned i = 0; i < iterations && !HasFailure(); ++i) {
        const unsigned which = (i / 2 + t) & 1;
        Shared& s = mShared[which];
        Model& m = mModels[t][which];
        KARVEXDeviceHandle h = s.handle.load();
        if (h == 0) {
            // Being reopened: wait for the new handle rather than spin
            // through the iterations with none.
            std::lock_guard<std::mutex> reopen(s.reopen);
            h = s.handle.load();
        }
        switch ((i * 7 + t) % 12) {
        case 0:
        case 1: {
            mActivity[t] = "SetPinState + GetPinState";
            const KARVEX_GPIOState want = ((i / 3) & 1) ? GPIOState_High : GPIOState_Low;
            TSTATUS st = KARVEX_SetPinState(h, pin, want);
            Check(t, "SetPinState", st);
            m.levelKnown = st == TSTATUS_SUCCESS;
            m.level = want;
            KARVEX_GPIOState got = GPIOState_Low;
            st = KARVEX_GetPinState(h, pin, &got);
            Check(t, "GetPinState", st);
            if (st == TSTATUS_SUCCESS && m.levelKnown && got != want)
                Fail(t, "GetPinState answered " + std::to_string(got) + ", the pin holds " + std::to_string(want));
            break;
        }
        case 2:
        case 3: {
            mActivity[t] = "I2C write + read back";
            unsigned char write[1 + 8];
            const unsigned offset = (i % 4) * 8;
            write[0] = static_cast<unsigned char>(t * kRegionBytes + offset);
            for (unsigned b = 0; b < 8; ++b)
                write[1 + b] = static_cast<unsigned char>(t * 31 + i * 3 + b);
            TSTATUS st = KARVEX_I2cTransaction(h, 0, 400000, kEepromAddress, write, sizeof write, nullptr, 0, kI2cTimeoutMs);
            Check(t, "I2C write", st);
            if (st == TSTATUS_SUCCESS)
                std::memcpy(&m.bytes[offset], write + 1, 8);
            else
                m.bytesKnown = false; // the write may have happened
            unsigned char address = static_cast<unsigned char>(t * kRegionBytes);
            std::array<std::uint8_t, kRegionBytes> read{};
            st = KARVEX_I2cTransaction(h, 0, 400000, kEepromAddress, &address, 1, read.data(), kRegionBytes, kI2cTimeoutMs);
            Check(t, "I2C read", st);
            if (st == TSTATUS_SUCCESS) {
                if (m.bytesKnown && read != m.bytes)
                    Fail(t, "EEPROM read back differs from what was written");
                m.bytes = read; // what the adapter holds from now on
                m.bytesKnown = true;
            }
            break;
        }
        case 4: {
            mActivity[t] = "GetPinMode";
            KARVEX_GPIOMode mode = GPIOMode_Input;
            const TSTATUS st = KARVEX_GetPinMode(h, pin, &mode);
            Check(t, "GetPinMode", st);
            if (st == TSTATUS_SUCCESS && mode != GPIOMode_Output_Low && mode != GPIOMode_Output_High)
                Fail(t, "GetPinMode answered " + std::to_string(mode));
            break;
        }
        case 5:
            mActivity[t] = "RegisterPinEventCallback(callback)";
            Check(t, "RegisterPinEventCallback", KARVEX_RegisterPinEventCallback(h, OnPin, &mPinContext[which]));
            break;
        case 6:
            mActivity[t] = "RegisterPinEventCallback(NULL)";
            Check(t, "RegisterPinEventCallback(NULL)", KARVEX_RegisterPinEventCallback(h, nullptr, nullptr));
            break;
        case 7: {
            mActivity[t] = "RegisterDeviceChangeCallback";
            std::lock_guard<std::mutex> sysfs(gSysfs);
            const bool on = (i / 12 + t) & 1;
            Check(t, "RegisterDeviceChangeCallback",
                  KARVEX_RegisterDeviceChangeCallback(on ? OnChange : nullptr, on ? &mChangeContext : nullptr));
            gChangeCallbackRegistered = on;
            break;
        }
        case 8:
            mActivity[t] = "close + reopen";
            if (const unsigned turn = mReopenTurn++; turn % 3 == 0)
                Reopen(mShared[(turn / 3) & 1], t);
            break;
        case 9: {
            mActivity[t] = "queries";
            unsigned int vid = 0, pid = 0, bcd = 0;
            TSTATUS st = KARVEX_GetDeviceUsbInfo(h, &vid, &pid, &bcd);
            Check(t, "GetDeviceUsbInfo", st);
            if (st == TSTATUS_SUCCESS && (vid != KARVEX_USB_VENDOR_ID || pid != s.adapter->device->Config().pid))
                Fail(t, "GetDeviceUsbInfo answered another adapter");
            char serial[32];
            st = KARVEX_GetDeviceSerialNumber(h, serial, sizeof serial);
            Check(t, "GetDeviceSerialNumber", st);
            st = KARVEX_CheckDeviceConnection(h);
            Check(t, "CheckDeviceConnection", st);
            break;
        }
        case 10: {
            mActivity[t] = "EnumerateDevices";
            std::lock_guard<std::mutex> sysfs(gSysfs);
            unsigned int count = 0;
            Check(t, "EnumerateDevices", KARVEX_EnumerateDevices(&count));
            break;
        }
        default: {
            mActivity[t] = "SetPinMode";
            const KARVEX_GPIOMode mode = (i & 2) ? GPIOMode_Output_High : GPIOMode_Output_Low;
            const TSTATUS st = KARVEX_SetPinMode(h, pin, mode);
            Check(t, "SetPinMode", st);
            // An output mode drives the level too.
            m.levelKnown = st == TSTATUS_SUCCESS;
            m.level = mode == GPIOMode_Output_High ? GPIOState_High : GPIOState_Low;
            break;
        }
        }
    }
    mActivity[t] = "finished";
}

TEST_F(StressTest, EightThreadsTwoAdaptersNoDeadlockNoLostAnswer)
{
    const unsigned iterations = static_cast<unsigned>(reliability::EnvCount("KARVEX_STRESS_ITERATIONS", 300));
    reliability::Watchdog watchdog(std::chrono::seconds(240), &mActivity);
    for (unsigned a = 0; a < 2; ++a) {
        EmulatedAdapter& adapter = AddAdapter(a == 0 ? KARVEX_USB_PRODUCT_ID_1 : KARVEX_USB_PRODUCT_ID_2,
                                              a == 0 ? "STRESS-A" : "STRESS-B");
        mShared[a].adapter = &adapter;
        KARVEXDeviceHandle h = 0;
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(adapter.device->DevNode().c_str(), &h));
        mShared[a].handle = h;
        mPinContext[a].shared = &mShared[a];
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, kEventPin, GPIOMode_InputEvent));
        for (unsigned t = 0; t < kThreads; ++t) {
            ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, t, GPIOMode_Output_Low));
            mModels[t][a].levelKnown = true;
        }
    }
    // The third adapter only comes and goes.
    kemu::EmuHidDevice& roaming = mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_3, "ROAMING"));

    std::atomic<bool> stop{false};
    std::atomic<unsigned> plugs{0};
    std::atomic<unsigned> triggers{0};
    std::atomic<unsigned> lostNotifications{0};
    std::thread emulator([&] {
        mActivity[kThreads] = "emulator: events and plugging";
        for (unsigned n = 0; !stop; ++n) {
            for (unsigned a = 0; a < 2; ++a)
                mShared[a].adapter->firmware->SetInputLevel(kEventPin, n & 1);
            if (n % 8 == 0) {
                std::lock_guard<std::mutex> sysfs(gSysfs);
                if (!gChangeCallbackRegistered) {
                    if (roaming.IsPlugged())
                        roaming.Unplug();
                    else
                        roaming.Plug();
                    ++plugs;
                } else if (roaming.IsPlugged()) {
                    const unsigned before = mChangeContext.calls;
                    roaming.SendUevent("add");
                    ++triggers;
                    if (!WaitUntil([&] { return mChangeContext.calls != before; }))
                        ++lostNotifications;
                }
            }
            usleep(2000);
        }
        mActivity[kThreads] = "emulator: stopped";
    });

    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> workers;
    for (unsigned t = 0; t < kThreads; ++t)
        workers.emplace_back([this, t, iterations] { Worker(t, iterations); });
    for (auto& w : workers)
        w.join();
    stop = true;
    emulator.join();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    {
        std::lock_guard<std::mutex> sysfs(gSysfs);
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    }
    std::printf("  stress: %u threads x %u iterations in %.1f s, %u + %u reopens, %u plugs and unplugs, %u re-sent "
                "add events\n", kThreads, iterations, seconds, mShared[0].reopened.load(), mShared[1].reopened.load(),
                plugs.load(), triggers.load());
    const auto failures = gFailures.Items();
    for (std::size_t i = 0; i < failures.size() && i < 40; ++i)
        ADD_FAILURE() << failures[i];
    EXPECT_EQ(0u, lostNotifications.load()) << "a re-sent add event was not reported";
    EXPECT_GT(triggers.load(), 0u);
    EXPECT_GT(plugs.load(), 0u);
    EXPECT_GT(mPinContext[0].calls + mPinContext[1].calls, 0u);

    // What the firmware holds is what the threads last saw succeed.
    for (unsigned a = 0; a < 2; ++a) {
        const KARVEXDeviceHandle h = mShared[a].handle;
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, nullptr, nullptr));
        for (unsigned t = 0; t < kThreads; ++t) {
            const Model& m = mModels[t][a];
            if (m.levelKnown) {
                EXPECT_EQ(m.level == GPIOState_High, mShared[a].adapter->firmware->PinLevel(t)) << "adapter " << a
                                                                                                << " pin " << t;
            }
            if (m.bytesKnown) {
                const std::vector<std::uint8_t> held = mShared[a].adapter->eeprom->Read(t * kRegionBytes, kRegionBytes);
                EXPECT_TRUE(std::equal(held.begin(), held.end(), m.bytes.begin()))
                    << "adapter " << a << " EEPROM region of thread " << t;
            }
        }
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
    }
}

} // namespace
