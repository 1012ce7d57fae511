// An application's signals (SIGCHLD, SIGALRM, a handled SIGUSR1...) must not
// change what it sees from the library. The library's threads block every
// asynchronous signal, so a process-directed one goes to an application
// thread; one that still reaches a library thread only interrupts a wait.
#include "support/reliability.h"

#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

using namespace karvex_test;

namespace {

constexpr int kAppSignals[] = {SIGALRM, SIGCHLD, SIGUSR1};

// The one task in after that is not in before (0 when not exactly one).
pid_t NewTask(const std::set<pid_t>& before, const std::set<pid_t>& after)
{
    pid_t found = 0;
    for (pid_t t : after) {
        if (before.count(t) == 0) {
            if (found != 0)
                return 0;
            found = t;
        }
    }
    return found;
}

// The task's blocked set from /proc: bit n-1 stands for signal n.
unsigned long long BlockedSignals(pid_t tid)
{
    std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigBlk:", 0) == 0)
            return std::stoull(line.substr(7), nullptr, 16);
    }
    ADD_FAILURE() << "no SigBlk line for task " << tid;
    return 0;
}

bool Blocks(unsigned long long mask, int sig)
{
    return (mask >> (sig - 1)) & 1;
}

std::atomic<unsigned> gAppSignals{0};
std::atomic<unsigned> gAppSignalsOnLibraryThreads{0};
std::atomic<unsigned> gSysTaken{0};
std::atomic<pid_t> gLibraryThreads[3];

void OnAppSignal(int)
{
    ++gAppSignals;
    for (const auto& t : gLibraryThreads)
        gAppSignalsOnLibraryThreads += t.load() == ktest::ThreadId();
}
void OnSys(int)
{
    ++gSysTaken;
}

void OnPin(void* context, unsigned int, KARVEX_GPIOState)
{
    ++*static_cast<std::atomic<unsigned>*>(context);
}
void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    static_cast<EventLog<KARVEXDeviceEvent>*>(context)->Add(event);
}

class AppSignals : public ApiTest {
protected:
    void SetUp() override
    {
        ApiTest::SetUp();
        struct sigaction sa = {};
        sa.sa_handler = OnAppSignal;
        for (int i = 0; i < 3; ++i) {
            // SA_RESTART on one, as careful applications do: it must not matter.
            sa.sa_flags = kAppSignals[i] == SIGUSR1 ? SA_RESTART : 0;
            sigaction(kAppSignals[i], &sa, &mOld[i]);
        }
        sa.sa_handler = OnSys;
        sa.sa_flags = 0;
        sigaction(SIGSYS, &sa, &mOld[3]);
    }
    void TearDown() override
    {
        ApiTest::TearDown();
        for (int i = 0; i < 4; ++i)
            sigaction(i < 3 ? kAppSignals[i] : SIGSYS, &mOld[i], nullptr);
    }
    struct sigaction mOld[4] = {};
};

} // namespace

TEST_F(AppSignals, LibraryThreadsBlockAsynchronousSignalsAndTheCallerKeepsItsMask)
{
    EmulatedAdapter& adapter = AddAdapter();
    EventLog<KARVEXDeviceEvent> log;
    const pid_t self = ktest::ThreadId();
    const unsigned long long callerMask = BlockedSignals(self);
    // umockdev starts helper threads of its own at a process's first open.
    const KARVEXDeviceHandle first = Open(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(first));
    Closed(first);

    const auto t0 = ktest::Tasks();
    const KARVEXDeviceHandle h = Open(adapter);
    ASSERT_NE(0u, h);
    const auto t1 = ktest::Tasks();
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &log));
    const auto t2 = ktest::Tasks();
    std::atomic<unsigned> pinEvents{0};
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, OnPin, &pinEvents));
    const auto t3 = ktest::Tasks();

    const std::pair<const char*, pid_t> threads[] = {
        {"reader", NewTask(t0, t1)}, {"hot-plug", NewTask(t1, t2)}, {"pin event", NewTask(t2, t3)}};
    const int asynchronous[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGUSR1, SIGUSR2, SIGPIPE,  SIGALRM, SIGTERM,
                                SIGCHLD, SIGURG,  SIGPROF, SIGWINCH, SIGIO,  SIGVTALRM, SIGRTMIN + 2, SIGRTMAX};
    const int synchronous[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
    for (const auto& [name, tid] : threads) {
        ASSERT_NE(0, tid) << "could not tell the " << name << " thread";
        // glibc starts a thread with everything blocked and installs its own
        // mask a moment later: wait for that.
        EXPECT_TRUE(WaitUntil([&] { return !Blocks(BlockedSignals(tid), SIGSEGV); }))
            << name << " thread blocks SIGSEGV";
        const unsigned long long mask = BlockedSignals(tid);
        for (int sig : asynchronous)
            EXPECT_TRUE(Blocks(mask, sig)) << name << " thread takes signal " << sig;
        for (int sig : synchronous)
            EXPECT_FALSE(Blocks(mask, sig)) << name << " thread blocks signal " << sig;
    }
    EXPECT_EQ(callerMask, BlockedSignals(self)) << "the calling thread's mask changed";
}

