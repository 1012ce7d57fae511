// Helpers of the reliability tests (unplug faults, stress, event storms):
// a watchdog that turns a hang into a failure with thread dumps, what each
// application thread was doing last, process resource counts, a counter of
// trace lines that does not keep them in memory, and sizes taken from the
// environment that the sanitizer builds turn down.
#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <malloc.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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
    if (text == nullptr || *text == '\0')
        return fallback;
    char* end = nullptr;
    const unsigned long value = std::strtoul(text, &end, 10);
    return (end != nullptr && *end == '\0' && value > 0) ? value : fallback;
}

// umockdev builds its testbed (a fake sysfs of many small files, created
// anew at every plug) under $TMPDIR. On a disk file system that costs far
// more than the library's own work in a test that plugs hundreds of times;
// a memory file system keeps the run short. Call it before the first
// testbed exists (GLib reads $TMPDIR once); a TMPDIR set by the caller wins.
inline bool PreferMemoryFileSystemForTestbeds()
{
    if (std::getenv("TMPDIR") != nullptr || access("/dev/shm", W_OK | X_OK) != 0)
        return false;
    return setenv("TMPDIR", "/dev/shm", 0) == 0;
}

// What each application thread of a test did last, for the watchdog's report.
class Activity {
public:
    static constexpr std::size_t cMaxThreads = 16;

    Activity()
    {
        for (auto& entry : mLast)
            entry.store(nullptr);
    }
    void Set(std::size_t thread, const char* what)
    {
        if (thread < cMaxThreads)
            mLast[thread].store(what);
    }
    std::string Report() const
    {
        std::string text;
        for (std::size_t i = 0; i < cMaxThreads; ++i) {
            const char* what = mLast[i].load();
            if (what != nullptr)
                text += "  thread " + std::to_string(i) + ": " + what + "\n";
        }
        return text;
    }

private:
    std::array<std::atomic<const char*>, cMaxThreads> mLast;
};

// Fails the test process when a test does not finish in time: prints what
// the application threads did last and the stack of every thread (gdb, when
// installed), then aborts, so that a deadlock shows its locks instead of
// running into ctest's time-out without a word.
class Watchdog {
public:
    Watchdog(std::chrono::seconds limit, const Activity* activity = nullptr)
        : mActivity(activity), mThread([this, limit] { Run(limit); })
    {
    }
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mDone = true;
        }
        mCond.notify_all();
        mThread.join();
    }
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    void Run(std::chrono::seconds limit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        if (mCond.wait_for(lock, limit, [this] { return mDone; }))
            return;
        std::fprintf(stderr, "\n*** watchdog: %s.%s still running after %lld s: hang or deadlock\n",
                     testing::UnitTest::GetInstance()->current_test_info()->test_suite_name(),
                     testing::UnitTest::GetInstance()->current_test_info()->name(),
                     static_cast<long long>(limit.count()));
        if (mActivity != nullptr)
            std::fprintf(stderr, "last operation of each application thread:\n%s", mActivity->Report().c_str());
        std::fflush(stderr);
        if (std::system("command -v gdb >/dev/null 2>&1") == 0) {
            // Let gdb attach even where ptrace is limited to ancestors.
            prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY, 0, 0, 0);
            const std::string command = "gdb -batch -nx -p " + std::to_string(getpid()) +
                                        " -ex 'thread apply all bt' 1>&2 2>/dev/null </dev/null";
            if (std::system(command.c_str()) != 0)
                std::fprintf(stderr, "(gdb could not attach)\n");
        } else {
            std::fprintf(stderr, "(gdb not installed: no thread dump)\n");
        }
        std::abort();
    }

    const Activity* mActivity;
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mDone = false;
    std::thread mThread;
};

// Counts of this process's resources, read from /proc.
inline std::size_t CountDirEntries(const char* path)
{
    std::size_t count = 0;
    if (DIR* dir = opendir(path)) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.')
                ++count;
        }
        closedir(dir);
    }
    return count;
}
inline std::size_t OpenFdCount() { return CountDirEntries("/proc/self/fd") - 1; } // minus opendir's own
inline std::size_t ThreadCount() { return CountDirEntries("/proc/self/task"); }

