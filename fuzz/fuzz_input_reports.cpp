// libFuzzer target: the device object's handling of whatever input reports a
// broken or hostile adapter sends (responses and events of any length and any
// header) while a command runs and a pin callback is registered.
//
// One testbed, one emulated adapter and one open KarvexDevice serve the whole
// run; the fuzzer takes the adapter's place. Each input is one step:
//
//   byte 0      operation: 0 SetPinMode, 1 SetPinState, 2 GetPinState,
//               3 GetPinMode, 4 I2C write+read, 5 I2C read of 256 bytes,
//               6 GetPinState, 7 no command (reports only)       (low 3 bits)
//   byte 1      argument: pin ID, state, or I2C read count
//   then up to cMaxReports reports, each
//     flags     bit 0: the harness writes the command's unique ID into the
//               report (the fuzzer cannot know the device's ID counter)
//     length    1..254, or 255 followed by one byte n: 255 + n (up to 510;
//               the library reads at most 320, the rest is cut as by hidraw);
//               0 skips the report (hidraw never hands out an empty one)
//     bytes     the report as read() returns it (unnumbered: the message);
//               missing bytes at the end of the input read as 0
//
// The reports are injected from the emulator's write hook when the command
// is written, so they race the library's reader thread exactly as a real
// adapter's answer would. Every command must end without a time-out: when the
// fuzzer's reports hold no answer that the library will take for the
// command's own (a well-formed response with the command's unique ID), the
// harness appends a correct answer. The response queue has two slots and a
// full queue drops the newest answer, so a step injects at most two reports
// that the library files as responses (the harness sorts them by the
// library's documented rules and drops the rest); a time-out is therefore a
// lost answer, and a finding. The outcome is checked against what the
// answer the command took says (status, code, length, pin echo, value, read
// data, outputs left alone on failure).
//
// Needs the umockdev preload: run it under umockdev-wrapper (scripts/run-fuzz.sh
// does). An execution costs one write and one read per injected report, each
// a round trip through umockdev; that, not the library, sets the speed.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"
#include "karvex_api_linux/KarvexDeviceEnumeratorLx.h"
#include "karvex_api_linux/KarvexDeviceLx.h"
#include "karvex_api_linux/thid_prot_karvex.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t cMaxReports = 6;
// What the library reads of one report: the adapter's 320 data bytes.
constexpr std::size_t cReportData = THID_MAX_MESSAGE_SIZE;

enum Operation : std::uint8_t {
    OpSetPinMode,
    OpSetPinState,
    OpGetPinState,
    OpGetPinMode,
    OpI2cWriteRead,
    OpI2cRead256,
    OpGetPinState2,
    OpReportsOnly,
};

unsigned Le16(const Bytes& m, std::size_t offset)
{
    return offset + 1 < m.size() ? m[offset] | (m[offset + 1] << 8) : 0;
}

std::uint32_t Le32(const Bytes& m, std::size_t offset)
{
    std::uint32_t v = 0;
    for (std::size_t i = 0; i < 4; ++i)
        v |= static_cast<std::uint32_t>(offset + i < m.size() ? m[offset + i] : 0) << (8 * i);
    return v;
}

// The part of a report the library sees.
Bytes Visible(const Bytes& report)
{
    return Bytes(report.begin(), report.begin() + std::min(report.size(), cReportData));
}

// The reader thread files a report as a response when it holds a whole
// header, no fewer bytes than its messageLength, and is not an event.
bool IsResponse(const Bytes& report)
{
    const Bytes m = Visible(report);
    return m.size() >= sizeof(THID_MsgHeader) && Le16(m, 0) <= m.size() && m[2] != THID_EVT_PIN_STATE_CHANGED;
}

// What the pin callback saw; checked by the callback itself.
std::atomic<unsigned> gEvents{0};

void OnPinEvent(void* context, unsigned int, KARVEX_GPIOState state)
{
    if (context != &gEvents || (state != GPIOState_Low && state != GPIOState_High))
        __builtin_trap();
    ++gEvents;
}

