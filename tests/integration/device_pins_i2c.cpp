// Pin operations and I2C transactions of the device object: what goes on the
// wire, how answers are checked, the argument checks and the host time-out.
#include <regex>
#include <sstream>

#include "support/device_fixture.h"

#include <atomic>
#include <cstring>

using namespace device_test;

namespace {

class DevicePinTest : public DeviceTest {};
class DeviceI2cTest : public DeviceTest {};

// Message bytes 8.. hold the payload (report offsets 9..).
std::vector<std::uint8_t> Payload(const std::vector<std::uint8_t>& message, size_t length)
{
    if (message.size() < 8 + length)
        return {};
    return std::vector<std::uint8_t>(message.begin() + 8, message.begin() + 8 + length);
}

bool AllZeroFrom(const std::vector<std::uint8_t>& message, size_t offset)
{
    for (size_t i = offset; i < message.size(); ++i) {
        if (message[i] != 0)
            return false;
    }
    return true;
}

TEST_F(DevicePinTest, PinCommandsOnTheWire)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);

    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(3, GPIOMode_Output_High));
    auto m = adapter.LastCommand();
    EXPECT_EQ(THID_CMD_SET_PIN_MODE, MsgCode(m));
    EXPECT_EQ(16u, MsgLength(m));
    EXPECT_EQ((std::vector<std::uint8_t>{3, 0, 0, 0, 3, 0, 0, 0}), Payload(m, 8));
    EXPECT_TRUE(AllZeroFrom(m, 16));
    EXPECT_EQ(3u, adapter.firmware->PinMode(3));
    EXPECT_TRUE(adapter.firmware->PinLevel(3));

    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinState(3, GPIOState_Low));
    m = adapter.LastCommand();
    EXPECT_EQ(THID_CMD_SET_PIN_STATE, MsgCode(m));
    EXPECT_EQ(16u, MsgLength(m));
    EXPECT_EQ((std::vector<std::uint8_t>{3, 0, 0, 0, 0, 0, 0, 0}), Payload(m, 8));
    EXPECT_FALSE(adapter.firmware->PinLevel(3));

    // The get commands carry the pin and a zero value byte.
    KARVEX_GPIOState state = GPIOState_High;
    ASSERT_EQ(TSTATUS_SUCCESS, device.GetPinState(3, state));
    EXPECT_EQ(GPIOState_Low, state);
    m = adapter.LastCommand();
    EXPECT_EQ(THID_CMD_GET_PIN_STATE, MsgCode(m));
    EXPECT_EQ(16u, MsgLength(m));
    EXPECT_EQ((std::vector<std::uint8_t>{3, 0, 0, 0, 0, 0, 0, 0}), Payload(m, 8));

    for (KARVEX_GPIOMode mode : {GPIOMode_Input, GPIOMode_InputEvent, GPIOMode_Output_Low, GPIOMode_Output_High}) {
        ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(11, mode));
        KARVEX_GPIOMode read = static_cast<KARVEX_GPIOMode>(-1);
        ASSERT_EQ(TSTATUS_SUCCESS, device.GetPinMode(11, read));
        EXPECT_EQ(mode, read);
        m = adapter.LastCommand();
        EXPECT_EQ(THID_CMD_GET_PIN_MODE, MsgCode(m));
        EXPECT_EQ((std::vector<std::uint8_t>{11, 0, 0, 0, 0, 0, 0, 0}), Payload(m, 8));
    }

    // An input pin reads what the outside drives.
    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(4, GPIOMode_Input));
    adapter.firmware->SetInputLevel(4, true);
    ASSERT_EQ(TSTATUS_SUCCESS, device.GetPinState(4, state));
    EXPECT_EQ(GPIOState_High, state);
    adapter.firmware->SetInputLevel(4, false);
    ASSERT_EQ(TSTATUS_SUCCESS, device.GetPinState(4, state));
    EXPECT_EQ(GPIOState_Low, state);
}

// Pin numbers are the adapter's business: they go out unchanged, little-endian,
// and the adapter's refusal comes back as 0xE0001100 + its status.
TEST_F(DevicePinTest, PinIdIsPassedThrough)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(static_cast<TSTATUS>(0xE0001100u + kemu::EmuAdapterFirmware::cStatusInvalidPin),
                  device.SetPinState(258, GPIOState_High));
    });
    auto m = adapter.LastCommand();
    ASSERT_GE(m.size(), 16u);
    EXPECT_EQ((std::vector<std::uint8_t>{0x02, 0x01, 0x00, 0x00}), std::vector<std::uint8_t>(m.begin() + 8, m.begin() + 12));
    EXPECT_EQ(kSigSetPinState + ": Failure response received, st = 0x10\n", trace);

    KARVEX_GPIOMode mode;
    (void)device.GetPinMode(0xFFFFFFFFu, mode);
    EXPECT_EQ(0xFFFFFFFFu, Le32(adapter.LastCommand(), 8));
}

