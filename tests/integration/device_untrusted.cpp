// Opening adapters whose report descriptors lie: no report in a direction,
// sizes that wrap 32-bit arithmetic or ask for hundreds of megabytes,
// truncated descriptors. Every open must come back with a specific status and
// an error line that says why, and must neither crash nor leak (the sanitizer
// builds check that). Deep push and nesting, stack underflows and usage ranges
// are the parser's unit tests' matter; a descriptor size the device lies about
// is the hidraw interface's; random descriptors are the open-path fuzz target's.
#include "support/device_fixture.h"

#include <algorithm>

using namespace device_test;

namespace {

using Bytes = std::vector<std::uint8_t>;

// Items of the descriptor language used below.
Bytes operator+(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
Bytes Repeat(const Bytes& item, size_t times)
{
    Bytes out;
    for (size_t i = 0; i < times; ++i)
        out.insert(out.end(), item.begin(), item.end());
    return out;
}
const Bytes kHead = {0x06, 0x00, 0xFF, 0x09, 0x01, 0xA1, 0x01}; // vendor page, usage, application collection
const Bytes kEnd = {0xC0};
const Bytes kInput = {0x81, 0x02};
const Bytes kOutput = {0x91, 0x02};
Bytes ReportSize(std::uint8_t bits) { return {0x75, bits}; }
Bytes ReportCount16(std::uint16_t n) { return {0x96, static_cast<std::uint8_t>(n), static_cast<std::uint8_t>(n >> 8)}; }
// A 4-byte Report Count. The parser decodes four data bytes but steps over
// only three, so the last data byte is read again as the next item prefix;
// every value used here ends in a byte that reads as a harmless item (0x00
// main item without data, 0x08 Usage without data, 0xF8 an unknown local tag).
Bytes ReportCount32(std::uint32_t n)
{
    return {0x97, static_cast<std::uint8_t>(n), static_cast<std::uint8_t>(n >> 8), static_cast<std::uint8_t>(n >> 16),
            static_cast<std::uint8_t>(n >> 24)};
}
// Input and output reports of n data bytes each, as the adapter has them.
Bytes Reports(std::uint16_t inputBytes, std::uint16_t outputBytes)
{
    return ReportSize(8) + ReportCount16(inputBytes) + kInput + ReportCount16(outputBytes) + kOutput;
}
const Bytes kValidOutput = ReportSize(8) + ReportCount16(320) + kOutput;
const Bytes kValidInput = ReportSize(8) + ReportCount16(320) + kInput;

class DeviceUntrustedTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        mAdapter = &AddAdapter();
        mIndex = IndexOf(*mAdapter);
    }

    struct Result {
        TSTATUS status = TSTATUS_SUCCESS;
        std::string trace;
        long long ms = 0;
    };

    // One open with this descriptor (and one command and Close when it
    // succeeds), with the error trace captured.
    Result TryOpen(const Bytes& descriptor)
    {
        mAdapter->hid->SetReportDescriptor(descriptor);
        Result r;
        KarvexDevice device;
        const auto start = std::chrono::steady_clock::now();
        r.trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
            r.status = device.Open(mEnumerator, mIndex);
            if (r.status == TSTATUS_SUCCESS) {
                KARVEX_GPIOMode mode;
                EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinMode(1, mode));
                device.Close();
            }
        });
        r.ms = ElapsedMs(start);
        EXPECT_FALSE(device.IsOpen());
        return r;
    }

    // A refused open names its reason on the error trace, and a refused
    // report length is reported once.
    static void ExpectRefusalExplained(const Result& r, const std::string& what)
    {
        SCOPED_TRACE(what);
        EXPECT_NE(TSTATUS_SUCCESS, r.status);
        EXPECT_GE(CountOf(r.trace, "\n"), 1u);
        if (r.status == TSTATUS_INVALID_REPORT_LENGTH) {
            // The parser traces the long items it skips on the error class
            // as well; apart from those, the refusal is the one line.
            EXPECT_EQ(1u, CountOf(r.trace, " report length ")) << r.trace;
            EXPECT_EQ(1u, CountOf(r.trace, "\n") - CountOf(r.trace, ": long item: bDataSize:")) << r.trace;
        } else if (r.status == TSTATUS_FAILED) {
            EXPECT_EQ(1u, CountOf(r.trace, ": parse HID report descriptor failed\n")) << r.trace;
        } else {
            ADD_FAILURE() << "unexpected status " << TStatusStringA(r.status) << "\n" << r.trace;
        }
        EXPECT_EQ(0u, CountOf(r.trace, "ASSERTION")) << r.trace;
    }

    Adapter* mAdapter = nullptr;
    unsigned mIndex = 0;
};

