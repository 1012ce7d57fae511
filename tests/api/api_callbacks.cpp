// The API's locking and its callbacks: a call waiting on one adapter holds up
// neither the other adapter nor the rest of the API; callbacks calling back
// in, throwing, and closes while they run. (The pin event thread and the
// calls on the wire are the device object's; the stress test checks that each
// call reaches the adapter of its handle, and pin callbacks calling in.)
#include "support/api_fixture.h"

#include <atomic>
#include <thread>

using namespace karvex_test;

namespace {

struct ChangeContext {
    EventLog<KARVEXDeviceEvent> log;
    std::atomic<unsigned int> countSeenInCallback{0};
};

// Enumerates from the hot-plug thread, then lets an exception escape.
void OnChange(void* ctx, KARVEXDeviceEvent event)
{
    auto* c = static_cast<ChangeContext*>(ctx);
    unsigned int count = 0;
    if (KARVEX_EnumerateDevices(&count) == TSTATUS_SUCCESS)
        c->countSeenInCallback = count;
    c->log.Add(event);
    throw 42;
}

} // namespace

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

// An exception escaping the callback is reported once per notification, and
// the notifications go on.
TEST_F(ApiTest, HotPlugCallbacksReportArrivalAndRemovalMayCallBackAndThrow)
{
    ChangeContext ctx;
    ChangeContext later;
    const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnChange, &ctx));
        auto& a = AddAdapter();
        ASSERT_TRUE(ctx.log.WaitForCount(1)) << "the arrival";
        EXPECT_EQ(KARVEXEvent_DeviceAttached, ctx.log.Items()[0]);
        EXPECT_EQ(1u, ctx.countSeenInCallback.load());
        // A foreign device comes and goes without a callback.
        auto& foreign = mTestbed->AddDevice(kemu::ForeignDeviceConfig());
        foreign.Unplug();
        a.device->Unplug();
        ASSERT_TRUE(ctx.log.WaitForCount(2)) << "the removal";
        EXPECT_EQ(KARVEXEvent_DeviceRemoved, ctx.log.Items()[1]);
        EXPECT_EQ(0u, ctx.countSeenInCallback.load());
        a.device->Plug();
        ASSERT_TRUE(ctx.log.WaitForCount(3)) << "the second arrival";
        EXPECT_EQ(KARVEXEvent_DeviceAttached, ctx.log.Items()[2]);
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
        a.device->Unplug();
        a.device->Plug();
        // A later registration hears a later unplug: whatever came before it has
        // been dealt with, and the unregistered callback heard nothing of it.
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnChange, &later));
        a.device->Unplug();
        ASSERT_TRUE(later.log.WaitForCount(1)) << "the later registration's removal";
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    });
    EXPECT_EQ(3u, ctx.log.Size());
    EXPECT_EQ(1u, later.log.Size());
    EXPECT_EQ(4u, CountOf(out, "void KarvexApi::OnDeviceChangeCallback(LxPnPNotificatorAction, const char*): FATAL: "
                               "Uncaught exception in device change callback\n"))
        << out;
}

// The slow adapter never answers (its transfer would wait 20 s): everything
// below runs while it waits, and closing it at the end releases both callers.
TEST_F(ApiTest, SlowTransactionHoldsUpNeitherTheOtherAdapterNorTheApi)
{
    auto& slow = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "SLOW");
    auto& fast = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "FAST");
    KARVEXDeviceHandle hs = Open(slow);
    KARVEXDeviceHandle hf = Open(fast);
    ASSERT_NE(0u, hs);
    ASSERT_NE(0u, hf);
    kemu::EmuAdapterFirmware::Faults faults;
    faults.noAnswer = true;
    slow.firmware->SetFaults(faults);

    std::atomic<int> slowDone{0};
    std::atomic<pid_t> queuedTid{0};
    std::thread transfer([&] {
        unsigned char addr = 0, data[4];
        EXPECT_EQ(TSTATUS_ABORTED, KARVEX_I2cTransaction(hs, 0, 100000, 0x50, &addr, 1, data, sizeof data, 10000));
        ++slowDone;
    });
    KT_WAIT_FOR(slow.firmware->CommandCount() >= 2, "the slow adapter to receive the transfer");
    // A second call on the busy adapter waits behind it...
    std::thread queued([&] {
        queuedTid = ktest::ThreadId();
        KARVEX_GPIOState s;
        const TSTATUS st = KARVEX_GetPinState(hs, 0, &s);
        // Released by the close, not by a time-out: aborted while it waited for
        // the device, which is what a queued call normally sees; a thread the
        // scheduler held back until after the close finds the device closed
        // or the handle gone.
        EXPECT_TRUE(st == TSTATUS_ABORTED || st == TSTATUS_NOT_OPENED || st == TSTATUS_INVALID_HANDLE)
            << std::hex << st;
        ++slowDone;
    });
    // Blocked in the kernel: normally on the device the transfer holds.
    KT_WAIT_FOR(queuedTid.load() != 0 && ktest::WaitUntilBlocked(queuedTid), "the queued call to block");
    // ...without holding up the rest of the API or the other adapter.
    unsigned int count = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    EXPECT_EQ(2u, count);
    unsigned int vid = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceUsbInfo(hf, &vid, nullptr, nullptr));
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(hf, 1, (i & 1) ? GPIOState_High : GPIOState_Low));
    EXPECT_EQ(0, slowDone.load());
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(hs));
    Closed(hs);
    transfer.join();
    queued.join();
    EXPECT_EQ(2, slowDone.load());
}
