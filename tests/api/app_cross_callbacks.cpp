// Calls from callbacks that would wait for a callback thread which may be
// waiting for the caller: every such call returns, refused with
// TSTATUS_NOT_ALLOWED and a trace line; nothing hangs. (A pin callback
// re-registering its own device is refused by the device object, tested there.)
#include "support/api_fixture.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>

using namespace karvex_test;

namespace {

const std::string kSigClose = "TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle)";
const std::string kSigRegisterPin =
    "TSTATUS KarvexApi::RegisterPinEventCallback(KARVEXDeviceHandle, void (*)(void*, unsigned int, KARVEX_GPIOState), "
    "void*)";
const std::string kSigRegisterChange =
    "TSTATUS KarvexApi::RegisterDeviceChangeCallback(void (*)(void*, KARVEXDeviceEvent), void*)";

// A deadlock leaves threads that no clean-up can join: report and leave.
void OrDie(bool ok, const char* what)
{
    if (ok)
        return;
    std::fprintf(stderr, "FAILED: %s (deadlock?)\n", what);
    std::fflush(nullptr);
    _exit(1);
}

// A status one callback sets and another thread awaits (bounded).
struct Result {
    std::atomic<TSTATUS> status{TSTATUS_PENDING};
    Gate done;
    void Set(TSTATUS st)
    {
        status = st;
        done.Open();
    }
};

} // namespace

TEST_F(ApiTest, CallbacksMayNotStopTheirOwnThread)
{
    auto& a = AddAdapter();
    static KARVEXDeviceHandle sHandle;
    static Result sClose, sChange;
    sHandle = Open(a);
    ASSERT_NE(0u, sHandle);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(sHandle, 1, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(sHandle, [](void*, unsigned int, KARVEX_GPIOState) {
        sClose.Set(KARVEX_CloseDevice(sHandle));
    }, nullptr));
    const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        a.firmware->SetInputLevel(1, true);
        OrDie(sClose.done.Pass(), "pin callback's close returned");
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback([](void*, KARVEXDeviceEvent) {
            sChange.Set(KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
        }, nullptr));
        AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVX000002");
        OrDie(sChange.done.Pass(), "device change callback's call returned");
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(sHandle, nullptr, nullptr));
    });
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sClose.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sChange.status.load());
    char handle[16];
    std::snprintf(handle, sizeof handle, "%08X\n", sHandle);
    EXPECT_NE(std::string::npos,
              out.find(kSigClose + ": not allowed from inside the pin event callback of device 0x" + handle))
        << out;
    EXPECT_NE(std::string::npos, out.find(kSigRegisterChange + ": not allowed from inside the device change callback\n"))
        << out;
    // The adapter is still open and usable.
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(sHandle, 2, GPIOState_High));
}

// Each pin callback closes the other's adapter (a join each way).
TEST_F(ApiTest, PinCallbacksClosingEachOthersAdaptersBothReturn)
{
    auto& a = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVX000001");
    auto& b = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVX000002");
    struct Side {
        KARVEXDeviceHandle other = 0;
        Gate entered;
        Result result;
    };
    static Side sideA, sideB;
    const KARVEXDeviceHandle ha = Open(a);
    const KARVEXDeviceHandle hb = Open(b);
    ASSERT_NE(0u, ha);
    ASSERT_NE(0u, hb);
    sideA.other = hb;
    sideB.other = ha;
    auto cb = [](void* ctx, unsigned int, KARVEX_GPIOState) {
        auto* side = static_cast<Side*>(ctx);
        side->entered.Open();
        // Both callbacks run before either closes.
        (side == &sideA ? sideB : sideA).entered.Pass();
        side->result.Set(KARVEX_CloseDevice(side->other));
    };
    for (KARVEXDeviceHandle h : {ha, hb}) {
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 0, GPIOMode_InputEvent));
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, cb, h == ha ? &sideA : &sideB));
    }
    const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        a.firmware->SetInputLevel(0, true);
        b.firmware->SetInputLevel(0, true);
        OrDie(sideA.result.done.Pass() && sideB.result.done.Pass(), "both pin callbacks returned from their close");
        // Both handles are still open: the application closes them elsewhere.
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CheckDeviceConnection(ha));
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(ha));
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(hb));
    });
    Closed(ha);
    Closed(hb);
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sideA.result.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sideB.result.status.load());
    EXPECT_EQ(2u, CountOf(out, kSigClose + ": not allowed from inside a pin event callback\n")) << out;
}

// The hot-plug callback closes adapter A while A's pin callback re-registers
// the device change callback (and registers another adapter's pin callback).
TEST_F(ApiTest, HotPlugClosingWhileAPinCallbackReRegistersBothReturn)
{
    auto& a = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVX000001");
    auto& b = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVX000002");
    static KARVEXDeviceHandle sA, sB;
    static Gate sPinIn, sHotIn;
    static Result sReRegister, sRegisterOther, sClose;
    sA = Open(a);
    sB = Open(b);
    ASSERT_NE(0u, sA);
    ASSERT_NE(0u, sB);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(sA, 5, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(sA, [](void*, unsigned int, KARVEX_GPIOState) {
        sPinIn.Open();
        sHotIn.Pass();
        sRegisterOther.Set(KARVEX_RegisterPinEventCallback(sB, [](void*, unsigned int, KARVEX_GPIOState) {}, nullptr));
        sReRegister.Set(KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    }, nullptr));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback([](void*, KARVEXDeviceEvent) {
        sHotIn.Open();
        sPinIn.Pass();
        if (sClose.status.load() == TSTATUS_PENDING)
            sClose.Set(KARVEX_CloseDevice(sA));
    }, nullptr));
    const std::string out = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        a.firmware->SetInputLevel(5, true);
        AddAdapter(KARVEX_USB_PRODUCT_ID_3, "KVX000003");
        OrDie(sClose.done.Pass() && sReRegister.done.Pass(), "the close and the re-registration returned");
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    });
    EXPECT_EQ(TSTATUS_SUCCESS, sClose.status.load());
    Closed(sA);
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sReRegister.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sRegisterOther.status.load());
    EXPECT_NE(std::string::npos, out.find(kSigRegisterChange + ": not allowed from inside a pin event callback\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find(kSigRegisterPin + ": not allowed from inside a pin event callback\n")) << out;
    // The hot-plug callback may close adapters and register pin callbacks.
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CheckDeviceConnection(sA));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CheckDeviceConnection(sB));
}
