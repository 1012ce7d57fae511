// Command execution of the device object: unique IDs, stale and foreign
// answers, the time budget, abort by Close, the order of the response checks
// and the reports the reader thread must drop.
#include "support/device_fixture.h"

#include <atomic>
#include <cstring>

using namespace device_test;

namespace {

class DeviceCommandTest : public DeviceTest {};

// IDs run 1..255 and wrap to 1; a set operation refused for its argument
// still uses one up, a refused I2C argument does not (nothing is built).
TEST_F(DeviceCommandTest, UniqueIdsWrapAndSkipAfterARefusedArgument)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter); // ID 1
    for (unsigned id = 2; id <= 253; ++id)
        ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinState(1, (id & 1) ? GPIOState_High : GPIOState_Low)) << id;

    const size_t sentBefore = adapter.firmware->CommandCount();
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, device.SetPinMode(5, static_cast<KARVEX_GPIOMode>(4))); // uses 254
    });
    EXPECT_EQ(kSigSetPinMode + ": unsupported pin mode 4\n", trace);
    EXPECT_EQ(sentBefore, adapter.firmware->CommandCount()) << "nothing may be sent";

    KARVEX_GPIOMode mode;
    EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinMode(1, mode)); // 255
    trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, device.SetPinState(5, static_cast<KARVEX_GPIOState>(2))); // uses 1
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, device.SetPinMode(5, static_cast<KARVEX_GPIOMode>(-1)));  // uses 2
    });
    EXPECT_EQ(kSigSetPinState + ": unsupported pin state 2\n" + kSigSetPinMode + ": unsupported pin mode -1\n", trace);
    KARVEX_GPIOState state;
    EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(1, state)); // 3
    unsigned char byte = 0;
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, device.I2cTransaction(256, 100, kEepromAddress, &byte, 1, nullptr, 0, 100));
    EXPECT_EQ(TSTATUS_SUCCESS, device.SetPinMode(1, GPIOMode_Input)); // 4

    const auto commands = adapter.Commands();
    std::vector<unsigned> ids;
    for (const auto& c : commands)
        ids.push_back(MsgId(c));
    std::vector<unsigned> expected;
    for (unsigned id = 1; id <= 253; ++id)
        expected.push_back(id);
    expected.insert(expected.end(), {255, 3, 4});
    EXPECT_EQ(expected, ids);
}

TEST_F(DeviceCommandTest, StaleAnswerBeforeTheRightOneIsSkipped)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    adapter.firmware->SetInputLevel(6, true);

    Faults stale;
    stale.staleIdFirst = true;
    adapter.firmware->SetOneShotFaults(THID_CMD_GET_PIN_STATE, stale);
    KARVEX_GPIOState state = GPIOState_Low;
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING | KARVEX_TRACE_INFO,
                                     [&] { EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(6, state)); });
    EXPECT_EQ(GPIOState_High, state);
    const unsigned id = MsgId(adapter.LastCommand());
    EXPECT_EQ(1u, CountOf(trace, ": unique ID mismatch")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigExecute + ": unique ID mismatch, got " + std::to_string(id - 1) +
                                     ", exp. " + std::to_string(id) + "\n"))
        << trace;

    // The mismatch is information, not an error or a warning.
    adapter.firmware->SetOneShotFaults(THID_CMD_GET_PIN_STATE, stale);
    trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING,
                         [&] { EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(6, state)); });
    EXPECT_EQ("", trace);
}