class Bench {
public:
    Bench()
    {
        mHid = &mTestbed.AddDevice(kemu::AdapterConfig());
        mHid->SetWriteHook([this](const std::uint8_t* report, std::size_t length) { OnWrite(report, length); });
        KarvexDeviceEnumerator enumerator;
        unsigned index = 0;
        if (enumerator.EnumerateHidRawDevices(nullptr) != TSTATUS_SUCCESS ||
            enumerator.FindIndexForDevicePath(mHid->DevNode().c_str(), index) != TSTATUS_SUCCESS ||
            mDevice.Open(enumerator, index) != TSTATUS_SUCCESS ||
            mDevice.RegisterPinEventCallback(OnPinEvent, &gEvents) != TSTATUS_SUCCESS) {
            std::fprintf(stderr, "fuzz_input_reports: emulated adapter cannot be opened\n");
            std::exit(1);
        }
    }

    void Run(const std::uint8_t* data, std::size_t size);

private:
    struct Plan {
        Bytes fuzzed[cMaxReports];
        bool patchId[cMaxReports];
        std::size_t count = 0;
        // Filled by the write hook: the answer the command must take.
        bool written = false;
        std::uint8_t commandCode = 0;
        Bytes answer;
    };

    void OnWrite(const std::uint8_t* report, std::size_t length);
    static Bytes CorrectAnswer(const std::uint8_t* command, std::size_t length);
    void Check(Operation op, unsigned arg, TSTATUS st, unsigned value, const std::uint8_t* readBuffer,
               unsigned bytesToRead);
    void WaitUntilRead();

    kemu::EmuTestbed mTestbed;
    kemu::EmuHidDevice* mHid = nullptr;
    KarvexDevice mDevice;
    std::mutex mPlanMutex;
    Plan mPlan;
};

// A correct answer to a command, as a well-behaved adapter sends it.
Bytes Bench::CorrectAnswer(const std::uint8_t* command, std::size_t length)
{
    Bytes cmd(command, command + length);
    cmd.resize(std::max<std::size_t>(cmd.size(), 1 + THID_MAX_MESSAGE_SIZE), 0);
    const std::uint8_t* m = cmd.data() + 1; // after the report ID byte
    Bytes rsp(cReportData, 0);
    rsp[3] = m[3];
    auto setLength = [&](unsigned n) {
        rsp[0] = static_cast<std::uint8_t>(n);
        rsp[1] = static_cast<std::uint8_t>(n >> 8);
    };
    switch (m[2]) {
    case THID_CMD_GET_PROTOCOL_VERSION:
        rsp[2] = THID_RSP_GET_PROTOCOL_VERSION;
        setLength(THID_MSG_LEN_PROTOCOL_VERSION);
        rsp[8] = THID_PROTOCOL_VERSION_MAJOR;
        rsp[9] = THID_PROTOCOL_VERSION_MINOR;
        break;
    case THID_CMD_SET_PIN_MODE:
    case THID_CMD_SET_PIN_STATE:
        rsp[2] = THID_RSP_ACK;
        setLength(THID_MSG_LEN_HEADER_ONLY);
        break;
    case THID_CMD_GET_PIN_MODE:
    case THID_CMD_GET_PIN_STATE:
        rsp[2] = static_cast<std::uint8_t>(m[2] | 0x80);
        setLength(THID_MSG_LEN_PIN);
        std::memcpy(&rsp[8], &m[8], 4);              // pin ID echo
        rsp[12] = static_cast<std::uint8_t>(m[8] & 1); // a valid mode or state
        break;
    case THID_CMD_I2C_TRANSACTION:
        rsp[2] = THID_RSP_I2C_TRANSACTION;
        setLength(THID_MSG_LEN_I2C);
        std::memcpy(&rsp[8], &m[8], 16);
        for (std::size_t i = 0; i < THID_I2C_MAX_DATA; ++i)
            rsp[24 + i] = static_cast<std::uint8_t>(i * 7 + m[3]);
        break;
    default:
        rsp[2] = static_cast<std::uint8_t>(m[2] | 0x80);
        setLength(THID_MSG_LEN_HEADER_ONLY);
        rsp[4] = 0x01;
        break;
    }
    return rsp;
}

