// Pin operations and I2C transactions of the device object: what goes on the
// wire, how answers are checked, the argument checks and the host time-out.
#include <regex>
#include <sstream>

#include "support/device_fixture.h"

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

// Every pin command is 16 bytes: the pin, little-endian, then the value byte
// (0 in the get commands), zeros behind. An input pin's level is read in the
// wait path tests.
TEST_F(DevicePinTest, PinCommandsOnTheWire)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    KARVEX_GPIOState state = GPIOState_High;
    KARVEX_GPIOMode mode = GPIOMode_Input;
    const struct Case {
        std::function<TSTATUS()> run;
        unsigned code;
        std::vector<std::uint8_t> payload;
    } cases[] = {
        {[&] { return device.SetPinMode(3, GPIOMode_Output_High); }, THID_CMD_SET_PIN_MODE,
         {3, 0, 0, 0, 3, 0, 0, 0}},
        {[&] { return device.SetPinState(3, GPIOState_Low); }, THID_CMD_SET_PIN_STATE, {3, 0, 0, 0, 0, 0, 0, 0}},
        {[&] { return device.GetPinState(3, state); }, THID_CMD_GET_PIN_STATE, {3, 0, 0, 0, 0, 0, 0, 0}},
        {[&] { return device.GetPinMode(11, mode); }, THID_CMD_GET_PIN_MODE, {11, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(TSTATUS_SUCCESS, c.run());
        const auto m = adapter.LastCommand();
        EXPECT_EQ(c.code, MsgCode(m));
        EXPECT_EQ(16u, MsgLength(m));
        EXPECT_EQ(c.payload, Payload(m, 8));
        EXPECT_TRUE(AllZeroFrom(m, 16)) << std::hex << c.code;
    }
    EXPECT_EQ(3u, adapter.firmware->PinMode(3));
    EXPECT_FALSE(adapter.firmware->PinLevel(3));
    EXPECT_EQ(GPIOState_Low, state);

    for (KARVEX_GPIOMode set : {GPIOMode_Input, GPIOMode_InputEvent, GPIOMode_Output_Low, GPIOMode_Output_High}) {
        ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(11, set));
        mode = static_cast<KARVEX_GPIOMode>(-1);
        ASSERT_EQ(TSTATUS_SUCCESS, device.GetPinMode(11, mode));
        EXPECT_EQ(set, mode);
    }
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
    const struct Case {
        bool mode; // GetPinMode, else GetPinState
        int byte;
        TSTATUS status;
        int value; // the output afterwards
    } cases[] = {
        {true, 3, TSTATUS_SUCCESS, GPIOMode_Output_High}, {true, 4, TSTATUS_UNSUPPORTED_PIN_MODE, 0},
        {true, 255, TSTATUS_UNSUPPORTED_PIN_MODE, 0},     {false, 1, TSTATUS_SUCCESS, GPIOState_High},
        {false, 2, TSTATUS_UNSUPPORTED_PIN_STATE, 0},     {false, 128, TSTATUS_UNSUPPORTED_PIN_STATE, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.byte);
        Faults f;
        (c.mode ? f.modeByteOverride : f.stateByteOverride) = c.byte;
        adapter.firmware->SetOneShotFaults(c.mode ? THID_CMD_GET_PIN_MODE : THID_CMD_GET_PIN_STATE, f);
        KARVEX_GPIOMode mode = GPIOMode_Output_Low;
        KARVEX_GPIOState state = GPIOState_High;
        TSTATUS st = TSTATUS_SUCCESS;
        std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
            st = c.mode ? device.GetPinMode(2, mode) : device.GetPinState(2, state);
        });
        EXPECT_EQ(c.status, st) << ktest::StatusName(st);
        EXPECT_EQ(c.value, c.mode ? static_cast<int>(mode) : static_cast<int>(state));
        const std::string line = c.mode ? kSigGetPinMode + ": received unsupported pin mode "
                                        : kSigGetPinState + ": received unsupported pin state ";
        EXPECT_EQ(c.status == TSTATUS_SUCCESS ? "" : line + std::to_string(c.byte) + "\n", trace);
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
    unsigned char two[4] = {0, 0, 0x5A, 0x5A};
    EXPECT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100, kEepromAddress, nullptr, 0, two, 2, 1));
    EXPECT_EQ((std::vector<unsigned char>{memory[0x10], memory[0x11], 0x5A, 0x5A}),
              std::vector<unsigned char>(two, two + 4))
        << "only bytesToRead bytes are copied";
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
    // Bus, address, 16 reserved bits, speed, time-out, both counts, the data.
    EXPECT_EQ((std::vector<std::uint8_t>{1, 0x80, 0, 0, 0x78, 0x56, 0x34, 0x12, 0x2C, 0x01, 0, 0, 3, 0, 2, 0, 0xAA,
                                         0xBB, 0xCC}),
              Payload(m, 19));
    EXPECT_TRUE(AllZeroFrom(m, 27)) << "253 zero bytes after the data, and nothing behind the message";

    std::string info = CaptureTrace(KARVEX_TRACE_INFO, [&] {
        st = device.I2cTransaction(1, 100, 0x80, three, 3, r, 2, 300);
    });
    EXPECT_EQ(1u, CountOf(info, kSigI2c + ": Failure response received, st = 0x20\n")) << info;
}

// The host waits twice the adapter's time-out, at least one second: 300 ms
// gives 1000 ms, 800 ms gives 1600 ms. Two adapters run side by side.
TEST_F(DeviceI2cTest, HostTimeoutFollowsTheAdapterTimeout)
{
    Adapter& a = AddAdapter(kemu::AdapterConfig(0x7A01, "KVX000001"));
    Adapter& b = AddAdapter(kemu::AdapterConfig(0x7A02, "KVX000002"));
    KarvexDevice& da = OpenedDevice(a);
    KarvexDevice& db = OpenedDevice(b);
    a.firmware->SetFaults(Silent());
    b.firmware->SetFaults(Silent());

    struct Run {
        KarvexDevice& device;
        unsigned timeout;
        TSTATUS result;
        long long ms;
    } runs[] = {{da, 300, TSTATUS_SUCCESS, 0}, {db, 800, TSTATUS_SUCCESS, 0}};
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        std::vector<std::thread> threads;
        for (Run& run : runs) {
            threads.emplace_back([&run] {
                const unsigned char address = 0;
                const auto start = std::chrono::steady_clock::now();
                run.result =
                    run.device.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, run.timeout);
                run.ms = ElapsedMs(start);
            });
        }
        for (std::thread& t : threads)
            t.join();
    });
    EXPECT_EQ(TSTATUS_TIMEOUT, runs[0].result);
    EXPECT_EQ(TSTATUS_TIMEOUT, runs[1].result);
    // It waited at least its budget; the upper limits only catch a hang.
    EXPECT_GE(runs[0].ms, 990);
    EXPECT_LT(runs[0].ms, 10 * 1000);
    EXPECT_GE(runs[1].ms, 1590);
    EXPECT_LT(runs[1].ms, 10 * 1600);
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