TEST_F(DevicePinTest, EchoedPinIdMustMatch)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(7, GPIOMode_Output_High));
    Faults echo;
    echo.wrongPinIdEcho = true;

    adapter.firmware->SetOneShotFaults(THID_CMD_GET_PIN_STATE, echo);
    KARVEX_GPIOState state = GPIOState_High;
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR,
                                     [&] { EXPECT_EQ(TSTATUS_PIN_ID_MISMATCH, device.GetPinState(7, state)); });
    EXPECT_EQ(GPIOState_Low, state) << "pin 7 is high, but the answer was for another pin";
    EXPECT_EQ(kSigGetPinState + ": Pin ID mismatch, got 8, exp. 7\n", trace);

    // The echo is checked before the value: a bad value for the wrong pin
    // still reports the pin.
    echo.modeByteOverride = 9;
    adapter.firmware->SetOneShotFaults(THID_CMD_GET_PIN_MODE, echo);
    KARVEX_GPIOMode mode = GPIOMode_Output_Low;
    trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(TSTATUS_PIN_ID_MISMATCH, device.GetPinMode(7, mode)); });
    EXPECT_EQ(GPIOMode_Input, mode);
    EXPECT_EQ(kSigGetPinMode + ": Pin ID mismatch, got 8, exp. 7\n", trace);

    EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(7, state));
    EXPECT_EQ(GPIOState_High, state);
}

TEST_F(DevicePinTest, ReceivedValuesOutsideTheEnumerationsAreRefused)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    struct Case {
        int byte;
        TSTATUS status;
        int value; // on success
    };
    for (const Case& c : {Case{3, TSTATUS_SUCCESS, GPIOMode_Output_High}, Case{4, TSTATUS_UNSUPPORTED_PIN_MODE, 0},
                          Case{255, TSTATUS_UNSUPPORTED_PIN_MODE, 0}}) {
        Faults f;
        f.modeByteOverride = c.byte;
        adapter.firmware->SetOneShotFaults(THID_CMD_GET_PIN_MODE, f);
        KARVEX_GPIOMode mode = GPIOMode_Output_Low;
        std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(c.status, device.GetPinMode(2, mode)); });
        EXPECT_EQ(c.value, mode) << c.byte;
        EXPECT_EQ(c.status == TSTATUS_SUCCESS ? std::string()
                                              : kSigGetPinMode + ": received unsupported pin mode " +
                                                    std::to_string(c.byte) + "\n",
                  trace);
    }
    for (const Case& c : {Case{1, TSTATUS_SUCCESS, GPIOState_High}, Case{2, TSTATUS_UNSUPPORTED_PIN_STATE, 0},
                          Case{128, TSTATUS_UNSUPPORTED_PIN_STATE, 0}}) {
        Faults f;
        f.stateByteOverride = c.byte;
        adapter.firmware->SetOneShotFaults(THID_CMD_GET_PIN_STATE, f);
        KARVEX_GPIOState state = GPIOState_High;
        std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_EQ(c.status, device.GetPinState(2, state)); });
        EXPECT_EQ(c.value, state) << c.byte;
        EXPECT_EQ(c.status == TSTATUS_SUCCESS ? std::string()
                                              : kSigGetPinState + ": received unsupported pin state " +
                                                    std::to_string(c.byte) + "\n",
                  trace);
    }
}