// The emulator's handler thread, inside the library's write(): the adapter
// "answers" with the planned reports before write() returns.
void Bench::OnWrite(const std::uint8_t* report, std::size_t length)
{
    if (length < 1 + sizeof(THID_MsgHeader))
        __builtin_trap(); // the library only writes whole commands
    const std::uint8_t uniqueId = report[1 + 3];
    std::lock_guard<std::mutex> lock(mPlanMutex);
    mPlan.written = true;
    mPlan.commandCode = report[1 + 2];
    bool haveStale = false;
    bool haveAnswer = false;
    std::vector<Bytes> inject;
    for (std::size_t i = 0; i < mPlan.count; ++i) {
        Bytes r = mPlan.fuzzed[i];
        if (mPlan.patchId[i] && r.size() > 3)
            r[3] = uniqueId;
        if (IsResponse(r)) {
            const bool own = r[3] == uniqueId;
            // Nothing that files as a response after the answer (it would
            // stay queued into the next step), and one stale one at most.
            if (haveAnswer || (!own && haveStale))
                continue;
            if (own) {
                haveAnswer = true;
                mPlan.answer = Visible(r);
            } else {
                haveStale = true;
            }
        }
        inject.push_back(std::move(r));
    }
    if (!haveAnswer) {
        mPlan.answer = CorrectAnswer(report, length);
        inject.push_back(mPlan.answer);
    }
    for (const Bytes& r : inject)
        mHid->InjectInputReport(r);
}

void Bench::WaitUntilRead()
{
    // Reports a step leaves unread (events and broken reports behind the
    // answer) are read during the next steps; only a backlog near the
    // emulated hidraw queue's 63 reports, where an answer would be dropped,
    // has to drain first. The reader thread takes one in well under a
    // millisecond.
    if (mHid->PendingInputReports() < 32)
        return;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (mHid->PendingInputReports() != 0) {
        if (std::chrono::steady_clock::now() > deadline)
            __builtin_trap(); // the reader thread stopped reading
        usleep(20);
    }
}

// The library's verdict must follow from the answer the command took.
void Bench::Check(Operation op, unsigned arg, TSTATUS st, unsigned value, const std::uint8_t* readBuffer,
                  unsigned bytesToRead)
{
    const Bytes& a = mPlan.answer;
    unsigned expectedCode = 0;
    unsigned expectedLength = 0;
    switch (op) {
    case OpSetPinMode:
    case OpSetPinState:
        expectedCode = THID_RSP_ACK;
        expectedLength = THID_MSG_LEN_HEADER_ONLY;
        break;
    case OpGetPinState:
    case OpGetPinState2:
        expectedCode = THID_RSP_GET_PIN_STATE;
        expectedLength = THID_MSG_LEN_PIN;
        break;
    case OpGetPinMode:
        expectedCode = THID_RSP_GET_PIN_MODE;
        expectedLength = THID_MSG_LEN_PIN;
        break;
    default:
        expectedCode = THID_RSP_I2C_TRANSACTION;
        expectedLength = THID_MSG_LEN_I2C;
        break;
    }
    TSTATUS expected = TSTATUS_SUCCESS;
    if (a[4] != 0)
        expected = static_cast<TSTATUS>(static_cast<unsigned>(TSTATUS_RESPONSE_STATUS_BASE) + a[4]);
    else if (a[2] != expectedCode)
        expected = TSTATUS_UNEXPECTED_DEVICE_RESPONSE;
    else if (Le16(a, 0) != expectedLength)
        expected = TSTATUS_LENGTH_MISMATCH;
    else if ((op == OpGetPinState || op == OpGetPinState2 || op == OpGetPinMode) && Le32(a, 8) != arg)
        expected = TSTATUS_PIN_ID_MISMATCH;
    else if ((op == OpGetPinState || op == OpGetPinState2) && a[12] > 1)
        expected = TSTATUS_UNSUPPORTED_PIN_STATE;
    else if (op == OpGetPinMode && a[12] > 3)
        expected = TSTATUS_UNSUPPORTED_PIN_MODE;
    if (st != expected)
        __builtin_trap();

    const bool get = op == OpGetPinState || op == OpGetPinState2 || op == OpGetPinMode;
    if (get && value != (st == TSTATUS_SUCCESS ? a[12] : 0u))
        __builtin_trap(); // the value answered, or 0 on every failure
    if (readBuffer != nullptr) {
        for (unsigned i = 0; i < bytesToRead; ++i) {
            const std::uint8_t want = st == TSTATUS_SUCCESS ? a[24 + i] : 0xEE; // untouched on failure
            if (readBuffer[i] != want)
                __builtin_trap();
        }
        for (unsigned i = bytesToRead; i < THID_I2C_MAX_DATA + 1; ++i) {
            if (readBuffer[i] != 0xEE)
                __builtin_trap(); // nothing beyond the count asked for
        }
    }
}

