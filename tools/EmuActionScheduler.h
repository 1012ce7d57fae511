// Runs karvex-emu's timed actions on one thread: flipping input pins every
// period (--toggle) and unplugging and replugging adapters (--replug); and
// the same actions on demand, one at a time with the timed ones.
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

    // Times count from Start. Nothing runs when no action was asked for;
    // a second Start changes nothing.
    void Start();
    // Acted on at once (from the control channel); false for an unknown adapter.
    bool Unplug(unsigned adapter);
    bool Plug(unsigned adapter);
    void SetInputLevel(unsigned pin, bool high);
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
    std::mutex mActionMutex; // one action at a time, timed or asked for
    bool mStarted = false;
    std::condition_variable mCond;
    bool mStop = false;
};

} // namespace karvexemu
