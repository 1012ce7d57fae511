// Opening adapters whose report descriptors lie: no report in a direction,
// sizes that wrap 32-bit arithmetic or ask for hundreds of megabytes, endless
// usage ranges, deep push and nesting, truncated and random descriptors. Every
// open must come back, quickly, with a specific status and an error line that
// says why, and must neither crash nor leak (the sanitizer builds check that).
#include "support/device_fixture.h"

#include <algorithm>
#include <map>
#include <random>

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
        EXPECT_GE(LineCount(r.trace), 1u);
        if (r.status == TSTATUS_INVALID_REPORT_LENGTH) {
            // The parser traces the long items it skips on the error class
            // as well; apart from those, the refusal is the one line.
            EXPECT_EQ(1u, CountOf(r.trace, " report length ")) << r.trace;
            EXPECT_EQ(1u, LineCount(r.trace) - CountOf(r.trace, ": long item: bDataSize:")) << r.trace;
        } else if (r.status == TSTATUS_FAILED) {
            EXPECT_EQ(1u, CountOf(r.trace, ": parse HID report descriptor failed\n")) << r.trace;
        } else if (r.status == TSTATUS_INVALID_DESCRIPTOR) {
            EXPECT_EQ(1u, CountOf(r.trace, ": invalid HID report descriptor size")) << r.trace;
        } else {
            ADD_FAILURE() << "unexpected status " << TStatusStringA(r.status) << "\n" << r.trace;
        }
        EXPECT_EQ(0u, CountOf(r.trace, "ASSERTION")) << r.trace;
    }

    Adapter* mAdapter = nullptr;
    unsigned mIndex = 0;
};

TEST_F(DeviceUntrustedTest, MissingReportDirections)
{
    Result r = TryOpen(kHead + kValidInput + kEnd);
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    EXPECT_EQ(1u, CountOf(r.trace, ": Invalid output report length 0, the device has no output report\n")) << r.trace;
    ExpectRefusalExplained(r, "no output report");

    r = TryOpen(kHead + kValidOutput + kEnd);
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    EXPECT_EQ(1u, CountOf(r.trace, ": Invalid input report length 0, the device has no input report\n")) << r.trace;
    ExpectRefusalExplained(r, "no input report");

    r = TryOpen({});
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    EXPECT_EQ(1u, CountOf(r.trace, ": Invalid input report length 0, the device has no input report\n")) << r.trace;
    ExpectRefusalExplained(r, "empty descriptor");

    EXPECT_EQ(0u, mAdapter->firmware->CommandCount()) << "nothing may be sent to a refused adapter";
}

TEST_F(DeviceUntrustedTest, ReportLengthLimits)
{
    // The largest report hidraw can move is accepted...
    Result r = TryOpen(kHead + Reports(16383, 320) + kEnd);
    EXPECT_EQ(TSTATUS_SUCCESS, r.status) << r.trace;
    r = TryOpen(kHead + Reports(320, 16383) + kEnd);
    EXPECT_EQ(TSTATUS_SUCCESS, r.status) << r.trace;
    // ...one byte more is not.
    r = TryOpen(kHead + Reports(16384, 320) + kEnd);
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    EXPECT_EQ(1u, CountOf(r.trace, ": Invalid input report length 16385, max. 16384\n")) << r.trace;
    ExpectRefusalExplained(r, "input 16384");
    r = TryOpen(kHead + Reports(320, 16384) + kEnd);
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    EXPECT_EQ(1u, CountOf(r.trace, ": Invalid output report length 16385, max. 16384\n")) << r.trace;
    ExpectRefusalExplained(r, "output 16384");
    // The minimum: 320 data bytes pass, 319 do not.
    r = TryOpen(kHead + Reports(320, 319) + kEnd);
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    EXPECT_EQ(kSigOpen + ": Invalid output report length 319, min. 320\n", r.trace);
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
        EXPECT_LT(r.ms, 2000) << c.what;
    }
}

// Usage ranges that span up to 2^32 usages, repeated over a full-size
// descriptor, must not stall the open.
TEST_F(DeviceUntrustedTest, EndlessUsageRanges)
{
    const Bytes pair = {0x05, 0x00, 0x1A, 0x00, 0x00, 0x06, 0xFF, 0xFF, 0x2A, 0xFF, 0xFF}; // 0 .. 0xFFFFFFFF
    Bytes d = kHead + kValidInput + kValidOutput;
    while (d.size() + pair.size() <= 4095)
        d = d + pair;
    Result r = TryOpen(d);
    EXPECT_EQ(TSTATUS_SUCCESS, r.status) << r.trace.substr(0, 400);
    EXPECT_LT(r.ms, 3000);

    // And with the maximum as a full 32-bit item.
    const Bytes wide = {0x05, 0x00, 0x19, 0x00, 0x2B, 0xFF, 0xFF, 0xFF, 0xF8}; // 0 .. 0xF8FFFFFF
    d = kHead + kValidInput + kValidOutput;
    while (d.size() + wide.size() <= 4095)
        d = d + wide;
    r = TryOpen(d);
    EXPECT_EQ(TSTATUS_SUCCESS, r.status) << r.trace.substr(0, 400);
    EXPECT_LT(r.ms, 3000);
}