// The budget runs from before the write: a late answer of an earlier command
// that arrives during the wait does not buy the command more time.
TEST_F(DeviceCommandTest, ForeignAnswersSpendTheSameBudget)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    unsigned char address = 0;

    adapter.firmware->SetOneShotFaults(THID_CMD_I2C_TRANSACTION, Delayed(1700));
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(TSTATUS_TIMEOUT, device.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 300));
    EXPECT_GE(ElapsedMs(start), 990);
    const unsigned lateId = MsgId(adapter.LastCommand());

    adapter.firmware->SetOneShotFaults(THID_CMD_I2C_TRANSACTION, Silent());
    long long waited = 0;
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_INFO, [&] {
        start = std::chrono::steady_clock::now();
        EXPECT_EQ(TSTATUS_TIMEOUT, device.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 300));
        waited = ElapsedMs(start);
    });
    const unsigned id = MsgId(adapter.LastCommand());
    // The late answer arrived about 700 ms into this wait...
    EXPECT_EQ(1u, CountOf(trace, kSigExecute + ": unique ID mismatch, got " + std::to_string(lateId) + ", exp. " +
                                     std::to_string(id) + "\n"))
        << trace;
    // ...and the wait still ended at the 1000 ms budget, not 1000 ms after it.
    EXPECT_GE(waited, 990);
    // A restarted budget would have its last wait start from the full 1000 ms
    // after the mismatch; the wait that times out starts from what is left.
    EXPECT_EQ(0u, CountOf(trace, kSigExecute + ": WaitWithTimeout(1000 ms) timed out\n")) << trace;
    EXPECT_LT(waited, 10000) << "a liveness limit only";
    EXPECT_EQ(1u, CountOf(trace, kSigI2c + ": ExecuteCommand failed, err = 0xE0000003\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigExecute + ": WaitWithTimeout(") + CountOf(trace, kSigExecute + ": timeout expires after 1000 ms\n"))
        << trace;

    // Nothing is left behind: the next command is answered.
    EXPECT_EQ(TSTATUS_SUCCESS, device.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 10000));
}

// Answers nobody waits for fill the two-slot response queue; the one that
// finds it full is lost without a trace, and the next command skips the two
// it finds. (Its own answer comes a little later: arriving while the queue is
// still full, it would be the one lost.)
TEST_F(DeviceCommandTest, UnsolicitedAnswersBeyondTheQueueAreLost)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING | KARVEX_TRACE_INFO, [&] {
        for (std::uint8_t id : {200, 201, 202})
            adapter.hid->InjectInputReport(RawMessage(THID_RSP_ACK, 8, id));
        // The reader reads the next report only once it has filed the one
        // before: a pin event behind the three answers, read, means 202 met
        // the full queue.
        adapter.hid->InjectInputReport(RawMessage(THID_EVT_PIN_STATE_CHANGED, 16, 0, PinStatePayload(1, 1)));
        ASSERT_TRUE(WaitUntil([&] { return adapter.hid->PendingInputReports() == 0; }))
            << "timed out waiting for the reader to take all four reports";
        // Paces the emulated adapter: the command must have emptied the queue
        // before its answer arrives, or the answer would be the one lost.
        adapter.firmware->SetOneShotFaults(THID_CMD_SET_PIN_STATE, Delayed(1000));
        EXPECT_EQ(TSTATUS_SUCCESS, device.SetPinState(3, GPIOState_High));
    });
    EXPECT_EQ(1u, CountOf(trace, "unique ID mismatch, got 200,")) << trace;
    EXPECT_EQ(1u, CountOf(trace, "unique ID mismatch, got 201,")) << trace;
    EXPECT_EQ(0u, CountOf(trace, "unique ID mismatch, got 202,")) << trace;
    EXPECT_EQ(0u, CountOf(trace, "ASSERTION")) << trace;
    EXPECT_EQ(4u, CountOf(trace, kSigProcess + ": Response received\n")) << trace;
}

// Reports too short for a header (even a lone event code), or shorter than
// the length they claim, are dropped by the reader thread. The last one
// carries the ID and code the next command expects: had it been kept, the
// command would return its payload.
TEST_F(DeviceCommandTest, ReaderDropsTruncatedReports)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(4, GPIOMode_Output_Low));
    const unsigned nextId = MsgId(adapter.LastCommand()) + 1;

    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        std::vector<std::uint8_t> five = {8, 0, THID_RSP_ACK, 9, 0};
        adapter.hid->InjectInputReport(five);
        adapter.hid->InjectInputReport(std::vector<std::uint8_t>{0xE1});
        std::vector<std::uint8_t> fake = RawMessage(THID_RSP_GET_PIN_MODE, 16, static_cast<std::uint8_t>(nextId),
                                                    {4, 0, 0, 0, GPIOMode_Output_High}, 12);
        adapter.hid->InjectInputReport(fake);
        KARVEX_GPIOMode mode = GPIOMode_Input;
        EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinMode(4, mode));
        EXPECT_EQ(GPIOMode_Output_Low, mode);
    });
    EXPECT_EQ(1u, CountOf(trace, kSigProcess + ":  bytes transferred 5 too small, min. 8\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigProcess + ":  bytes transferred 1 too small, min. 8\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigProcess + ": unexpected bytes transferred 12, exp. min. 16\n")) << trace;
    EXPECT_EQ(3u, CountOf(trace, "\n")) << trace;
    EXPECT_EQ(nextId, MsgId(adapter.LastCommand()));
}