// Each bad argument is reported on its own, in a fixed order, and nothing is
// sent. Every case below also breaks all the rules tested after its own.
TEST_F(DeviceI2cTest, ArgumentChecksInOrder)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    unsigned char w[300] = {};
    unsigned char r[300] = {};
    struct Case {
        unsigned bus, address;
        const unsigned char* writeData;
        unsigned bytesToWrite;
        unsigned char* readBuffer;
        unsigned bytesToRead;
        unsigned timeout;
        const char* line;
    } cases[] = {
        {256, 256, nullptr, 257, nullptr, 257, 0, "i2cBus too large\n"},
        {0xFFFFFFFF, 0, w, 1, r, 1, 100, "i2cBus too large\n"},
        {0, 256, nullptr, 257, nullptr, 257, 0, "i2cSlaveAddress too large\n"},
        {0, 0, nullptr, 257, nullptr, 257, 0, "timeoutInterval is 0\n"},
        {0, 0, nullptr, 257, nullptr, 257, 30001, "timeoutInterval too large\n"},
        {0, 0, nullptr, 257, nullptr, 257, 100, "writeData is NULL\n"},
        {0, 0, w, 257, nullptr, 257, 100, "bytesToWrite  257 exceeds max. 256\n"},
        {0, 0, w, 0xFFFFFFFF, r, 1, 100, "bytesToWrite  4294967295 exceeds max. 256\n"},
        {0, 0, w, 1, nullptr, 257, 100, "readBuffer is NULL\n"},
        {0, 0, w, 1, r, 257, 100, "bytesToRead  257 exceeds max. 256\n"},
    };
    const size_t sent = adapter.firmware->CommandCount();
    for (const Case& c : cases) {
        TSTATUS st = TSTATUS_SUCCESS;
        std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
            st = device.I2cTransaction(c.bus, 100, c.address, c.writeData, c.bytesToWrite, c.readBuffer,
                                       c.bytesToRead, c.timeout);
        });
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, st) << c.line;
        EXPECT_EQ(kSigI2c + ": " + c.line, trace);
    }
    EXPECT_EQ(sent, adapter.firmware->CommandCount());
}

TEST_F(DeviceI2cTest, LimitsAndOptionalBuffersAreAccepted)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    unsigned char w[256];
    for (unsigned i = 0; i < 256; ++i)
        w[i] = static_cast<unsigned char>(i == 0 ? 0 : 0x100 - i); // pointer 0, then data
    unsigned char r[256] = {};
    ASSERT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 400000, kEepromAddress, w, 256, r, 256, 30000));
    auto m = adapter.LastCommand();
    EXPECT_EQ(256u, m.at(20) | (m.at(21) << 8));
    EXPECT_EQ(256u, m.at(22) | (m.at(23) << 8));
    EXPECT_EQ(30000u, Le32(m, 16));
    EXPECT_EQ(0, std::memcmp(w, &m.at(24), 256));
    // 255 data bytes stored from 0; the read starts where the write stopped.
    const auto& memory = adapter.eeprom->Memory();
    for (unsigned i = 0; i < 255; ++i)
        ASSERT_EQ(w[i + 1], memory[i]) << i;
    for (unsigned i = 0; i < 256; ++i)
        ASSERT_EQ(memory[(255 + i) % 256], r[i]) << i;

    // Write-only with no read buffer, read-only with no write data.
    const unsigned char setPointer[] = {0x10};
    EXPECT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100, kEepromAddress, setPointer, 1, nullptr, 0, 1));
    unsigned char two[2] = {};
    EXPECT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100, kEepromAddress, nullptr, 0, two, 2, 1));
    EXPECT_EQ(memory[0x10], two[0]);
    EXPECT_EQ(memory[0x11], two[1]);
    m = adapter.LastCommand();
    EXPECT_EQ(0u, m.at(20) | (m.at(21) << 8));
    EXPECT_EQ(2u, m.at(22) | (m.at(23) << 8));
}

// The command always carries the full data field: 280 bytes whatever the
// counts, the write bytes first and zeros behind them even when the previous
// command left the buffer full.
TEST_F(DeviceI2cTest, CommandLayoutAndQuietFailure)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    unsigned char full[256];
    std::memset(full, 0xEE, sizeof(full));
    full[0] = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100, kEepromAddress, full, 256, nullptr, 0, 100));

    const unsigned char three[] = {0xAA, 0xBB, 0xCC};
    unsigned char r[8];
    std::memset(r, 0xCC, sizeof(r));
    TSTATUS st = TSTATUS_SUCCESS;
    // Nobody answers at 0x80 on bus 1: a bus failure, an ordinary outcome
    // that is not an error of the library.
    std::string quiet = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        st = device.I2cTransaction(1, 0x12345678, 0x80, three, 3, r, 2, 300);
    });
    EXPECT_EQ(static_cast<TSTATUS>(0xE0001100u + kemu::EmuAdapterFirmware::cStatusI2cNoAck), st);
    EXPECT_EQ("", quiet);
    for (unsigned char b : r)
        EXPECT_EQ(0xCC, b) << "a failed transfer leaves the read buffer alone";

    auto m = adapter.LastCommand();
    ASSERT_GE(m.size(), 280u);
    EXPECT_EQ(THID_CMD_I2C_TRANSACTION, MsgCode(m));
    EXPECT_EQ(280u, MsgLength(m));
    EXPECT_EQ(0u, m[4]);
    EXPECT_EQ(1u, m[8]);
    EXPECT_EQ(0x80u, m[9]);
    EXPECT_EQ(0u, m[10] | m[11]);
    EXPECT_EQ(0x12345678u, Le32(m, 12));
    EXPECT_EQ(300u, Le32(m, 16));
    EXPECT_EQ(3u, m[20] | (m[21] << 8));
    EXPECT_EQ(2u, m[22] | (m[23] << 8));
    EXPECT_EQ(0xAA, m[24]);
    EXPECT_EQ(0xBB, m[25]);
    EXPECT_EQ(0xCC, m[26]);
    EXPECT_TRUE(AllZeroFrom(m, 27)) << "253 zero bytes after the data, and nothing behind the message";

    std::string info = CaptureTrace(KARVEX_TRACE_INFO, [&] {
        st = device.I2cTransaction(1, 100, 0x80, three, 3, r, 2, 300);
    });
    EXPECT_EQ(1u, CountOf(info, kSigI2c + ": Failure response received, st = 0x20\n")) << info;
}

