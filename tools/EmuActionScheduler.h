// Runs karvex-emu's timed actions on one thread: flipping input pins every
// period (--toggle) and unplugging and replugging adapters (--replug).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>
#include <vector>

#include "EmuOptions.h"

namespace karvexemu {

class EmuActionScheduler {
public:
    EmuActionScheduler(std::vector<Adapter>& adapters, const Options& opts);
    ~EmuActionScheduler();
    EmuActionScheduler(const EmuActionScheduler&) = delete;
    EmuActionScheduler& operator=(const EmuActionScheduler&) = delete;

    // Times count from Start. Nothing runs when no action was asked for.
    void Start();
    // Returns once the thread has ended; no action runs after it.
    void Stop();

private:
    using Clock = std::chrono::steady_clock;

    struct Action {
        Clock::time_point due;
        enum Kind { Toggle, Unplug, Plug } kind;
        std::size_t index; // into the toggles or the replugs
        bool level = false;
    };

    void Run();
    void Perform(const Action& action);

    std::vector<Adapter>& mAdapters;
    const Options& mOpts;
    std::thread mThread;
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mStop = false;
};

} // namespace karvexemu
