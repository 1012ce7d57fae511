#include "EmuActionScheduler.h"

#include <cstdio>

namespace karvexemu {

EmuActionScheduler::EmuActionScheduler(std::vector<Adapter>& adapters, const Options& opts)
    : mAdapters(adapters), mOpts(opts)
{
}

EmuActionScheduler::~EmuActionScheduler()
{
    Stop();
}

void EmuActionScheduler::Start()
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mStarted || mStop || (mOpts.toggles.empty() && mOpts.replugs.empty()))
        return;
    mStarted = true;
    mThread = std::thread([this] { Run(); });
}

void EmuActionScheduler::Stop()
{
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mStop = true;
    }
    mCond.notify_all();
    if (mThread.joinable())
        mThread.join();
}

bool EmuActionScheduler::Unplug(unsigned adapter)
{
    if (adapter >= mAdapters.size())
        return false;
    std::lock_guard<std::mutex> lock(mActionMutex);
    Adapter& a = mAdapters[adapter];
    if (mOpts.verbose)
        std::fprintf(stderr, "karvex-emu: unplugging %s\n", a.device->DevNode().c_str());
    if (a.device->IsPlugged())
        a.device->Unplug();
    return true;
}

bool EmuActionScheduler::Plug(unsigned adapter)
{
    if (adapter >= mAdapters.size())
        return false;
    std::lock_guard<std::mutex> lock(mActionMutex);
    Adapter& a = mAdapters[adapter];
    if (!a.device->IsPlugged())
        a.device->Plug();
    if (mOpts.verbose)
        std::fprintf(stderr, "karvex-emu: plugged %s back in\n", a.device->DevNode().c_str());
    return true;
}

void EmuActionScheduler::SetInputLevel(unsigned pin, bool high)
{
    std::lock_guard<std::mutex> lock(mActionMutex);
    for (Adapter& a : mAdapters) {
        if (a.device->IsPlugged())
            a.firmware->SetInputLevel(pin, high);
    }
    if (mOpts.verbose)
        std::fprintf(stderr, "karvex-emu: pin %u -> %d\n", pin, high ? 1 : 0);
}

void EmuActionScheduler::Run()
{
    const Clock::time_point start = Clock::now();
    std::vector<Action> actions;
    for (std::size_t i = 0; i < mOpts.toggles.size(); ++i)
        actions.push_back({start + std::chrono::milliseconds(mOpts.toggles[i].periodMs), Action::Toggle, i, true});
    for (std::size_t i = 0; i < mOpts.replugs.size(); ++i)
        actions.push_back({start + std::chrono::milliseconds(mOpts.replugs[i].delayMs), Action::Unplug, i});

    std::unique_lock<std::mutex> lock(mMutex);
    while (!mStop && !actions.empty()) {
        std::size_t next = 0;
        for (std::size_t i = 1; i < actions.size(); ++i) {
            if (actions[i].due < actions[next].due)
                next = i;
        }
        if (mCond.wait_until(lock, actions[next].due, [this] { return mStop; }))
            break;
        // Acted on without the lock, so Stop never waits behind an unplug.
        Action action = actions[next];
        lock.unlock();
        Perform(action);
        lock.lock();
        switch (action.kind) {
        case Action::Toggle:
            // From the due time, not from now: the period does not drift.
            actions[next].due += std::chrono::milliseconds(mOpts.toggles[action.index].periodMs);
            actions[next].level = !action.level;
            break;
        case Action::Unplug:
            actions[next].kind = Action::Plug;
            actions[next].due += std::chrono::milliseconds(mOpts.replugs[action.index].downMs);
            break;
        case Action::Plug:
            actions.erase(actions.begin() + static_cast<std::ptrdiff_t>(next));
            break;
        }
    }
}

void EmuActionScheduler::Perform(const Action& action)
{
    switch (action.kind) {
    case Action::Toggle:
        SetInputLevel(mOpts.toggles[action.index].pin, action.level);
        break;
    case Action::Unplug:
        Unplug(mOpts.replugs[action.index].adapter);
        break;
    case Action::Plug:
        Plug(mOpts.replugs[action.index].adapter);
        break;
    }
}

} // namespace karvexemu
