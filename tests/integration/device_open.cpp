// Opening and closing the device object against emulated adapters: the
// protocol version exchange, report length checks, repeated open and close,
// the queries, and an adapter that is unplugged while open.
#include "support/device_fixture.h"

using namespace device_test;

namespace {

class DeviceOpenTest : public DeviceTest {};

// The USB facts and the serial come from the hidraw layer (tested there);
// the device adds null outputs that are skipped and its own trace lines.
TEST_F(DeviceOpenTest, OpenAsksForTheProtocolVersionOnceAndAnswersQueries)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = NewDevice();
    EXPECT_FALSE(device.IsOpen());
    ASSERT_EQ(TSTATUS_SUCCESS, OpenDevice(device, adapter));
    EXPECT_TRUE(device.IsOpen());
    EXPECT_EQ(TSTATUS_SUCCESS, device.CheckDeviceConnection());

    const auto commands = adapter.Commands();
    ASSERT_EQ(1u, commands.size());
    EXPECT_EQ(THID_CMD_GET_PROTOCOL_VERSION, MsgCode(commands[0]));
    EXPECT_EQ(8u, MsgLength(commands[0]));
    EXPECT_EQ(1u, MsgId(commands[0]));
    EXPECT_EQ(0u, commands[0][4]) << "status byte of a command";

    unsigned vid = 0, rev = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, device.GetDeviceUsbInfo(&vid, nullptr, &rev));
    EXPECT_EQ(0x1209u, vid);
    EXPECT_EQ(0x0100u, rev);

    const std::string sig = "TSTATUS KarvexDevice::GetDeviceSerialNumber(T_UNICHAR*, unsigned int): ";
    char serial[16];
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_SUCCESS, device.GetDeviceSerialNumber(serial, sizeof(serial)));
        EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, device.GetDeviceSerialNumber(serial, 9));
    });
    EXPECT_STREQ("KVX000001", serial);
    EXPECT_EQ(1u, CountOf(trace, sig + "GetSerialNumberString failed, err = 0xE0000074\n")) << trace;

    // An adapter without a serial: information, not an error.
    kemu::EmuHidDeviceConfig config = kemu::AdapterConfig(0x7A02, "");
    config.serial.reset();
    KarvexDevice& bare = OpenedDevice(AddAdapter(config));
    trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING | KARVEX_TRACE_INFO, [&] {
        EXPECT_EQ(TSTATUS_NOT_SUPPORTED, bare.GetDeviceSerialNumber(serial, sizeof(serial)));
    });
    EXPECT_EQ(sig + "Serial number string not supported by the device\n", trace);
    EXPECT_EQ("", CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING,
                               [&] { bare.GetDeviceSerialNumber(serial, sizeof(serial)); }));
}

// Any 1.xx adapter is accepted; the minor number is not compared. The version
// answer goes through the checks of every answer (status, code, length). A
// refused adapter is closed again, and the same object can open another one.
TEST_F(DeviceOpenTest, VersionAnswerDecidesTheOpen)
{
    KarvexDevice device;
    {
        Adapter& adapter = AddAdapter();
        adapter.firmware->SetProtocolVersion(1, 37);
        EXPECT_EQ(TSTATUS_SUCCESS, OpenDevice(device, adapter));
        device.Close();
    }
    auto incompatible = [](const char* version) {
        return kSigOpen + ": Protocol version " + version + " is incompatible with expected version 1.00\n";
    };
    const std::string failed = kSigOpen + ": GetProtocolVersion failed, err = ";
    const struct Case {
        std::uint8_t major, minor;
        Faults faults;
        TSTATUS status;
        std::string trace;
    } cases[] = {
        {2, 0, Faults(), TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION, incompatible("2.00")},
        {0, 99, Faults(), TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION, incompatible("0.99")},
        {255, 5, Faults(), TSTATUS_INCOMPATIBLE_PROTOCOL_VERSION, incompatible("255.05")},
        {1, 0, HeaderFaults(0x05, 0x80, 8), static_cast<TSTATUS>(0xE0001105u),
         kSigGetProtocolVersion + ": Failure response received, st = 0x05\n" + failed + "0xE0001105\n"},
        {1, 0, HeaderFaults(0, 0x80, 8), TSTATUS_UNEXPECTED_DEVICE_RESPONSE,
         kSigGetProtocolVersion + ": unexpected response code 0x80, exp. 0x81\n" + failed + "0xE0000064\n"},
        {1, 0, HeaderFaults(0, -1, 16), TSTATUS_LENGTH_MISMATCH,
         kSigGetProtocolVersion + ": unexpected length 16, exp. 10\n" + failed + "0xE0000061\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.trace);
        Adapter& adapter = AddAdapter();
        adapter.firmware->SetProtocolVersion(c.major, c.minor);
        adapter.firmware->SetOneShotFaults(THID_CMD_GET_PROTOCOL_VERSION, c.faults);
        TSTATUS st = TSTATUS_SUCCESS;
        std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = OpenDevice(device, adapter); });
        EXPECT_EQ(c.status, st) << ktest::StatusName(st);
        EXPECT_EQ(c.trace, trace);
        EXPECT_FALSE(device.IsOpen());
        // Refused means closed: nothing can be sent any more.
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.SetPinState(1, GPIOState_High));
        EXPECT_EQ(1u, adapter.firmware->CommandCount());
    }
    Adapter& adapter = AddAdapter();
    EXPECT_EQ(TSTATUS_SUCCESS, OpenDevice(device, adapter));
}