TEST_F(DeviceUntrustedTest, DeepPushAndNesting)
{
    // 4095 pushes and no report: every stack entry is freed again.
    Result r = TryOpen(Repeat({0xA4}, 4095));
    EXPECT_EQ(TSTATUS_INVALID_REPORT_LENGTH, r.status);
    ExpectRefusalExplained(r, "push only");

    // Deep push in front of valid reports: the device opens and keeps the
    // parser (and its stack) until Close.
    r = TryOpen(Repeat({0xA4}, 3900) + kHead + kValidInput + kValidOutput + kEnd);
    EXPECT_EQ(TSTATUS_SUCCESS, r.status) << r.trace.substr(0, 400);

    // Collections nested 2000 deep around the reports, never closed.
    r = TryOpen(Repeat({0xA1, 0x01}, 2000) + kValidInput + kValidOutput);
    EXPECT_EQ(TSTATUS_SUCCESS, r.status) << r.trace.substr(0, 400);

    // Pops without pushes and End Collection at the top fail the parse.
    r = TryOpen(kValidInput + kValidOutput + Bytes{0xB4});
    EXPECT_EQ(TSTATUS_FAILED, r.status);
    ExpectRefusalExplained(r, "pop underflow");
    r = TryOpen(kValidInput + kValidOutput + Repeat({0xC0}, 100));
    EXPECT_EQ(TSTATUS_FAILED, r.status);
    ExpectRefusalExplained(r, "collection underflow");
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
    // The descriptor size the device reports is not trusted either.
    mAdapter->hid->SetReportDescriptor(Repeat({0xA4}, 4096));
    for (int size : {-1, 4097, 100000}) {
        mAdapter->hid->OverrideDescriptorSize(size);
        KarvexDevice device;
        TSTATUS st = TSTATUS_SUCCESS;
        std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = device.Open(mEnumerator, mIndex); });
        EXPECT_EQ(TSTATUS_INVALID_DESCRIPTOR, st) << size << "\n" << trace;
        EXPECT_EQ(1u, CountOf(trace, ": invalid HID report descriptor size: " + std::to_string(size))) << trace;
    }
    mAdapter->hid->OverrideDescriptorSize(std::nullopt);
}

// Random descriptors from a fixed seed: plain random bytes, random sequences
// of well-formed items with random data (which get much further into the
// parser), and good descriptors with a few bytes changed (which now and then
// still open).
TEST_F(DeviceUntrustedTest, RandomDescriptors)
{
    std::mt19937 rng(0x4B565831u);
    const std::uint8_t prefixes[] = {0x04, 0x05, 0x06, 0x07, 0x14, 0x15, 0x16, 0x17, 0x24, 0x25, 0x26, 0x74,
                                     0x75, 0x76, 0x77, 0x84, 0x85, 0x86, 0x94, 0x95, 0x96, 0x97, 0xA4, 0xB4,
                                     0x08, 0x09, 0x0A, 0x0B, 0x18, 0x19, 0x1A, 0x1B, 0x28, 0x29, 0x2A, 0x2B,
                                     0x80, 0x81, 0x82, 0x90, 0x91, 0x92, 0xB0, 0xB1, 0xA0, 0xA1, 0xC0, 0xFE};
    auto randomByte = [&] { return static_cast<std::uint8_t>(rng() & 0xFF); };
    std::map<TSTATUS, int> seen;
    long long slowest = 0;
    int successes = 0;
    for (int i = 0; i < 450; ++i) {
        Bytes d;
        if (i % 3 == 2) {
            // A good descriptor with a few bytes changed.
            d = kHead + kValidInput + kValidOutput + kEnd;
            for (unsigned k = 1 + rng() % 3; k > 0; --k)
                d[rng() % d.size()] = randomByte();
        } else if (i % 3 == 0) {
            const size_t length = (i % 30 == 0) ? rng() % 4097 : rng() % 300;
            for (size_t k = 0; k < length; ++k)
                d.push_back(randomByte());
        } else {
            const size_t items = 1 + rng() % 120;
            for (size_t k = 0; k < items; ++k) {
                const std::uint8_t prefix = prefixes[rng() % sizeof(prefixes)];
                d.push_back(prefix);
                const size_t dataBytes = (prefix == 0xFE) ? 2 : ((prefix & 3) == 3 ? 4 : (prefix & 3));
                for (size_t b = 0; b < dataBytes; ++b) {
                    // Mostly small values, now and then the extremes.
                    const unsigned pick = rng() % 8;
                    d.push_back(pick == 0 ? 0xFF : pick == 1 ? 0x00 : static_cast<std::uint8_t>(rng() % 64));
                }
            }
        }
        Result r = TryOpen(d);
        ++seen[r.status];
        if (r.status == TSTATUS_SUCCESS)
            ++successes;
        slowest = std::max(slowest, r.ms);
        if (r.status != TSTATUS_SUCCESS)
            ExpectRefusalExplained(r, "random descriptor " + std::to_string(i));
        if (HasFailure())
            break;
    }
    EXPECT_LT(slowest, 2000);
    // Both kinds of refusal must have been reached, or the generator is useless.
    EXPECT_GT(seen[TSTATUS_FAILED], 10);
    EXPECT_GT(seen[TSTATUS_INVALID_REPORT_LENGTH], 10);
    EXPECT_GT(successes, 0);
    for (const auto& entry : seen)
        printf("  %s: %d\n", TStatusStringA(entry.first), entry.second);
}

} // namespace