void Bench::Run(const std::uint8_t* data, std::size_t size)
{
    if (size < 2)
        return;
    const Operation op = static_cast<Operation>(data[0] & 7);
    const unsigned arg = data[1];
    {
        std::lock_guard<std::mutex> lock(mPlanMutex);
        mPlan.count = 0;
        mPlan.written = false;
        std::size_t pos = 2;
        while (pos + 2 <= size && mPlan.count < cMaxReports) {
            const std::uint8_t flags = data[pos++];
            std::size_t length = data[pos++];
            if (length == 255 && pos < size)
                length += data[pos++];
            Bytes& r = mPlan.fuzzed[mPlan.count];
            r.assign(length, 0);
            const std::size_t available = std::min(length, size - pos);
            if (available > 0)
                std::memcpy(r.data(), data + pos, available);
            pos += available;
            if (length == 0)
                continue;
            mPlan.patchId[mPlan.count] = (flags & 1) != 0;
            ++mPlan.count;
        }
    }

    TSTATUS st = TSTATUS_SUCCESS;
    unsigned value = 0;
    unsigned char readBuffer[THID_I2C_MAX_DATA + 1];
    std::memset(readBuffer, 0xEE, sizeof readBuffer);
    unsigned bytesToRead = 0;
    switch (op) {
    case OpSetPinMode:
        st = mDevice.SetPinMode(arg, static_cast<KARVEX_GPIOMode>(arg & 3));
        break;
    case OpSetPinState:
        st = mDevice.SetPinState(arg, static_cast<KARVEX_GPIOState>(arg & 1));
        break;
    case OpGetPinState:
    case OpGetPinState2: {
        KARVEX_GPIOState state = GPIOState_High;
        st = mDevice.GetPinState(arg, state);
        value = static_cast<unsigned>(state);
        break;
    }
    case OpGetPinMode: {
        KARVEX_GPIOMode mode = GPIOMode_Output_High;
        st = mDevice.GetPinMode(arg, mode);
        value = static_cast<unsigned>(mode);
        break;
    }
    case OpI2cWriteRead:
    case OpI2cRead256: {
        const unsigned char address = 0;
        bytesToRead = op == OpI2cRead256 ? THID_I2C_MAX_DATA : arg;
        st = mDevice.I2cTransaction(0, 100000, 0xA0, &address, op == OpI2cRead256 ? 0 : 1, readBuffer, bytesToRead,
                                    100);
        break;
    }
    case OpReportsOnly: {
        // No command: what would file as a response is left out (nothing
        // would take it); events and broken reports go straight in.
        std::lock_guard<std::mutex> lock(mPlanMutex);
        for (std::size_t i = 0; i < mPlan.count; ++i) {
            if (!IsResponse(mPlan.fuzzed[i]))
                mHid->InjectInputReport(mPlan.fuzzed[i]);
        }
        break;
    }
    }
    if (op != OpReportsOnly) {
        std::lock_guard<std::mutex> lock(mPlanMutex);
        if (!mPlan.written)
            __builtin_trap(); // every argument used here is valid: the command goes out
        if (st == TSTATUS_TIMEOUT)
            __builtin_trap(); // an answer was injected and lost
        Check(op, arg, st, value, op == OpI2cWriteRead || op == OpI2cRead256 ? readBuffer : nullptr, bytesToRead);
    }
    WaitUntilRead();
}

Bench* gBench = nullptr; // lives for the whole run (still reachable at exit)

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // libFuzzer reports on stderr; the library traces on stdout.
    if (std::freopen("/dev/null", "w", stdout) == nullptr)
        return 0;
    if (!kemu::EmuTestbed::InMockEnvironment()) {
        std::fprintf(stderr, "fuzz_input_reports: run under umockdev-wrapper\n");
        std::exit(1);
    }
    TPosixSetTraceMask(0);
    gBench = new Bench;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Now and then every trace class, so that the formatting runs as well.
    TPosixSetTraceMask((size % 16) == 15 ? 0x7F : 0);
    gBench->Run(data, size);
    TPosixSetTraceMask(0);
    return 0;
}
