// Calls from callbacks that would wait for a callback thread which may be
// waiting for the caller: every such call returns, refused with
// TSTATUS_NOT_ALLOWED and a trace line; nothing hangs.
#include "support/api_fixture.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string>

using namespace karvex_test;

namespace {

const char* const kSigClose = "TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle)";
const char* const kSigRegisterPin =
    "TSTATUS KarvexApi::RegisterPinEventCallback(KARVEXDeviceHandle, void (*)(void*, unsigned int, KARVEX_GPIOState), "
    "void*)";
const char* const kSigRegisterChange =
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

// Raised by one callback, awaited (bounded) by another.
struct Flag {
    EventLog<int> log;
    void Raise() { log.Add(1); }
    bool Wait() { return log.WaitForCount(1, std::chrono::seconds(10)); }
};

struct Result {
    std::atomic<TSTATUS> status{TSTATUS_PENDING};
    Flag done;
    void Set(TSTATUS st)
    {
        status = st;
        done.Raise();
    }
};

} // namespace

TEST_F(ApiTest, CallbacksMayNotStopTheirOwnThread)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    static KARVEXDeviceHandle sHandle;
    static Result sRegister, sClose, sChange;
    sHandle = h;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 1, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, [](void*, unsigned int, KARVEX_GPIOState) {
        sRegister.Set(KARVEX_RegisterPinEventCallback(sHandle, nullptr, nullptr));
        sClose.Set(KARVEX_CloseDevice(sHandle));
    }, nullptr));
    TraceCapture capture;
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    capture.Start();
    a.firmware->SetInputLevel(1, true);
    OrDie(sClose.done.Wait(), "pin callback calls returned");
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback([](void*, KARVEXDeviceEvent) {
        sChange.Set(KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    }, nullptr));
    AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVX000002");
    OrDie(sChange.done.Wait(), "device change callback call returned");
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, nullptr, nullptr));
    TPosixSetTraceMask(0);
    const std::string out = capture.Stop();
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sRegister.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sClose.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sChange.status.load());
    EXPECT_NE(std::string::npos,
              out.find("TSTATUS KarvexDevice::RegisterPinEventCallback(void (*)(void*, unsigned int, KARVEX_GPIOState), "
                       "void*): not allowed from inside the pin event callback\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find(std::string(kSigClose) + ": not allowed from inside the pin event callback "
                                                                   "of device 0x" + [&] {
                                                                       char b[16];
                                                                       std::snprintf(b, sizeof b, "%08X\n", h);
                                                                       return std::string(b);
                                                                   }()))
        << out;
    EXPECT_NE(std::string::npos, out.find(std::string(kSigRegisterChange) +
                                          ": not allowed from inside the device change callback\n"))
        << out;
    // The adapter is still open and usable.
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(h, 2, GPIOState_High));
}

// Each pin callback closes the other's adapter (a join each way).
TEST_F(ApiTest, PinCallbacksClosingEachOthersAdaptersBothReturn)
{
    auto& a = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVX000001");
    auto& b = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVX000002");
    struct Side {
        KARVEXDeviceHandle other = 0;
        Flag entered;
        Flag* peerEntered = nullptr;
        Result result;
    };
    static Side sideA, sideB;
    sideA.peerEntered = &sideB.entered;
    sideB.peerEntered = &sideA.entered;
    const KARVEXDeviceHandle ha = Open(a);
    const KARVEXDeviceHandle hb = Open(b);
    ASSERT_NE(0u, ha);
    ASSERT_NE(0u, hb);
    sideA.other = hb;
    sideB.other = ha;
    auto cb = [](void* ctx, unsigned int, KARVEX_GPIOState) {
        auto* side = static_cast<Side*>(ctx);
        side->entered.Raise();
        // Both callbacks run before either closes.
        side->peerEntered->Wait();
        side->result.Set(KARVEX_CloseDevice(side->other));
    };
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(ha, 0, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(hb, 0, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(ha, cb, &sideA));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(hb, cb, &sideB));
    TraceCapture capture;
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    capture.Start();
    a.firmware->SetInputLevel(0, true);
    b.firmware->SetInputLevel(0, true);
    OrDie(sideA.result.done.Wait() && sideB.result.done.Wait(), "both pin callbacks returned from their close");
    // Both handles are still open: the application closes them elsewhere.
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CheckDeviceConnection(ha));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(ha));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(hb));
    Closed(ha);
    Closed(hb);
    TPosixSetTraceMask(0);
    const std::string out = capture.Stop();
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sideA.result.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sideB.result.status.load());
    const std::string line = std::string(kSigClose) + ": not allowed from inside a pin event callback\n";
    const std::size_t at = out.find(line);
    EXPECT_NE(std::string::npos, at) << out;
    EXPECT_NE(std::string::npos, out.find(line, at + 1)) << out;
}

// The hot-plug callback closes adapter A while A's pin callback re-registers
// the device change callback (and registers another adapter's pin callback).
TEST_F(ApiTest, HotPlugClosingWhileAPinCallbackReRegistersBothReturn)
{
    auto& a = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVX000001");
    auto& b = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "KVX000002");
    static KARVEXDeviceHandle sA, sB;
    static Flag sPinIn, sHotIn;
    static Result sReRegister, sRegisterOther, sClose;
    sA = Open(a);
    sB = Open(b);
    ASSERT_NE(0u, sA);
    ASSERT_NE(0u, sB);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(sA, 5, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(sA, [](void*, unsigned int, KARVEX_GPIOState) {
        sPinIn.Raise();
        sHotIn.Wait();
        sRegisterOther.Set(KARVEX_RegisterPinEventCallback(sB, [](void*, unsigned int, KARVEX_GPIOState) {}, nullptr));
        sReRegister.Set(KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    }, nullptr));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback([](void*, KARVEXDeviceEvent) {
        sHotIn.Raise();
        sPinIn.Wait();
        if (sClose.status.load() == TSTATUS_PENDING)
            sClose.Set(KARVEX_CloseDevice(sA));
    }, nullptr));
    TraceCapture capture;
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    capture.Start();
    a.firmware->SetInputLevel(5, true);
    AddAdapter(KARVEX_USB_PRODUCT_ID_3, "KVX000003");
    OrDie(sClose.done.Wait() && sReRegister.done.Wait(), "the close and the re-registration returned");
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr));
    TPosixSetTraceMask(0);
    const std::string out = capture.Stop();
    EXPECT_EQ(TSTATUS_SUCCESS, sClose.status.load());
    Closed(sA);
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sReRegister.status.load());
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, sRegisterOther.status.load());
    EXPECT_NE(std::string::npos,
              out.find(std::string(kSigRegisterChange) + ": not allowed from inside a pin event callback\n"))
        << out;
    EXPECT_NE(std::string::npos,
              out.find(std::string(kSigRegisterPin) + ": not allowed from inside a pin event callback\n"))
        << out;
    // The hot-plug callback may close adapters and register pin callbacks.
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CheckDeviceConnection(sA));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CheckDeviceConnection(sB));
}
