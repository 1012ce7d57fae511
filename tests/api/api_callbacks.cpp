// Pin event and hot-plug callbacks through the public API: which thread
// runs them, calling back into the library from them, exceptions escaping
// them, and closing or re-registering while they run.
#include "support/api_fixture.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <thread>

using namespace karvex_test;

namespace {

struct PinEvent {
    unsigned int pin;
    KARVEX_GPIOState state;
    pthread_t thread;
};

struct PinContext {
    EventLog<PinEvent> log;
    KARVEXDeviceHandle handle = 0;
    std::atomic<int> readBackFailures{0};
    bool callBack = false;
};

void OnPin(void* ctx, unsigned int pin, KARVEX_GPIOState state)
{
    auto* c = static_cast<PinContext*>(ctx);
    if (c->callBack) {
        // Reading the pin from inside its own event callback must not deadlock.
        KARVEX_GPIOState now = GPIOState_Low;
        if (KARVEX_GetPinState(c->handle, pin, &now) != TSTATUS_SUCCESS)
            ++c->readBackFailures;
    }
    c->log.Add(PinEvent{pin, state, pthread_self()});
}

struct ChangeContext {
    EventLog<KARVEXDeviceEvent> log;
    std::atomic<unsigned int> countSeenInCallback{0};
    bool enumerate = false;
    bool throwIt = false;
};

void OnChange(void* ctx, KARVEXDeviceEvent event)
{
    auto* c = static_cast<ChangeContext*>(ctx);
    if (c->enumerate) {
        unsigned int count = 0;
        if (KARVEX_EnumerateDevices(&count) == TSTATUS_SUCCESS)
            c->countSeenInCallback = count;
    }
    c->log.Add(event);
    if (c->throwIt)
        throw 42;
}

} // namespace

TEST_F(ApiTest, PinEventsArriveOnTheirOwnThreadAndMayCallBack)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    PinContext ctx;
    ctx.handle = h;
    ctx.callBack = true;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 4, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, OnPin, &ctx));
    a.firmware->SetInputLevel(4, true);
    a.firmware->SetInputLevel(4, false);
    ASSERT_TRUE(ctx.log.WaitForCount(2));
    auto events = ctx.log.Items();
    EXPECT_EQ(4u, events[0].pin);
    EXPECT_EQ(GPIOState_High, events[0].state);
    EXPECT_EQ(GPIOState_Low, events[1].state);
    EXPECT_FALSE(pthread_equal(events[0].thread, pthread_self()));
    EXPECT_EQ(0, ctx.readBackFailures.load());
    // The callback may not close or re-register its own device.
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, nullptr, nullptr));
    a.firmware->SetInputLevel(4, true);
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinMode(h, 4, reinterpret_cast<KARVEX_GPIOMode*>(&events[0].state)));
    EXPECT_EQ(2u, ctx.log.Size());
}

TEST_F(ApiTest, CloseFromAnotherThreadWaitsForARunningCallbackThatCallsIn)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    struct Ctx {
        KARVEXDeviceHandle h;
        std::atomic<bool> entered{false};
        std::atomic<bool> release{false};
        std::atomic<bool> finished{false};
        std::atomic<TSTATUS> inner{TSTATUS_SUCCESS};
    } ctx;
    ctx.h = h;
    auto cb = [](void* p, unsigned int, KARVEX_GPIOState) {
        auto* c = static_cast<Ctx*>(p);
        c->entered = true;
        // Parked until the closer has started (bounded: a lost release ends the wait).
        WaitUntil([c] { return c->release.load(); });
        // By now the application is closing this handle on another thread.
        KARVEX_GPIOState s;
        c->inner = KARVEX_GetPinState(c->h, 0, &s);
        c->finished = true;
    };
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 0, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, cb, &ctx));
    a.firmware->SetInputLevel(0, true);
    KT_WAIT_FOR(ctx.entered.load(), "the pin callback to run");
    std::thread closer([&] { EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h)); });
    // Close takes the handle out of the table first, then waits for the callback.
    KT_WAIT_FOR(KARVEX_CheckDeviceConnection(h) == TSTATUS_INVALID_HANDLE, "close to retire the handle");
    ctx.release = true;
    closer.join();
    Closed(h);
    // Close returned only after the callback had finished; the callback's own
    // call did not deadlock and saw the handle gone.
    EXPECT_TRUE(ctx.finished.load());
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, ctx.inner.load()) << std::hex << ctx.inner;
}

TEST_F(ApiTest, HotPlugCallbacksReportArrivalAndRemovalAndMayCallBack)
{
    ChangeContext ctx;
    ctx.enumerate = true;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnChange, &ctx));
    auto& a = AddAdapter();
    ASSERT_TRUE(ctx.log.WaitForCount(1));
    EXPECT_EQ(KARVEXEvent_DeviceAttached, ctx.log.Items()[0]);
    EXPECT_EQ(1u, ctx.countSeenInCallback.load());
    // A foreign device comes and goes without a callback.
    auto& foreign = mTestbed->AddDevice(kemu::ForeignDeviceConfig());
    foreign.Unplug();
    a.device->Unplug();
    ASSERT_TRUE(ctx.log.WaitForCount(2));
    EXPECT_EQ(KARVEXEvent_DeviceRemoved, ctx.log.Items()[1]);
    EXPECT_EQ(0u, ctx.countSeenInCallback.load());
    a.device->Plug();
    ASSERT_TRUE(ctx.log.WaitForCount(3));
    EXPECT_EQ(KARVEXEvent_DeviceAttached, ctx.log.Items()[2]);
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    a.device->Unplug();
    a.device->Plug();
    // A later registration hears a later unplug: whatever came before it has
    // been dealt with, and the unregistered callback heard nothing of it.
    ChangeContext later;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnChange, &later));
    a.device->Unplug();
    ASSERT_TRUE(later.log.WaitForCount(1)) << "timed out waiting for the later registration's removal";
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    EXPECT_EQ(3u, ctx.log.Size());
}

TEST_F(ApiTest, ThrowingDeviceChangeCallbackIsReportedOncePerNotification)
{
    ChangeContext ctx;
    ctx.throwIt = true;
    const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnChange, &ctx));
        auto& a = AddAdapter();
        ASSERT_TRUE(ctx.log.WaitForCount(1));
        a.device->Unplug();
        ASSERT_TRUE(ctx.log.WaitForCount(2));
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    });
    const std::string line = "void KarvexApi::OnDeviceChangeCallback(LxPnPNotificatorAction, const char*): FATAL: "
                             "Uncaught exception in device change callback\n";
    EXPECT_EQ(2u, CountOf(out, line)) << out;
}
