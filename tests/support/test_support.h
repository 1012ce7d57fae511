// Helpers every test shares: trace capture under a given mask, bounded waits
// that say what they waited for, and a thread-safe event recorder.
#pragma once

#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstdio>
#include <functional>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "karvex/karvex_api.h"

namespace ktest {

using Ms = std::chrono::milliseconds;
// Liveness limit of every wait: generous, a slow machine under valgrind stays well inside it.
inline constexpr Ms kWaitLimit{20000};

// Restores the trace mask on scope exit.
class TraceMaskGuard {
public:
    explicit TraceMaskGuard(unsigned int mask) : mSaved(TPosixGetTraceMask()) { TPosixSetTraceMask(mask); }
    ~TraceMaskGuard() { TPosixSetTraceMask(mSaved); }
    TraceMaskGuard(const TraceMaskGuard&) = delete;
    TraceMaskGuard& operator=(const TraceMaskGuard&) = delete;

private:
    unsigned int mSaved;
};

// Runs f with the given trace mask and returns what it wrote to standard
// output. A failure inside f would be captured too: it is then echoed to stderr.
template <typename F>
std::string CaptureTrace(unsigned int mask, F f)
{
    const bool failedBefore = testing::Test::HasFailure();
    std::string text;
    {
        TraceMaskGuard guard(mask);
        fflush(stdout);
        testing::internal::CaptureStdout();
        f();
        fflush(stdout);
        text = testing::internal::GetCapturedStdout();
    }
    if (!failedBefore && testing::Test::HasFailure())
        fprintf(stderr, "--- output captured while the failure happened ---\n%s--- end ---\n", text.c_str());
    return text;
}

// What a running CaptureTrace has collected so far (standard output goes to
// a file while it runs): lets a test wait for a trace line from another thread.
inline std::string CapturedSoFar()
{
    fflush(stdout);
    std::ifstream file("/proc/self/fd/1");
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

// The same under whatever mask is set.
template <typename F>
std::string CaptureTrace(F f)
{
    return CaptureTrace(TPosixGetTraceMask(), f);
}

// Non-overlapping occurrences of needle in text.
inline size_t CountOf(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size()))
        ++count;
    return count;
}

// A status as "0xE0000048 TSTATUS_INVALID_HANDLE", for failure messages.
inline std::string StatusName(TSTATUS st)
{
    char text[64];
    std::snprintf(text, sizeof text, "0x%08X %s", static_cast<unsigned>(st), TStatusStringA(st));
    return text;
}

inline long long ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<Ms>(std::chrono::steady_clock::now() - since).count();
}

// Polls pred until it holds or the limit is up; true when it held.
inline bool WaitUntil(const std::function<bool()>& pred, Ms limit = kWaitLimit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(Ms(1));
    }
    return true;
}

// The calling thread's kernel id.
inline pid_t ThreadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// True once the thread tid of this process sleeps in the kernel (blocked on
// a lock, a condition or a join): how a test knows another thread has
// reached the wait it is about to check, without guessing a delay.
inline bool WaitUntilBlocked(pid_t tid, Ms limit = kWaitLimit)
{
    return WaitUntil(
        [tid] {
            std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
            std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
            const size_t paren = text.rfind(')');
            return paren != std::string::npos && paren + 2 < text.size() &&
                   (text[paren + 2] == 'S' || text[paren + 2] == 'D');
        },
        limit);
}

// A bounded wait that fails the test, naming what it waited for.
#define KT_WAIT_FOR(cond, what) \
    ASSERT_TRUE(::ktest::WaitUntil([&] { return static_cast<bool>(cond); })) << "timed out waiting for " << (what)

// A thread-safe record of events with a bounded wait.
template <typename T>
class EventLog {
public:
    void Add(const T& value)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mItems.push_back(value);
        mCond.notify_all();
    }
    bool WaitForCount(size_t count, Ms limit = kWaitLimit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCond.wait_for(lock, limit, [&] { return mItems.size() >= count; });
    }
    std::vector<T> Items()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mItems;
    }
    size_t Size()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mItems.size();
    }

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    std::vector<T> mItems;
};

// The ids of this process's threads, from /proc/self/task.
inline std::set<pid_t> Tasks()
{
    std::set<pid_t> tasks;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.')
                tasks.insert(static_cast<pid_t>(std::atoi(entry->d_name)));
        }
        closedir(dir);
    }
    return tasks;
}

// A gate a callback can be parked at until the test opens it.
class Gate {
public:
    void Open()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mCond.notify_all();
    }
    // false when the gate stayed shut for the whole limit.
    bool Pass(Ms limit = kWaitLimit)
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCond.wait_for(lock, limit, [&] { return mOpen; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mOpen = false;
};

} // namespace ktest
