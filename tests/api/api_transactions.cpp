// Pins and I2C end to end through the public API, and two adapters working
// in parallel.
#include "support/api_fixture.h"

#include <atomic>
#include <cstring>
#include <thread>

using namespace karvex_test;

TEST_F(ApiTest, PinModesAndLevelsRoundTrip)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 2, GPIOMode_Output_High));
    KARVEX_GPIOMode mode = GPIOMode_Input;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinMode(h, 2, &mode));
    EXPECT_EQ(GPIOMode_Output_High, mode);
    KARVEX_GPIOState state = GPIOState_Low;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 2, &state));
    EXPECT_EQ(GPIOState_High, state);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(h, 2, GPIOState_Low));
    EXPECT_FALSE(a.firmware->PinLevel(2));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 2, &state));
    EXPECT_EQ(GPIOState_Low, state);

    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 7, GPIOMode_Input));
    a.firmware->SetInputLevel(7, true);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 7, &state));
    EXPECT_EQ(GPIOState_High, state);
}

TEST_F(ApiTest, InvalidModeAndStateAreRefusedWithoutTraffic)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    const std::size_t before = a.firmware->CommandCount();
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_SetPinMode(h, 1, static_cast<KARVEX_GPIOMode>(4)));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_SetPinState(h, 1, static_cast<KARVEX_GPIOState>(-1)));
    EXPECT_EQ(before, a.firmware->CommandCount());
}

TEST_F(ApiTest, AdapterFailureStatusReachesTheApplication)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    // A pin the adapter does not have: its status byte comes back folded into
    // the response status block.
    EXPECT_EQ(static_cast<TSTATUS>(0xE0001100u + kemu::EmuAdapterFirmware::cStatusInvalidPin),
              KARVEX_SetPinState(h, 99, GPIOState_High));
    KARVEX_GPIOState state = GPIOState_High;
    EXPECT_NE(TSTATUS_SUCCESS, KARVEX_GetPinState(h, 99, &state));
    EXPECT_EQ(GPIOState_Low, state);
}

TEST_F(ApiTest, EepromWriteThenReadBack)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    unsigned char write[1 + 16];
    write[0] = 0x10; // memory address
    for (int i = 0; i < 16; ++i)
        write[1 + i] = static_cast<unsigned char>(0xA0 + i);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 400000, 0x50, write, sizeof write, nullptr, 0, 100));
    unsigned char addr = 0x10;
    unsigned char read[16] = {};
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 400000, 0x50, &addr, 1, read, sizeof read, 100));
    EXPECT_EQ(0, std::memcmp(write + 1, read, sizeof read));
    EXPECT_EQ(0xA5, a.eeprom->Memory()[0x15]);
}

TEST_F(ApiTest, FullSizeTransferAndLimits)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    std::vector<unsigned char> out(257), in(257, 0xEE);
    out[0] = 0;
    for (int i = 1; i < 257; ++i)
        out[i] = static_cast<unsigned char>(i);
    // 256 bytes each way are accepted: address byte + 255 data, then 256 back.
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 100000, 0x50, out.data(), 256, nullptr, 0, 200));
    unsigned char zero = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 100000, 0x50, &zero, 1, in.data(), 256, 200));
    EXPECT_EQ(1, in[0]);
    EXPECT_EQ(0xEE, in[256]); // nothing beyond the requested count is written
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, out.data(), 257, nullptr, 0, 200));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, nullptr, 0, in.data(), 257, 200));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 256, 100000, 0x50, nullptr, 0, nullptr, 0, 200));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, nullptr, 0, nullptr, 0, 0));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, nullptr, 0, nullptr, 0, 30001));
}

TEST_F(ApiTest, AbsentSlaveGivesAdapterStatusAndLeavesBufferUntouched)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    unsigned char buf[4] = {1, 2, 3, 4};
    EXPECT_EQ(static_cast<TSTATUS>(0xE0001100u + kemu::EmuAdapterFirmware::cStatusI2cNoAck),
              KARVEX_I2cTransaction(h, 1, 100000, 0x3C, nullptr, 0, buf, sizeof buf, 100));
    EXPECT_EQ(1, buf[0]);
    EXPECT_EQ(4, buf[3]);
}

TEST_F(ApiTest, SlowTransactionOnOneAdapterDoesNotHoldUpTheOther)
{
    auto& slow = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "SLOW");
    auto& fast = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "FAST");
    KARVEXDeviceHandle hs = Open(slow);
    KARVEXDeviceHandle hf = Open(fast);
    ASSERT_NE(0u, hs);
    ASSERT_NE(0u, hf);
    kemu::EmuAdapterFirmware::Faults faults;
    faults.delayMs = 1500;
    slow.firmware->SetFaults(faults);

    std::atomic<bool> slowDone{false};
    std::atomic<TSTATUS> slowStatus{TSTATUS_FAILED};
    std::thread t([&] {
        unsigned char addr = 0, data[8];
        slowStatus = KARVEX_I2cTransaction(hs, 0, 100000, 0x50, &addr, 1, data, sizeof data, 1000);
        slowDone = true;
    });
    // Give the slow command time to be sent, then drive the other adapter.
    while (slow.firmware->CommandCount() < 2)
        std::this_thread::yield();
    int fastCalls = 0;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(hf, 1, (i & 1) ? GPIOState_High : GPIOState_Low));
        ++fastCalls;
    }
    const auto elapsed = std::chrono::steady_clock::now() - start;
    // All twenty round trips on the fast adapter finished while the slow
    // transaction was still waiting for its answer.
    EXPECT_FALSE(slowDone.load()) << "fast calls took "
                                  << std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() << " ms";
    t.join();
    EXPECT_EQ(TSTATUS_SUCCESS, slowStatus.load());
    EXPECT_EQ(20, fastCalls);
}

TEST_F(ApiTest, CallsQueuedBehindASlowTransactionDoNotBlockTheApi)
{
    auto& slow = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "SLOW");
    auto& fast = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "FAST");
    KARVEXDeviceHandle hs = Open(slow);
    KARVEXDeviceHandle hf = Open(fast);
    ASSERT_NE(0u, hs);
    ASSERT_NE(0u, hf);
    kemu::EmuAdapterFirmware::Faults faults;
    faults.delayMs = 1500;
    slow.firmware->SetFaults(faults);

    std::atomic<int> slowDone{0};
    std::thread transfer([&] {
        unsigned char addr = 0, data[4];
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_I2cTransaction(hs, 0, 100000, 0x50, &addr, 1, data, sizeof data, 1000));
        ++slowDone;
    });
    while (slow.firmware->CommandCount() < 2)
        std::this_thread::yield();
    // A second call on the busy adapter waits for it...
    std::thread queued([&] {
        KARVEX_GPIOState s;
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinState(hs, 0, &s));
        ++slowDone;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    // ...without holding up the rest of the API or the other adapter.
    unsigned int count = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    EXPECT_EQ(2u, count);
    unsigned int vid = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceUsbInfo(hf, &vid, nullptr, nullptr));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinState(hf, 2, GPIOState_High));
    EXPECT_EQ(0, slowDone.load());
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
    while (a.firmware->CommandCount() < 2)
        std::this_thread::yield();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
    Closed(h);
    for (auto& t : callers)
        t.join();
    EXPECT_EQ(3, finished.load());
    // Nobody sat out the 5 s command time-out.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}
