// The API's locking: a call waiting on one adapter holds up neither the
// other adapter nor the rest of the API, and a close releases every call
// waiting on its adapter at once. (What the pin and I2C calls do on the
// wire is the device object's, tested there; that each call reaches the
// adapter of its handle, the stress test checks.)
#include "support/api_fixture.h"

#include <atomic>
#include <thread>

using namespace karvex_test;

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