// A second open, or one with an index outside the enumeration, is refused and
// leaves the device as it was.
TEST_F(DeviceOpenTest, RefusedOpensChangeNothing)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    TSTATUS st = TSTATUS_SUCCESS;
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = OpenDevice(device, adapter); });
    EXPECT_EQ(TSTATUS_ALREADY_OPEN, st);
    EXPECT_EQ(kSigOpen + ": already open\n", trace);
    EXPECT_TRUE(device.IsOpen());
    EXPECT_EQ(1u, adapter.firmware->CommandCount()) << "the second open sent nothing";
    EXPECT_EQ(TSTATUS_SUCCESS, device.SetPinState(1, GPIOState_High));

    KarvexDevice other;
    trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = other.Open(mEnumerator, mEnumerator.DeviceCount()); });
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, st);
    EXPECT_EQ(1u, CountOf(trace, kSigOpen + ": OpenHidRawDevice failed, err = 0xE0000041\n")) << trace;
    EXPECT_FALSE(other.IsOpen());
}

TEST_F(DeviceOpenTest, EveryOperationOnAClosedDeviceSaysNotOpened)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice device;
    ASSERT_EQ(TSTATUS_SUCCESS, OpenDevice(device, adapter));
    device.Close();
    device.Close(); // harmless
    EXPECT_FALSE(device.IsOpen());
    const size_t sent = adapter.firmware->CommandCount();

    KARVEX_GPIOState state = GPIOState_High;
    KARVEX_GPIOMode mode = GPIOMode_Output_High;
    unsigned vid = 7;
    char serial[32];
    unsigned char data[4] = {1, 2, 3, 4};
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.SetPinMode(1, GPIOMode_Input));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.SetPinState(1, GPIOState_High));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.GetPinState(1, state));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.GetPinMode(1, mode));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.I2cTransaction(0, 100, kEepromAddress, data, 1, data, 1, 100));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.RegisterPinEventCallback(nullptr, nullptr));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.CheckDeviceConnection());
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.GetDeviceUsbInfo(&vid, nullptr, nullptr));
        EXPECT_EQ(TSTATUS_NOT_OPENED, device.GetDeviceSerialNumber(serial, sizeof(serial)));
    });
    EXPECT_EQ(9u, CountOf(trace, ": not opened\n")) << trace;
    EXPECT_EQ(9u, CountOf(trace, "\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigSetPinMode + ": not opened\n"));
    EXPECT_EQ(1u, CountOf(trace, kSigI2c + ": not opened\n"));
    EXPECT_EQ(7u, vid) << "outputs of a refused query stay untouched";
    EXPECT_EQ(sent, adapter.firmware->CommandCount());

    // Closing a device that was never opened is harmless as well.
    KarvexDevice never;
    std::string quiet = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        never.Close();
        never.Close();
    });
    EXPECT_EQ("", quiet);
}