TEST_F(DeviceI2cTest, EepromWriteThenReadBack)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    unsigned char w[17] = {0x40};
    for (unsigned i = 1; i < sizeof(w); ++i)
        w[i] = static_cast<unsigned char>(0x11 * i);
    ASSERT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100000, kEepromAddress, w, sizeof(w), nullptr, 0, 50));
    for (unsigned i = 1; i < sizeof(w); ++i)
        EXPECT_EQ(w[i], adapter.eeprom->Memory()[0x40 + i - 1]);

    unsigned char r[20];
    std::memset(r, 0x5A, sizeof(r));
    const unsigned char address = 0x40;
    ASSERT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100000, kEepromAddress, &address, 1, r, 16, 50));
    EXPECT_EQ(0, std::memcmp(w + 1, r, 16));
    for (unsigned i = 16; i < sizeof(r); ++i)
        EXPECT_EQ(0x5A, r[i]) << "only bytesToRead bytes are copied";
}

// The host waits twice the adapter's time-out, at least one second: 300 ms
// gives 1000 ms, 800 ms gives 1600 ms. Two adapters run side by side.
TEST_F(DeviceI2cTest, HostTimeoutFollowsTheAdapterTimeout)
{
    Adapter& a = AddAdapter(kemu::AdapterConfig(0x7A01, "KVX000001"));
    Adapter& b = AddAdapter(kemu::AdapterConfig(0x7A02, "KVX000002"));
    KarvexDevice& da = OpenedDevice(a);
    KarvexDevice& db = OpenedDevice(b);
    Faults silent;
    silent.noAnswer = true;
    a.firmware->SetFaults(silent);
    b.firmware->SetFaults(silent);

    const unsigned char address = 0;
    std::atomic<TSTATUS> resultA{TSTATUS_SUCCESS}, resultB{TSTATUS_SUCCESS};
    std::atomic<long long> msA{0}, msB{0};
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        std::thread ta([&] {
            const auto start = std::chrono::steady_clock::now();
            resultA = da.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 300);
            msA = ElapsedMs(start);
        });
        std::thread tb([&] {
            const auto start = std::chrono::steady_clock::now();
            resultB = db.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 800);
            msB = ElapsedMs(start);
        });
        ta.join();
        tb.join();
    });
    EXPECT_EQ(TSTATUS_TIMEOUT, resultA.load());
    EXPECT_EQ(TSTATUS_TIMEOUT, resultB.load());
    // It waited at least its budget; the upper limits only catch a hang.
    EXPECT_GE(msA.load(), 990);
    EXPECT_LT(msA.load(), 10 * 1000);
    EXPECT_GE(msB.load(), 1590);
    EXPECT_LT(msB.load(), 10 * 1600);
    EXPECT_EQ(300u, Le32(a.LastCommand(), 16));
    EXPECT_EQ(800u, Le32(b.LastCommand(), 16));
    EXPECT_EQ(2u, CountOf(trace, kSigI2c + ": ExecuteCommand failed, err = 0xE0000003\n")) << trace;
    // Each wait ends in the wait itself (tracing what was left of the budget,
    // which depends on the machine's speed) or at the deadline check (tracing
    // the budget asked for).
    const std::regex ended(R"(timeout expires after (1000|1600) ms|WaitWithTimeout\((\d+) ms\) timed out)");
    size_t endings = 0;
    std::istringstream lines(trace);
    std::smatch m;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(kSigExecute + ": ", 0) != 0)
            continue;
        const std::string rest = line.substr(kSigExecute.size() + 2);
        if (!std::regex_match(rest, m, ended))
            continue;
        ++endings;
        if (m[2].matched) {
            EXPECT_LE(std::stoul(m[2]), 1600u) << trace;
        }
    }
    EXPECT_EQ(2u, endings) << trace;
}

} // namespace