// Close from another thread releases a command that waits for its answer,
// at once and not after its time-out. The worker holds the device mutex
// around the call as the API object does.
TEST_F(DeviceCommandTest, CloseAbortsAWaitingCommand)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    adapter.firmware->SetFaults(Silent());
    const size_t sent = adapter.firmware->CommandCount();

    std::atomic<TSTATUS> result{TSTATUS_SUCCESS};
    std::atomic<long long> returnedAt{0};
    KARVEX_GPIOState state = GPIOState_High;
    const auto t0 = std::chrono::steady_clock::now();
    long long closeStartedAt = 0;
    long long closeEndedAt = 0;
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        std::thread worker([&] {
            PxMutexLock lock(device.mMutex);
            result = device.GetPinState(9, state);
            returnedAt = ElapsedMs(t0);
        });
        EXPECT_TRUE(WaitUntil([&] { return adapter.firmware->CommandCount() > sent; }));
        closeStartedAt = ElapsedMs(t0);
        device.Close();
        closeEndedAt = ElapsedMs(t0);
        worker.join();
    });
    EXPECT_EQ(TSTATUS_ABORTED, result.load());
    EXPECT_EQ(GPIOState_Low, state);
    EXPECT_LT(returnedAt - closeStartedAt, 1000) << "the command waited for its time-out";
    EXPECT_LE(returnedAt.load(), closeEndedAt) << "Close took the device mutex before the command let go of it";
    EXPECT_FALSE(device.IsOpen());
    EXPECT_EQ(1u, CountOf(trace, kSigExecute + ": operation aborted\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigGetPinState + ": ExecuteCommand failed, err = 0xE0000005\n")) << trace;
}

// The thread that waits for an answer reads the node itself. An answer that
// arrives as the budget runs out either ends the command or comes too late; a
// late one is skipped by the next command, which succeeds. Either way a
// time-out comes no earlier than the budget.
TEST_F(DeviceCommandTest, AnswerAtTheEndOfTheBudget)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    const std::uint8_t address = 0;
    for (unsigned delay : {990u, 1000u, 1010u}) {
        adapter.firmware->SetOneShotFaults(THID_CMD_I2C_TRANSACTION, Delayed(delay));
        PxMutexLock lock(device.mMutex);
        const auto t0 = std::chrono::steady_clock::now();
        // Bus time-out 100 ms: the host allows its minimum of 1000 ms.
        const TSTATUS st = device.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 100);
        const long long took = ElapsedMs(t0);
        if (st == TSTATUS_TIMEOUT) {
            EXPECT_GE(took, 1000) << "timed out before its budget (delay " << delay << ")";
        } else {
            EXPECT_EQ(TSTATUS_SUCCESS, st) << TStatusStringA(st);
        }
        // A late I2C answer taken for this one would fail its code check.
        adapter.firmware->SetInputLevel(3, delay == 1000u);
        KARVEX_GPIOState state = GPIOState_Low;
        EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(3, state)) << "after delay " << delay;
        EXPECT_EQ(delay == 1000u ? GPIOState_High : GPIOState_Low, state);
    }
}