// Close leaves the response queue's event set to release a waiting command;
// the reopened object must not find it still set and spin through its waits.
TEST_F(DeviceOpenTest, ReopenedDeviceWaitsQuietly)
{
    Adapter& first = AddAdapter();
    KarvexDevice& device = OpenedDevice(first);
    device.Close();
    Adapter& second = AddAdapter();
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        ASSERT_EQ(TSTATUS_SUCCESS, OpenDevice(device, second));
        // An answer that takes a while: the command waits for it.
        second.firmware->SetOneShotFaults(THID_CMD_GET_PIN_MODE, Delayed(150));
        const double cpuBefore = ProcessCpuMs();
        KARVEX_GPIOMode mode;
        EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinMode(2, mode));
        EXPECT_LT(ProcessCpuMs() - cpuBefore, 100.0) << "the wait spun";
    });
    EXPECT_EQ("", trace.substr(0, 400));

    // Unique IDs go on where the first open left them.
    ASSERT_EQ(1u, first.Commands().size());
    EXPECT_EQ(1u, MsgId(first.Commands()[0]));
    const auto commands = second.Commands();
    ASSERT_EQ(2u, commands.size());
    EXPECT_EQ(2u, MsgId(commands[0]));
    EXPECT_EQ(3u, MsgId(commands[1]));
}

// The version request of an adapter that numbers its reports: the answer is
// read with the report ID in byte 0 and the message behind it.
TEST_F(DeviceOpenTest, NumberedReportsAreReadBehindTheirId)
{
    Adapter& adapter = AddAdapter(kemu::NumberedAdapterConfig());
    KarvexDevice& device = OpenedDevice(adapter);
    KARVEX_GPIOState state = GPIOState_Low;
    adapter.firmware->SetInputLevel(3, true);
    EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(3, state));
    EXPECT_EQ(GPIOState_High, state);
}

// An unplugged adapter: the reader thread sees the device error on every poll
// and must pause between them rather than spin; commands fail with a status;
// Close still works.
TEST_F(DeviceOpenTest, UnplugWhileOpen)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(2, GPIOMode_Output_High));

    const std::string pollError = kSigReader + ": fds[1] (device) POLLERR event\n";
    size_t inWindow = 0;
    double cpu = 0;
    long long wall = 0;
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        adapter.hid->Unplug();
        ASSERT_TRUE(WaitUntil([&] { return CountOf(ktest::CapturedSoFar(), pollError) >= 1; }))
            << "timed out waiting for the reader to see the unplug";
        // A window to measure the reader's pace in: it pauses 50 ms per error.
        const size_t before = CountOf(ktest::CapturedSoFar(), pollError);
        const auto start = std::chrono::steady_clock::now();
        const double cpuStart = ProcessCpuMs();
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        cpu = ProcessCpuMs() - cpuStart;
        wall = ElapsedMs(start);
        inWindow = CountOf(ktest::CapturedSoFar(), pollError) - before;
    });
    EXPECT_LE(inWindow, static_cast<size_t>(wall / 50 + 2)) << trace.substr(0, 400);
    EXPECT_EQ(CountOf(trace, pollError), CountOf(trace, "\n")) << trace.substr(0, 600);
    EXPECT_LT(cpu, 150.0) << "reader thread spinning on an unplugged device";

    EXPECT_EQ(TSTATUS_DEVICE_REMOVED, device.CheckDeviceConnection());
    TSTATUS st = TSTATUS_SUCCESS;
    trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = device.SetPinState(2, GPIOState_Low); });
    EXPECT_NE(TSTATUS_SUCCESS, st);
    EXPECT_EQ(static_cast<unsigned>(st) & 0xFFFF0000u, 0xE0010000u) << "an errno-derived status: " << std::hex << st;
    char line[128];
    snprintf(line, sizeof(line), ": WriteReport failed, err = 0x%08X\n", static_cast<unsigned>(st));
    EXPECT_EQ(1u, CountOf(trace, kSigExecute + line)) << trace.substr(0, 600);

    const auto start = std::chrono::steady_clock::now();
    device.Close();
    EXPECT_LT(ElapsedMs(start), 4000) << "close waited for a command time-out";
    EXPECT_FALSE(device.IsOpen());
}

} // namespace
