// Scaffolding of the reliability tests (unplug faults, stress, storms): sizes
// the sanitizer builds turn down, a watchdog that turns a hang into a failure
// with thread dumps, a device-change callback that holds the hot-plug thread
// while the testbed changes, and memory counts.
#pragma once

#include <gtest/gtest.h>

#include <malloc.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "support/api_fixture.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// From the sanitizer runtime (GCC installs no header for it).
extern "C" std::size_t __sanitizer_get_current_allocated_bytes();
#endif

namespace reliability {

// A size from the environment (tests/CMakeLists.txt sets smaller ones for the
// sanitizer builds), or the default.
inline unsigned long EnvCount(const char* name, unsigned long fallback)
{
    const char* text = std::getenv(name);
    char* end = nullptr;
    const unsigned long value = text != nullptr ? std::strtoul(text, &end, 10) : 0;
    return (value > 0 && *end == '\0') ? value : fallback;
}

// umockdev builds its testbed (a fake sysfs of many small files, created anew
// at every plug) under $TMPDIR: on a memory file system a test that plugs
// hundreds of times runs far shorter. Call before the first testbed exists
// (GLib reads $TMPDIR once); a TMPDIR set by the caller wins.
inline bool PreferMemoryFileSystemForTestbeds()
{
    if (std::getenv("TMPDIR") != nullptr || access("/dev/shm", W_OK | X_OK) != 0)
        return false;
    return setenv("TMPDIR", "/dev/shm", 0) == 0;
}

// What each application thread of a test did last, for the watchdog's report.
using Activity = std::array<std::atomic<const char*>, 16>;

// Aborts the test process when a test does not finish in time, after printing
// what the application threads did last and every thread's stack (gdb, when
// installed): a deadlock shows its locks instead of running into ctest's
// time-out without a word.
class Watchdog {
public:
    explicit Watchdog(std::chrono::seconds limit, const Activity* activity = nullptr)
        : mThread([this, limit, activity] {
              if (mDone.Pass(limit))
                  return;
              std::fprintf(stderr, "\n*** watchdog: %s still running after %lld s: hang or deadlock\n",
                           testing::UnitTest::GetInstance()->current_test_info()->name(),
                           static_cast<long long>(limit.count()));
              for (std::size_t i = 0; activity != nullptr && i < activity->size(); ++i) {
                  if (const char* what = (*activity)[i].load())
                      std::fprintf(stderr, "  thread %zu last: %s\n", i, what);
              }
              std::fflush(stderr);
              // Let gdb attach even where ptrace is limited to ancestors.
              prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
              const std::string gdb = "gdb -batch -nx -p " + std::to_string(getpid()) +
                                      " -ex 'thread apply all bt' 1>&2 2>/dev/null </dev/null";
              if (std::system(gdb.c_str()) != 0)
                  std::fprintf(stderr, "(no thread dump: gdb missing or could not attach)\n");
              std::abort();
          })
    {
    }
    ~Watchdog()
    {
        mDone.Open();
        mThread.join();
    }

private:
    ktest::Gate mDone;
    std::thread mThread;
};

// The application's device-change callback of the hot-plug tests. umockdev's
// preload library is not safe when one thread changes the testbed while
// another reads sysfs (they share static buffers in it), and the hot-plug
// thread reads sysfs for every event. So this callback holds the hot-plug
// thread once it is done with an event, and a test changes the testbed only
// while it is held. On a removal it first closes the handle it was given, as
// an application that learns of the removal does.
struct HotPlugHold {
    ktest::EventLog<KARVEXDeviceEvent> log;
    std::atomic<KARVEXDeviceHandle> closeOnRemoval{0};
    std::atomic<TSTATUS> closeStatus{TSTATUS_SUCCESS};
    std::atomic<unsigned> closes{0};
    std::atomic<bool> closeReturned{false};
    std::mutex mutex;
    std::condition_variable cond;
    unsigned held = 0;     // events after which the thread stopped
    unsigned released = 0; // of those, how many it may leave
    bool holding = true;

    static void Callback(void* context, KARVEXDeviceEvent event)
    {
        auto* self = static_cast<HotPlugHold*>(context);
        if (event == KARVEXEvent_DeviceRemoved) {
            if (const KARVEXDeviceHandle h = self->closeOnRemoval.exchange(0)) {
                self->closeStatus = KARVEX_CloseDevice(h);
                self->closeReturned = true;
                ++self->closes;
            }
        }
        self->log.Add(event);
        std::unique_lock<std::mutex> lock(self->mutex);
        const unsigned me = ++self->held;
        // Bounded: a test that never lets go fails on its own wait instead.
        self->cond.wait_for(lock, ktest::kWaitLimit, [&] { return !self->holding || self->released >= me; });
    }
    // Lets the thread leave the events it stopped after (it stops again after the next).
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex);
        released = held;
        cond.notify_all();
    }
    void StopHolding() // before the hot-plug thread is joined
    {
        std::lock_guard<std::mutex> lock(mutex);
        holding = false;
        cond.notify_all();
    }
    std::size_t Count(KARVEXDeviceEvent kind)
    {
        const auto items = log.Items();
        return static_cast<std::size_t>(std::count(items.begin(), items.end(), kind));
    }
};

// A "Vm...:" field of /proc/self/status in kB, and heap bytes in use (the
// sanitizers' quarantine makes RSS grow; their allocator counts live blocks).
inline unsigned long StatusKb(const char* field)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(std::string(field) + ":", 0) == 0)
            return std::strtoul(line.c_str() + std::strlen(field) + 1, nullptr, 10);
    }
    return 0;
}
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool cSanitizedHeap = true;
inline unsigned long HeapInUseBytes() { return __sanitizer_get_current_allocated_bytes(); }
#else
constexpr bool cSanitizedHeap = false;
inline unsigned long HeapInUseBytes() { return mallinfo2().uordblks; }
#endif

} // namespace reliability