// The checks of every answer run in one order: failure status first, then
// the code, then the length; each one wins over the faults behind it. A
// failed operation leaves its outputs alone (a get sets its output to 0).
TEST_F(DeviceCommandTest, AnswerChecksRunStatusThenCodeThenLength)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(1, GPIOMode_Output_High));
    const struct Op {
        std::uint8_t command, response;
        unsigned length;
        const std::string& signature;
        bool statusIsError; // a failure status of an I2C transaction is an ordinary outcome
        std::function<TSTATUS()> run;
    } ops[] = {
        {THID_CMD_SET_PIN_MODE, THID_RSP_ACK, 8, kSigSetPinMode, true,
         [&] { return device.SetPinMode(1, GPIOMode_Output_High); }},
        {THID_CMD_SET_PIN_STATE, THID_RSP_ACK, 8, kSigSetPinState, true,
         [&] { return device.SetPinState(1, GPIOState_High); }},
        {THID_CMD_GET_PIN_STATE, THID_RSP_GET_PIN_STATE, 16, kSigGetPinState, true,
         [&] {
             KARVEX_GPIOState s = GPIOState_High;
             const TSTATUS st = device.GetPinState(1, s);
             EXPECT_EQ(st == TSTATUS_SUCCESS ? GPIOState_High : GPIOState_Low, s);
             return st;
         }},
        {THID_CMD_GET_PIN_MODE, THID_RSP_GET_PIN_MODE, 16, kSigGetPinMode, true,
         [&] {
             KARVEX_GPIOMode m = GPIOMode_Output_Low;
             const TSTATUS st = device.GetPinMode(1, m);
             EXPECT_EQ(st == TSTATUS_SUCCESS ? GPIOMode_Output_High : GPIOMode_Input, m);
             return st;
         }},
        {THID_CMD_I2C_TRANSACTION, THID_RSP_I2C_TRANSACTION, 280, kSigI2c, false,
         [&] {
             const unsigned char address = 0;
             unsigned char r[4] = {0xCC, 0xCC, 0xCC, 0xCC};
             const TSTATUS st = device.I2cTransaction(0, 100, kEepromAddress, &address, 1, r, 4, 100);
             if (st != TSTATUS_SUCCESS) {
                 EXPECT_EQ(std::vector<unsigned char>(4, 0xCC), std::vector<unsigned char>(r, r + 4));
             }
             return st;
         }},
    };
    for (const Op& op : ops) {
        SCOPED_TRACE(op.signature);
        const int otherLength = op.length == 8 ? 16 : static_cast<int>(op.length) - 8;
        // The set commands share the answer code 0x80: their own code with the
        // high bit set (0x90, 0x92) is wrong.
        const int wrongCode = op.response == THID_RSP_ACK ? op.command | 0x80 : THID_RSP_ACK;
        char wrongCodeLine[80], wrongLengthLine[80];
        snprintf(wrongCodeLine, sizeof(wrongCodeLine), "unexpected response code 0x%02X, exp. 0x%02X\n", wrongCode,
                 op.response);
        snprintf(wrongLengthLine, sizeof(wrongLengthLine), "unexpected length %d, exp. %u\n", otherLength,
                 op.length);
        auto failure = [&](const std::string& st) {
            return op.statusIsError ? "Failure response received, st = 0x" + st + "\n" : std::string();
        };
        const struct Step {
            Faults faults;
            TSTATUS status;
            std::string line;
        } steps[] = {
            {HeaderFaults(0x05, wrongCode, otherLength), static_cast<TSTATUS>(0xE0001105u), failure("05")},
            {HeaderFaults(0xFF), static_cast<TSTATUS>(0xE00011FFu), failure("FF")},
            {HeaderFaults(0, wrongCode, otherLength), TSTATUS_UNEXPECTED_DEVICE_RESPONSE, wrongCodeLine},
            {HeaderFaults(0, -1, otherLength), TSTATUS_LENGTH_MISMATCH, wrongLengthLine},
        };
        for (const Step& step : steps) {
            SCOPED_TRACE(step.line);
            adapter.firmware->SetOneShotFaults(op.command, step.faults);
            TSTATUS st = TSTATUS_SUCCESS;
            std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = op.run(); });
            EXPECT_EQ(step.status, st) << ktest::StatusName(st);
            EXPECT_EQ(step.line.empty() ? "" : op.signature + ": " + step.line, trace);
            EXPECT_TRUE(device.IsOpen());
        }
        // Undisturbed, the same operation succeeds.
        EXPECT_EQ(TSTATUS_SUCCESS, op.run());
    }
}

} // namespace
