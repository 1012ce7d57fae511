// An application's signals (SIGCHLD of a child, SIGALRM, SIGPROF, a handled
// SIGUSR1...) must not change what it sees from the library. The library's
// threads block every asynchronous signal, so a process-directed one goes to
// an application thread; a signal that still reaches a library thread (one
// the application aims at it, or a synchronous one) only interrupts a wait,
// which resumes.
#include "support/api_fixture.h"

#include <dirent.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <set>
#include <thread>

using namespace karvex_test;

namespace {

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

std::atomic<unsigned> gUsr1Taken{0};
std::atomic<unsigned> gSysTaken{0};
std::atomic<pid_t> gHotplugTid{0};

void OnUsr1(int)
{
    ++gUsr1Taken;
}
void OnSys(int)
{
    ++gSysTaken;
}

void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    gHotplugTid = static_cast<pid_t>(syscall(SYS_gettid));
    static_cast<EventLog<KARVEXDeviceEvent>*>(context)->Add(event);
}

void OnPin(void*, unsigned int, KARVEX_GPIOState) {}

int Tgkill(pid_t tid, int sig)
{
    return static_cast<int>(syscall(SYS_tgkill, getpid(), tid, sig));
}

} // namespace

class AppSignals : public ApiTest {
protected:
    void SetUp() override
    {
        ApiTest::SetUp();
        struct sigaction sa = {};
        sa.sa_handler = OnUsr1;
        sa.sa_flags = SA_RESTART; // as careful applications do: it must not matter
        sigaction(SIGUSR1, &sa, &mOldUsr1);
        sa.sa_handler = OnSys;
        sa.sa_flags = 0;
        sigaction(SIGSYS, &sa, &mOldSys);
        gUsr1Taken = 0;
        gSysTaken = 0;
    }
    void TearDown() override
    {
        ApiTest::TearDown();
        sigaction(SIGUSR1, &mOldUsr1, nullptr);
        sigaction(SIGSYS, &mOldSys, nullptr);
    }
    struct sigaction mOldUsr1 = {};
    struct sigaction mOldSys = {};
};

TEST_F(AppSignals, LibraryThreadsBlockAsynchronousSignalsAndTheCallerKeepsItsMask)
{
    EmulatedAdapter& adapter = AddAdapter();
    EventLog<KARVEXDeviceEvent> log;
    const pid_t self = static_cast<pid_t>(syscall(SYS_gettid));
    const unsigned long long callerMask = BlockedSignals(self);

    const auto t0 = ktest::Tasks();
    const KARVEXDeviceHandle h = Open(adapter);
    ASSERT_NE(0u, h);
    const auto t1 = ktest::Tasks();
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &log));
    const auto t2 = ktest::Tasks();
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, OnPin, nullptr));
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
        EXPECT_TRUE(ktest::WaitUntil([&] { return !Blocks(BlockedSignals(tid), SIGSEGV); }))
            << name << " thread blocks SIGSEGV";
        const unsigned long long mask = BlockedSignals(tid);
        for (int sig : asynchronous)
            EXPECT_TRUE(Blocks(mask, sig)) << name << " thread takes signal " << sig;
        for (int sig : synchronous)
            EXPECT_FALSE(Blocks(mask, sig)) << name << " thread blocks signal " << sig;
    }
    EXPECT_EQ(callerMask, BlockedSignals(self)) << "the calling thread's mask changed";
}

TEST_F(AppSignals, SignalsAimedAtLibraryThreadsChangeNothing)
{
    EmulatedAdapter& adapter = AddAdapter();
    EventLog<KARVEXDeviceEvent> log;
    const auto t0 = ktest::Tasks();
    const KARVEXDeviceHandle h = Open(adapter);
    ASSERT_NE(0u, h);
    const auto t1 = ktest::Tasks();
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &log));
    const auto t2 = ktest::Tasks();
    const pid_t reader = NewTask(t0, t1);
    const pid_t hotplug = NewTask(t1, t2);
    ASSERT_NE(0, reader);
    ASSERT_NE(0, hotplug);

    // SIGUSR1 stays pending on a thread that blocks it; SIGSYS (never
    // blocked) is taken and interrupts the thread's poll. One at a time, so
    // that none merges with a pending one.
    const int kRounds = 5;
    for (int i = 0; i < kRounds; ++i) {
        for (pid_t tid : {hotplug, reader}) {
            ASSERT_EQ(0, Tgkill(tid, SIGUSR1)) << "thread " << tid << " is gone";
            const unsigned before = gSysTaken.load();
            ASSERT_EQ(0, Tgkill(tid, SIGSYS)) << "thread " << tid << " is gone";
            ASSERT_TRUE(ktest::WaitUntil([&] { return gSysTaken.load() > before; })) << "SIGSYS not taken by " << tid;
        }
    }
    EXPECT_EQ(0u, gUsr1Taken.load()) << "a library thread took the application's SIGUSR1";

    // Both threads still serve: a command needs the reader thread, the
    // arrival and removal the hot-plug thread.
    KARVEX_GPIOState state = GPIOState_High;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 1, GPIOMode_Input));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 1, &state));
    EmulatedAdapter& second = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVXSIG002");
    ASSERT_TRUE(log.WaitForCount(1)) << "the arrival after the signals was not reported";
    second.device->Unplug();
    ASSERT_TRUE(log.WaitForCount(2)) << "the removal after the signals was not reported";
    EXPECT_EQ(KARVEXEvent_DeviceAttached, log.Items()[0]);
    EXPECT_EQ(KARVEXEvent_DeviceRemoved, log.Items()[1]);
    EXPECT_EQ(hotplug, gHotplugTid.load());
}