// A "Vm...:" line of /proc/self/status, in kB (0 when missing).
inline unsigned long StatusKb(const char* field)
{
    FILE* f = std::fopen("/proc/self/status", "r");
    if (f == nullptr)
        return 0;
    char line[256];
    unsigned long value = 0;
    const std::size_t n = std::strlen(field);
    while (std::fgets(line, sizeof line, f) != nullptr) {
        if (std::strncmp(line, field, n) == 0 && line[n] == ':') {
            value = std::strtoul(line + n + 1, nullptr, 10);
            break;
        }
    }
    std::fclose(f);
    return value;
}
inline unsigned long RssKb() { return StatusKb("VmRSS"); }
inline unsigned long PeakRssKb() { return StatusKb("VmHWM"); }

// Heap bytes in use. The sanitizers replace malloc and keep freed blocks in
// quarantine, which makes the RSS of their builds grow with every allocation
// however short-lived; their allocator counts only live blocks.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool cSanitizedHeap = true;
inline unsigned long HeapInUseBytes() { return __sanitizer_get_current_allocated_bytes(); }
#else
constexpr bool cSanitizedHeap = false;
inline unsigned long HeapInUseBytes() { return mallinfo2().uordblks; }
#endif

// Sends standard output (where the library traces) into a pipe for a while
// and counts the lines equal to one given line, without keeping them:
// a storm writes far more trace than a capture file should hold. Other lines
// are kept, up to a limit, to be shown when they should not be there.
class TraceLineCounter {
public:
    explicit TraceLineCounter(std::string line) : mLine(std::move(line))
    {
        std::fflush(stdout);
        int fds[2];
        if (pipe(fds) != 0)
            return;
        mSavedStdout = dup(STDOUT_FILENO);
        dup2(fds[1], STDOUT_FILENO);
        close(fds[1]);
        mReadEnd = fds[0];
        mReader = std::thread([this] { ReadLoop(); });
    }
    ~TraceLineCounter() { Stop(); }
    TraceLineCounter(const TraceLineCounter&) = delete;
    TraceLineCounter& operator=(const TraceLineCounter&) = delete;

    // Restores standard output and counts what was still in flight.
    void Stop()
    {
        if (mSavedStdout < 0)
            return;
        std::fflush(stdout);
        dup2(mSavedStdout, STDOUT_FILENO); // closes the pipe's last write end
        close(mSavedStdout);
        mSavedStdout = -1;
        mReader.join();
        close(mReadEnd);
    }
    unsigned long Matching() const { return mMatching.load(); }
    unsigned long Others() const { return mOthers.load(); }
    std::string SomeOthers() const
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mOtherLines;
    }

private:
    void ReadLoop()
    {
        std::string partial;
        char buffer[65536];
        for (;;) {
            const ssize_t n = read(mReadEnd, buffer, sizeof buffer);
            if (n <= 0)
                break;
            partial.append(buffer, static_cast<std::size_t>(n));
            std::size_t start = 0;
            for (std::size_t nl = partial.find('\n'); nl != std::string::npos; nl = partial.find('\n', start)) {
                Line(partial, start, nl + 1);
                start = nl + 1;
            }
            partial.erase(0, start);
        }
        if (!partial.empty())
            Line(partial, 0, partial.size());
    }
    void Line(const std::string& text, std::size_t begin, std::size_t end)
    {
        const std::size_t length = end - begin;
        if (text.compare(begin, length, mLine) == 0) {
            ++mMatching;
            return;
        }
        ++mOthers;
        std::lock_guard<std::mutex> lock(mMutex);
        if (mOtherLines.size() < 4096)
            mOtherLines.append(text, begin, length);
    }

    std::string mLine; // with its newline
    int mSavedStdout = -1;
    int mReadEnd = -1;
    std::thread mReader;
    std::atomic<unsigned long> mMatching{0};
    std::atomic<unsigned long> mOthers{0};
    mutable std::mutex mMutex;
    std::string mOtherLines;
};

} // namespace reliability
