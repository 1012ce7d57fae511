// A signal storm while everything runs: hot-plug, pin events and I2C. The
// application takes its process-directed signals (SIGALRM, SIGCHLD, SIGUSR1)
// on a thread of its own that leaves them unblocked; every other application
// thread blocks them, as such programs do. The library's threads are
// created before that, so they would be candidates for those signals unless
// they block them themselves. On top, each library thread gets SIGSYS (which
// nothing blocks) by tgkill, so their waits are interrupted over and over.
// Every operation must still succeed and every event arrive.
#include "support/api_fixture.h"
#include "support/reliability.h"

#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <set>
#include <thread>

using namespace karvex_test;

namespace {

pid_t Gettid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

std::atomic<unsigned> gAppSignals{0};
std::atomic<unsigned> gAppSignalsOnLibraryThreads{0};
std::atomic<unsigned> gSysTaken{0};
std::atomic<pid_t> gLibraryThreads[3];

void OnAppSignal(int)
{
    ++gAppSignals;
    const pid_t self = Gettid();
    for (const auto& t : gLibraryThreads)
        if (t.load() == self)
            ++gAppSignalsOnLibraryThreads;
}
void OnSys(int)
{
    ++gSysTaken;
}

struct PinLog {
    std::atomic<unsigned> events{0};
};
void OnPin(void* context, unsigned int, KARVEX_GPIOState)
{
    ++static_cast<PinLog*>(context)->events;
}
void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    static_cast<EventLog<KARVEXDeviceEvent>*>(context)->Add(event);
}

} // namespace

class SignalStorm : public ApiTest {};

TEST_F(SignalStorm, EverythingWorksWhileSignalsRain)
{
    const unsigned kHotplugCycles = static_cast<unsigned>(reliability::EnvCount("KARVEX_SIGNAL_STORM_CYCLES", 10));
    const unsigned kTransactions = 20 * kHotplugCycles;
    const unsigned kPinEvents = 20 * kHotplugCycles;

    struct sigaction sa = {};
    struct sigaction old[4] = {};
    sa.sa_handler = OnAppSignal;
    sigaction(SIGALRM, &sa, &old[0]);
    sigaction(SIGCHLD, &sa, &old[1]);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &sa, &old[2]);
    sa.sa_handler = OnSys;
    sa.sa_flags = 0;
    sigaction(SIGSYS, &sa, &old[3]);

    EmulatedAdapter& adapter = AddAdapter();
    PinLog pins;
    EventLog<KARVEXDeviceEvent> hotplug;
    const auto before = ktest::Tasks();
    const KARVEXDeviceHandle h = Open(adapter);
    ASSERT_NE(0u, h);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 3, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, OnPin, &pins));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &hotplug));
    std::vector<pid_t> library;
    for (pid_t t : ktest::Tasks())
        if (before.count(t) == 0)
            library.push_back(t);
    ASSERT_EQ(3u, library.size()) << "expected the reader, pin event and hot-plug threads";
    for (std::size_t i = 0; i < library.size(); ++i)
        gLibraryThreads[i] = library[i];

    // From here on the application's threads block its signals, except one.
    sigset_t appSignals;
    sigemptyset(&appSignals);
    for (int sig : {SIGALRM, SIGCHLD, SIGUSR1})
        sigaddset(&appSignals, sig);
    sigset_t oldMask;
    pthread_sigmask(SIG_BLOCK, &appSignals, &oldMask);

    std::atomic<bool> stop{false};
    std::thread signalThread([&] {
        pthread_sigmask(SIG_UNBLOCK, &appSignals, nullptr);
        while (!stop.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    });
    std::atomic<unsigned> sent{0};
    std::thread storm([&] {
        const int processSignals[] = {SIGALRM, SIGCHLD, SIGUSR1};
        for (unsigned i = 0; !stop.load(); ++i) {
            kill(getpid(), processSignals[i % 3]);
            for (pid_t t : library) {
                syscall(SYS_tgkill, getpid(), t, SIGSYS);
                syscall(SYS_tgkill, getpid(), t, processSignals[(i + 1) % 3]);
            }
            ++sent;
            std::this_thread::yield();
        }
    });

    std::atomic<unsigned> i2cFailures{0};
    std::atomic<TSTATUS> i2cFirstFailure{TSTATUS_SUCCESS};
    std::thread i2c([&] {
        for (unsigned i = 0; i < kTransactions; ++i) {
            const unsigned char write[3] = {0x20, static_cast<unsigned char>(i), static_cast<unsigned char>(~i)};
            unsigned char addr = 0x20;
            unsigned char read[2] = {};
            TSTATUS st = KARVEX_I2cTransaction(h, 0, 400000, 0x50, write, sizeof write, nullptr, 0, 100);
            if (st == TSTATUS_SUCCESS)
                st = KARVEX_I2cTransaction(h, 0, 400000, 0x50, &addr, 1, read, sizeof read, 100);
            if (st == TSTATUS_SUCCESS && std::memcmp(write + 1, read, sizeof read) != 0)
                st = TSTATUS_FAILED;
            if (st != TSTATUS_SUCCESS && i2cFailures++ == 0)
                i2cFirstFailure = st;
        }
    });
    std::thread pinDriver([&] {
        for (unsigned i = 0; i < kPinEvents; ++i) {
            adapter.firmware->SetInputLevel(3, (i & 1) == 0);
            if (!ktest::WaitUntil([&] { return pins.events.load() > i; }))
                return;
        }
    });

    // Hot-plug from this thread, one event at a time (the testbed must not
    // change while the hot-plug thread reads sysfs).
    kemu::EmuHidDevice& second = mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_2, "KVXSTORM2"), false);
    bool hotplugOk = true;
    for (unsigned c = 0; c < kHotplugCycles && hotplugOk; ++c) {
        second.Plug();
        hotplugOk = hotplug.WaitForCount(2 * c + 1, std::chrono::seconds(20));
        if (!hotplugOk)
            break;
        second.Unplug();
        hotplugOk = hotplug.WaitForCount(2 * c + 2, std::chrono::seconds(20));
    }

    i2c.join();
    pinDriver.join();
    stop = true;
    storm.join();
    signalThread.join();
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);

    EXPECT_TRUE(hotplugOk) << "hot-plug event " << hotplug.Size() + 1 << " of " << 2 * kHotplugCycles
                           << " was not reported";
    const auto events = hotplug.Items();
    for (std::size_t i = 0; i < events.size(); ++i)
        EXPECT_EQ(i % 2 == 0 ? KARVEXEvent_DeviceAttached : KARVEXEvent_DeviceRemoved, events[i]) << "event " << i;
    EXPECT_EQ(0u, i2cFailures.load()) << "of " << kTransactions << " I2C round trips, the first with "
                                      << TStatusStringA(i2cFirstFailure.load());
    EXPECT_EQ(kPinEvents, pins.events.load());
    EXPECT_EQ(0u, gAppSignalsOnLibraryThreads.load()) << "a library thread ran the application's signal handler";
    EXPECT_GT(gAppSignals.load(), 0u);
    EXPECT_GT(gSysTaken.load(), 0u);
    EXPECT_GT(sent.load(), 0u);
    // Library threads still answer after the storm.
    KARVEX_GPIOState state = GPIOState_Low;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 3, &state));

    for (int k = 0; k < 4; ++k)
        sigaction(std::array<int, 4>{SIGALRM, SIGCHLD, SIGUSR1, SIGSYS}[k], &old[k], nullptr);
}
