// The header's promises about output arguments, one sentence each.
#include "support/api_fixture.h"

#include <cstring>

using namespace karvex_test;

// KARVEX_GetDeviceInstanceId: below 2 bytes the buffer is not touched; with
// a larger buffer every failure leaves the empty string.
TEST_F(ApiTest, InstanceIdBufferOnFailure)
{
    auto& a = AddAdapter();
    unsigned int count = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    ASSERT_EQ(1u, count);
    char one[1] = {'X'};
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, KARVEX_GetDeviceInstanceId(0, one, 1));
    EXPECT_EQ('X', one[0]);
    const std::size_t needed = a.device->DevNode().size() + 1;
    std::vector<char> shortBuffer(needed - 1, 'X');
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL,
              KARVEX_GetDeviceInstanceId(0, shortBuffer.data(), static_cast<unsigned int>(shortBuffer.size())));
    EXPECT_STREQ("", shortBuffer.data());
    char buffer[64];
    std::memset(buffer, 'X', sizeof buffer);
    EXPECT_EQ(TSTATUS_INVALID_INDEX, KARVEX_GetDeviceInstanceId(1, buffer, sizeof buffer));
    EXPECT_STREQ("", buffer);
}

// KARVEX_OpenDevice: *deviceHandle is 0 after every failure with a non-null
// id (unknown id, adapter in use), untouched with a null id.
TEST_F(ApiTest, OpenHandleOnFailure)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = 0xDEADu;
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_OpenDevice(nullptr, &h));
    EXPECT_EQ(0xDEADu, h);
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice("/dev/hidraw99", &h));
    EXPECT_EQ(0u, h);
    const KARVEXDeviceHandle first = Open(a);
    ASSERT_NE(0u, first);
    h = 0xDEADu;
    EXPECT_EQ(TSTATUS_IN_USE, KARVEX_OpenDevice(a.device->DevNode().c_str(), &h));
    EXPECT_EQ(0u, h);
}

// KARVEX_GetPinState / KARVEX_GetPinMode: an invalid handle leaves the output
// untouched; once the handle is found, every failure leaves Low / Input.
TEST_F(ApiTest, PinReadOutputOnFailure)
{
    auto& a = AddAdapter();
    const KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 6, GPIOMode_Output_High));
    auto state = static_cast<KARVEX_GPIOState>(7);
    auto mode = static_cast<KARVEX_GPIOMode>(7);
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_GetPinState(h + 1, 6, &state));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_GetPinMode(0, 6, &mode));
    EXPECT_EQ(7, static_cast<int>(state));
    EXPECT_EQ(7, static_cast<int>(mode));
    // The adapter answers with a wrong pin id: the exchange fails.
    kemu::EmuAdapterFirmware::Faults faults;
    faults.wrongPinIdEcho = true;
    a.firmware->SetFaults(faults);
    state = GPIOState_High;
    mode = GPIOMode_Output_High;
    EXPECT_EQ(TSTATUS_PIN_ID_MISMATCH, KARVEX_GetPinState(h, 6, &state));
    EXPECT_EQ(TSTATUS_PIN_ID_MISMATCH, KARVEX_GetPinMode(h, 6, &mode));
    EXPECT_EQ(GPIOState_Low, state);
    EXPECT_EQ(GPIOMode_Input, mode);
}

// KARVEX_I2cTransaction: readBuffer is untouched on failure.
TEST_F(ApiTest, I2cReadBufferOnFailure)
{
    auto& a = AddAdapter();
    const KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    unsigned char buffer[4] = {0xA5, 0xA5, 0xA5, 0xA5};
    // No slave answers at 0x52.
    EXPECT_NE(TSTATUS_SUCCESS, KARVEX_I2cTransaction(h, 0, 100000, 0x52, nullptr, 0, buffer, 4, 100));
    for (unsigned char b : buffer)
        EXPECT_EQ(0xA5, b);
}