// A direction without a report, or one outside what hidraw moves and the
// message needs (320 to 16383 data bytes), is refused before anything is sent.
TEST_F(DeviceUntrustedTest, ReportLengthLimits)
{
    const struct Case {
        Bytes descriptor;
        TSTATUS status;
        std::string line;
    } cases[] = {
        {kHead + kValidInput + kEnd, TSTATUS_INVALID_REPORT_LENGTH,
         ": Invalid output report length 0, the device has no output report\n"},
        {kHead + kValidOutput + kEnd, TSTATUS_INVALID_REPORT_LENGTH,
         ": Invalid input report length 0, the device has no input report\n"},
        {{}, TSTATUS_INVALID_REPORT_LENGTH, ": Invalid input report length 0, the device has no input report\n"},
        {kHead + Reports(16383, 320) + kEnd, TSTATUS_SUCCESS, ""},
        {kHead + Reports(320, 16383) + kEnd, TSTATUS_SUCCESS, ""},
        {kHead + Reports(16384, 320) + kEnd, TSTATUS_INVALID_REPORT_LENGTH,
         ": Invalid input report length 16385, max. 16384\n"},
        {kHead + Reports(320, 16384) + kEnd, TSTATUS_INVALID_REPORT_LENGTH,
         ": Invalid output report length 16385, max. 16384\n"},
        {kHead + Reports(319, 320) + kEnd, TSTATUS_INVALID_REPORT_LENGTH,
         kSigOpen + ": Invalid input report length 319, min. 320\n"},
        {kHead + Reports(320, 319) + kEnd, TSTATUS_INVALID_REPORT_LENGTH,
         kSigOpen + ": Invalid output report length 319, min. 320\n"},
    };
    for (const Case& c : cases) {
        mAdapter->firmware->ClearReceivedCommands();
        Result r = TryOpen(c.descriptor);
        EXPECT_EQ(c.status, r.status) << c.line << r.trace;
        if (c.status == TSTATUS_SUCCESS)
            continue;
        EXPECT_EQ(1u, CountOf(r.trace, c.line)) << r.trace;
        ExpectRefusalExplained(r, c.line);
        EXPECT_EQ(0u, mAdapter->firmware->CommandCount()) << "nothing may be sent to a refused adapter";
    }
}

// Sizes far beyond anything hidraw moves, and sizes whose 32-bit product or
// bit-to-byte rounding wraps: refused before anything is allocated for them.
TEST_F(DeviceUntrustedTest, HugeAndWrappingSizes)
{
    struct Case {
        const char* what;
        Bytes descriptor;
    };
    const Bytes oneInputItem = Repeat({0x80}, 1); // Input without data
    std::vector<Case> cases = {
        // 32 bits x 0x08000000 = 2^32 bits.
        {"product wraps to 0", kHead + ReportSize(32) + ReportCount32(0x08000000u) + kInput + kValidOutput + kEnd},
        // 8 bits x 0xF8000000: hundreds of MB whichever way it is computed.
        {"hundreds of MB input", kHead + ReportSize(8) + ReportCount32(0xF8000000u) + kInput + kValidOutput + kEnd},
        {"hundreds of MB output", kHead + kValidInput + ReportSize(8) + ReportCount32(0xF8000000u) + kOutput + kEnd},
        // 32 x 0x00FFFFFF bits: half a gigabyte in 32-bit arithmetic.
        {"half a GB", kHead + ReportSize(32) + ReportCount32(0x00FFFFFFu) + kInput + kValidOutput + kEnd},
        // 2048 Input items of 32 x 65535 bits plus 65529 bits: 0xFFFFFFF9 bits,
        // where adding 7 for the rounding to bytes wraps to 0.
        {"rounding wraps",
         kHead + ReportSize(32) + ReportCount16(0xFFFF) + Repeat(oneInputItem, 2048) + ReportSize(1) +
             ReportCount16(0xFFF9) + oneInputItem + kValidOutput + kEnd},
        // The same sum, one bit short of 2^32.
        {"one bit short of 2^32",
         kHead + ReportSize(32) + ReportCount16(0xFFFF) + Repeat(oneInputItem, 2048) + ReportSize(1) +
             ReportCount16(0xFFFF) + oneInputItem + kValidOutput + kEnd},
    };
    for (const Case& c : cases) {
        Result r = TryOpen(c.descriptor);
        EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status) << c.what << "\n" << r.trace;
        ExpectRefusalExplained(r, c.what);
        EXPECT_LT(r.ms, 20000) << c.what << ": a liveness limit only";
    }
}

// Every prefix of a good descriptor: the cut either breaks an item (parse
// failure), leaves a report direction short or missing (length refusal), or
// happens to be a complete descriptor (the device opens).
TEST_F(DeviceUntrustedTest, EveryTruncation)
{
    const Bytes full = kHead + kValidInput + kValidOutput + kEnd;
    for (size_t n = 0; n < full.size(); ++n) {
        const Bytes cut(full.begin(), full.begin() + n);
        Result r = TryOpen(cut);
        if (r.status == TSTATUS_SUCCESS) {
            EXPECT_GE(n, full.size() - 1) << "only the missing End Collection is tolerated";
        } else {
            ExpectRefusalExplained(r, "cut at " + std::to_string(n));
        }
    }
}

} // namespace