// A signal storm while hot-plug, pin events and I2C run. The application takes
// its signals on one thread; its others block them (created before that, the
// library's threads would be candidates unless they block them themselves).
// Each library thread also gets them and SIGSYS (which nothing blocks) by
// tgkill, so its waits are interrupted over and over. Every operation must
// still succeed and every event arrive.
TEST_F(AppSignals, EverythingWorksWhileSignalsRain)
{
    const unsigned kHotplugCycles = static_cast<unsigned>(reliability::EnvCount("KARVEX_SIGNAL_STORM_CYCLES", 10));
    const unsigned kRounds = 20 * kHotplugCycles; // I2C round trips, and pin events
    EmulatedAdapter& adapter = AddAdapter();
    std::atomic<unsigned> pinEvents{0};
    EventLog<KARVEXDeviceEvent> hotplug;
    const auto before = ktest::Tasks();
    const KARVEXDeviceHandle h = Open(adapter);
    ASSERT_NE(0u, h);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 3, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, OnPin, &pinEvents));
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
    for (int sig : kAppSignals)
        sigaddset(&appSignals, sig);
    sigset_t oldMask;
    pthread_sigmask(SIG_BLOCK, &appSignals, &oldMask);
    std::atomic<bool> stop{false};
    std::thread signalThread([&] {
        pthread_sigmask(SIG_UNBLOCK, &appSignals, nullptr);
        while (!stop.load())
            std::this_thread::sleep_for(ktest::Ms(1));
    });
    std::thread storm([&] {
        for (unsigned i = 0; !stop.load(); ++i) {
            kill(getpid(), kAppSignals[i % 3]);
            for (pid_t t : library) {
                syscall(SYS_tgkill, getpid(), t, SIGSYS);
                syscall(SYS_tgkill, getpid(), t, kAppSignals[(i + 1) % 3]);
            }
            std::this_thread::yield();
        }
    });
    std::atomic<unsigned> i2cFailures{0};
    std::atomic<TSTATUS> i2cFirstFailure{TSTATUS_SUCCESS};
    std::thread i2c([&] {
        for (unsigned i = 0; i < kRounds; ++i) {
            const unsigned char write[3] = {0x20, static_cast<unsigned char>(i), static_cast<unsigned char>(~i)};
            unsigned char read[2] = {};
            TSTATUS st = KARVEX_I2cTransaction(h, 0, 400000, 0x50, write, sizeof write, nullptr, 0, 100);
            if (st == TSTATUS_SUCCESS)
                st = KARVEX_I2cTransaction(h, 0, 400000, 0x50, write, 1, read, sizeof read, 100);
            if (st == TSTATUS_SUCCESS && std::memcmp(write + 1, read, sizeof read) != 0)
                st = TSTATUS_FAILED;
            if (st != TSTATUS_SUCCESS && i2cFailures++ == 0)
                i2cFirstFailure = st;
        }
    });
    std::thread pinDriver([&] {
        for (unsigned i = 0; i < kRounds; ++i) {
            adapter.firmware->SetInputLevel(3, (i & 1) == 0);
            if (!WaitUntil([&] { return pinEvents.load() > i; }))
                return;
        }
    });
    // Hot-plug from this thread, one event at a time (the testbed must not
    // change while the hot-plug thread reads sysfs).
    kemu::EmuHidDevice& second = mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_2, "KVXSTORM2"), false);
    bool hotplugOk = true;
    for (unsigned c = 0; c < kHotplugCycles && hotplugOk; ++c) {
        second.Plug();
        hotplugOk = hotplug.WaitForCount(2 * c + 1);
        if (hotplugOk) {
            second.Unplug();
            hotplugOk = hotplug.WaitForCount(2 * c + 2);
        }
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
    EXPECT_EQ(0u, i2cFailures.load()) << "of " << kRounds << " I2C round trips, the first with "
                                      << StatusName(i2cFirstFailure.load());
    EXPECT_EQ(kRounds, pinEvents.load());
    EXPECT_EQ(0u, gAppSignalsOnLibraryThreads.load()) << "a library thread ran the application's signal handler";
    EXPECT_GT(gAppSignals.load(), 0u);
    EXPECT_GT(gSysTaken.load(), 0u);
    // Library threads still answer after the storm.
    KARVEX_GPIOState state = GPIOState_Low;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 3, &state));
}
