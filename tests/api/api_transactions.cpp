// Pins and I2C end to end through the public API, and two adapters working
// in parallel.
#include "support/api_fixture.h"

#include <atomic>
#include <cstring>
#include <thread>

using namespace karvex_test;

// The pin and I2C calls only find the device by its handle and pass on to
// it (argument checks, answers and faults are tested on the device object):
// each call reaches its adapter with its arguments and returns its status.
TEST_F(ApiTest, PinAndI2cCallsReachTheAdapterOfTheirHandle)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 2, GPIOMode_Output_High));
    KARVEX_GPIOMode mode = GPIOMode_Input;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinMode(h, 2, &mode));
    EXPECT_EQ(GPIOMode_Output_High, mode);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(h, 2, GPIOState_Low));
    EXPECT_FALSE(a.firmware->PinLevel(2));
    a.firmware->SetInputLevel(7, true);
    KARVEX_GPIOState state = GPIOState_Low;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 7, &state));
    EXPECT_EQ(GPIOState_High, state);
    EXPECT_EQ(static_cast<TSTATUS>(0xE0001100u + kemu::EmuAdapterFirmware::cStatusInvalidPin),
              KARVEX_SetPinState(h, 99, GPIOState_High));

    const unsigned char write[] = {0x10, 0xA0, 0xA1, 0xA2};
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 400000, 0x50, write, sizeof write, nullptr, 0, 10000));
    unsigned char read[3] = {};
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 400000, 0x50, write, 1, read, sizeof read, 10000));
    EXPECT_EQ(0, std::memcmp(write + 1, read, sizeof read));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, nullptr, 0, nullptr, 0, 0));
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

TEST_F(ApiTest, CloseWhileCallsWaitForTheDeviceReleasesThemAll)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    kemu::EmuAdapterFirmware::Faults faults;
    faults.noAnswer = true;
    a.firmware->SetFaults(faults);
    std::vector<std::thread> callers;
    std::atomic<int> finished{0};
    for (int i = 0; i < 3; ++i) {
        callers.emplace_back([&] {
            const TSTATUS st = KARVEX_SetPinState(h, 1, GPIOState_High);
            // The first waits for an answer and is aborted by the close; the
            // others find the device closed or the handle gone.
            EXPECT_TRUE(st == TSTATUS_ABORTED || st == TSTATUS_NOT_OPENED || st == TSTATUS_INVALID_HANDLE)
                << std::hex << st;
            ++finished;
        });
    }
    KT_WAIT_FOR(a.firmware->CommandCount() >= 2, "the adapter to receive a command");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
    Closed(h);
    for (auto& t : callers)
        t.join();
    EXPECT_EQ(3, finished.load());
    // Nobody sat out the 5 s command time-out (a liveness limit: close aborts at once).
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4900));
}
