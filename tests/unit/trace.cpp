// Trace output: line assembly, hex dumps, masks, assertion reports and the
// bounds of the line buffer.
#include <gtest/gtest.h>

#include <pthread.h>
#include <stdio.h>
#include <string.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "libposix/PxTrace.h"
#include "libtb/TbDebug.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

class TraceTest : public ::testing::Test {
protected:
    void SetUp() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }
    void TearDown() override
    {
        // A test that left a partial line behind would corrupt the next one.
        EXPECT_EQ(0u, gTraceLineBufferOffest);
        TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING);
    }
};

// The trace mutex must work before this unit's own dynamic initialisation
// and from any other unit's static initialisers.
bool gStaticInitLockWorked = [] {
    gTraceMutex.Lock();
    bool nested = gTraceMutex.TryLock(); // recursive
    if (nested)
        gTraceMutex.Unlock();
    gTraceMutex.Unlock();
    tprint("%s", ""); // nothing to print, but takes the mutex
    return nested;
}();

// The lines of text, without their newlines.
std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t pos = 0, nl; (nl = text.find('\n', pos)) != std::string::npos; pos = nl + 1)
        lines.push_back(text.substr(pos, nl - pos));
    return lines;
}

} // namespace

TEST_F(TraceTest, MutexWorksFromStaticInitialisersAndMaskIsPlainStoreLoad)
{
    EXPECT_TRUE(gStaticInitLockWorked);
    TPosixSetTraceMask(0x7F);
    EXPECT_EQ(0x7Fu, gTraceMask.load());
    TPosixSetTraceMask(0);
    EXPECT_EQ(0u, TPosixGetTraceMask());
}

TEST_F(TraceTest, LineAssembly)
{
    // Text without a newline stays in the buffer and leads the next line.
    EXPECT_EQ("", CaptureTrace([] { tprint("abc"); }));
    EXPECT_EQ(3u, gTraceLineBufferOffest);
    EXPECT_EQ(3u, gCol);
    EXPECT_EQ("abcdef 5\n", CaptureTrace([] { tprint("def %d\n", 5); }));
    EXPECT_EQ(0u, gCol);

    // Several lines in one call, and lines continued across calls.
    EXPECT_EQ("one\ntwo\nthree\n", CaptureTrace([] {
                  tprint("one\ntwo\nthr");
                  tprint("ee\n");
              }));
    EXPECT_EQ("", CaptureTrace([] { tprint("%s", ""); }));
    EXPECT_EQ("\n\n", CaptureTrace([] { tprint("\n\n"); }));
}

TEST_F(TraceTest, WriteStringEmitsPrefixAndLineAndClearsBoth)
{
    std::string out = CaptureTrace([] {
        PxMutexLock lock(gTraceMutex);
        strcpy(gTracePrefixBuffer, "P: ");
        OutputString("partial");
        WriteString();
        // The write position is the caller's business.
        EXPECT_EQ(7u, gTraceLineBufferOffest);
        gTraceLineBufferOffest = 0;
        gCol = 0;
    });
    EXPECT_EQ("P: partial", out);
    EXPECT_EQ('\0', gTracePrefixBuffer[0]);
    for (unsigned int i = 0; i < cTraceLineBufferSize; i++)
        ASSERT_EQ('\0', gTraceLineBuffer[i]) << i;
    // Cleared prefix: the next line goes out bare.
    EXPECT_EQ("next\n", CaptureTrace([] { tprint("next\n"); }));
}

TEST_F(TraceTest, LinePrefixFormat)
{
    char buffer[cTracePrefixBufferSize];
    memset(buffer, 'x', sizeof(buffer));
    int n = GetLinePrefix(buffer);
    ASSERT_GT(n, 0);
    EXPECT_EQ(static_cast<size_t>(n), strlen(buffer));
    std::string s(buffer);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(s, m, std::regex("([0-9]{9,})\\.([0-9]{9}) (0x[0-9a-f]+): "))) << s;
    char self[64];
    snprintf(self, sizeof(self), "%p", reinterpret_cast<void*>(pthread_self()));
    EXPECT_EQ(std::string(self), m[3].str());
}

TEST_F(TraceTest, DumpLayouts)
{
    struct {
        const char* data;
        unsigned int length, perLine;
        std::string expected;
    } const cases[] = {
        {"ABCDEFGHIJKLMNOPQ", 17, 16,
         "0000: 41 42 43 44 45 46 47 48 49 4A 4B 4C 4D 4E 4F 50 ABCDEFGHIJKLMNOP\n"
         "0010: 51 " + std::string(15 * 3, ' ') + "Q" + std::string(15, ' ') + "\n"},
        {"A\0z", 3, 4, "0000: 41 00 7A    A.z \n"},
        // 0x20..0x7F are shown as themselves (DEL included), the rest as '.'.
        {"\x1F\x20\x7E\x7F\x80\xFF\x09\x30", 8, 8, "0000: 1F 20 7E 7F 80 FF 09 30 . ~\x7F...0\n"},
        {nullptr, 5, 16, "<<NULL ptr>>\n"},
        {nullptr, 0, 16, "<<NULL ptr>>\n"},
        {"AB", 0, 16, "<<zero length>>\n"},
        {"AB", 2, 0, "0000: 41 A\n0001: 42 B\n"}, // zero bytes per line is taken as one
        {"AB", 2, 2, "0000: 41 42 AB\n"},          // exactly one full line: no empty second one
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.expected, CaptureTrace([&] { DumpBytesEx(c.data, c.length, c.perLine); })) << c.expected;
    // A pending partial line is completed by the dump's first line, also with
    // the trace mutex already held by the caller.
    EXPECT_EQ("rx: 0000: 41 42 AB\nheld\n0000: 31 1\n", CaptureTrace([&] {
                  tprint("rx: ");
                  DumpBytesEx("AB", 2, 2);
                  PxMutexLock lock(gTraceMutex);
                  tprint("held\n");
                  DumpBytesEx("1", 1, 1);
              }));
}

TEST_F(TraceTest, DumpOffsetWrapsAtSixtyFourKilobytesAndVeryLongLinesComeOutWhole)
{
    std::vector<unsigned char> data(0x10000 + 20, 0x55);
    std::string out = CaptureTrace([&] { DumpBytesEx(data.data(), static_cast<unsigned int>(data.size()), 16); });
    ASSERT_TRUE(!out.empty() && out.back() == '\n') << "the last line is incomplete";
    const std::vector<std::string> lines = Lines(out);
    ASSERT_EQ(4096u + 2u, lines.size());
    EXPECT_EQ("FFF0: ", lines[4095].substr(0, 6));
    EXPECT_EQ("0000: ", lines[4096].substr(0, 6));
    EXPECT_EQ("0010: 55 55 55 55 ", lines[4097].substr(0, 18));
    for (const std::string& l : lines)
        ASSERT_EQ(6u + 16u * 3u + 16u, l.size());

    // A line wider than any fixed buffer in the dump still comes out whole.
    for (size_t i = 0; i < 1000; i++)
        data[i] = static_cast<unsigned char>('a' + i % 26);
    out = CaptureTrace([&] { DumpBytesEx(data.data(), 1000, 1000); });
    ASSERT_EQ(6u + 3000u + 1000u + 1u, out.size());
    EXPECT_EQ("0000: 61 62 63 ", out.substr(0, 15));
    EXPECT_EQ(std::string(data.begin(), data.begin() + 1000) + "\n", out.substr(3006));
}

namespace {
void VPrintThrough(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    VPrint(format, args);
    va_end(args);
}
void DebugVPrintfThrough(TbDebug::TraceChannel channel, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    TbDebug::DebugVPrintf(channel, format, args);
    va_end(args);
}
} // namespace

TEST_F(TraceTest, VPrintFormatsLikePrintf)
{
    EXPECT_EQ("x=0x0000002A s=str c=Z\n", CaptureTrace([] { VPrintThrough("x=0x%08X s=%s c=%c\n", 42u, "str", 'Z'); }));
}

TEST_F(TraceTest, MessageThatFillsTheFormattingBufferIsPrintedALongerOneAborts)
{
    std::string text(cTraceMessageBufferSize - 2, 'm'); // plus newline plus terminator: exactly full
    EXPECT_EQ(text + "\n", CaptureTrace([&] { tprint("%s\n", text.c_str()); }));
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    text.append(2, 'm');
    EXPECT_DEATH(tprint("%s", text.c_str()), "trace message does not fit");
}

TEST_F(TraceTest, ChannelMapping)
{
    using namespace TbDebug;
    EXPECT_EQ(0x01u, ChannelMask(TrcError));
    EXPECT_EQ(0x04u, ChannelMask(TrcInfo));
    EXPECT_EQ(0x08u, ChannelMask(TrcVerbose));
    EXPECT_EQ(0x08u, ChannelMask(TrcFunction));
    EXPECT_EQ(0x08u, ChannelMask(TrcDump));

    const TraceChannel channels[] = {TrcError, TrcInfo, TrcVerbose, TrcFunction, TrcDump};
    const char* names[] = {"E", "I", "V", "F", "D"};
    auto printAll = [&] {
        for (int i = 0; i < 5; i++) {
            DebugPrint(channels[i], "%s", names[i]);
            DebugVPrintfThrough(channels[i], "%s", names[i]);
        }
        tprint("\n");
    };
    // Warnings and function entry/exit are out of the wrappers' reach.
    EXPECT_EQ("\n", CaptureTrace(KARVEX_TRACE_WARNING | KARVEX_TRACE_FUNCTION | KARVEX_TRACE_PROTOCOL |
                                     KARVEX_TRACE_PROTODUMP, printAll));
    EXPECT_EQ("EE\n", CaptureTrace(KARVEX_TRACE_ERROR, printAll));
    EXPECT_EQ("II\n", CaptureTrace(KARVEX_TRACE_INFO, printAll));
    EXPECT_EQ("VVFFDD\n", CaptureTrace(KARVEX_TRACE_VERBOSE, printAll));
}

TEST_F(TraceTest, DebugDumpBytesUsesSixteenPerLineOnTheChannelBit)
{
    unsigned char data[17];
    for (int i = 0; i < 17; i++)
        data[i] = static_cast<unsigned char>(i);
    auto dump = [&] { TbDebug::DebugDumpBytes(TbDebug::TrcDump, data, 17); };
    EXPECT_EQ("", CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_INFO, dump));
    std::string out = CaptureTrace(KARVEX_TRACE_VERBOSE, dump);
    EXPECT_EQ(0u, out.find("0000: 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F ................\n0010: 10 "));
}

TEST_F(TraceTest, CheckingAssertionFollowsTheErrorBitFatalOneIgnoresTheMask)
{
    for (unsigned int mask : {0u, 1u, 0x7Eu, 0x7Fu}) {
        TPosixSetTraceMask(mask);
        EXPECT_EQ(mask & KARVEX_TRACE_ERROR ? "\nASSERTION FAILED: (x>0)\n  some/file.cpp(42)\n" : "",
                  CaptureTrace([] { TbDebug::AssertFailed("x>0", "some/file.cpp", 42); }))
            << mask;
        EXPECT_EQ("\nFATAL: ASSERTION FAILED: (IsOpen())\n  a.cpp(7)\n",
                  CaptureTrace([] { TbDebug::FatalAssertFailed("IsOpen()", "a.cpp", 7); }))
            << mask;
    }
}

TEST_F(TraceTest, AssertionMacrosReportSourceTextAndContinue)
{
    TPosixSetTraceMask(0);
    int reached = 0;
    unsigned int line = 0;
    std::string out = CaptureTrace([&] {
        TB_ASSERT(1 == 2);
        reached++;
        line = __LINE__ + 1;
        TB_FATAL_ASSERT(reached == 5);
        reached++;
        TB_FATAL_ASSERT(reached == 2); // holds: silent
    });
    EXPECT_EQ(2, reached);
    EXPECT_EQ("\nFATAL: ASSERTION FAILED: (reached == 5)\n  tests/unit/trace.cpp(" + std::to_string(line) + ")\n",
              out);

    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    out = CaptureTrace([&] {
        line = __LINE__ + 1;
        TB_ASSERT(reached < 0);
    });
    EXPECT_EQ("\nASSERTION FAILED: (reached < 0)\n  tests/unit/trace.cpp(" + std::to_string(line) + ")\n", out);
}

namespace {
void TraceFromHere(int v)
{
    PXTRACE_WARN("%s: value %d\n", v);
}
} // namespace

TEST_F(TraceTest, TraceMacroTestsItsBitAndNamesTheFunction)
{
    EXPECT_EQ("", CaptureTrace(KARVEX_TRACE_ERROR, [] { TraceFromHere(1); }));
    EXPECT_EQ("void {anonymous}::TraceFromHere(int): value 2\n",
              CaptureTrace(KARVEX_TRACE_WARNING, [] { TraceFromHere(2); }));
}

// Lines longer than the line buffer: everything is emitted, in order, and no
// write leaves the buffer (this test is meant to run under ASan as well).
class OverlongLineTest : public TraceTest, public ::testing::WithParamInterface<unsigned int> {};

TEST_P(OverlongLineTest, EveryCharacterIsEmittedInOrder)
{
    const unsigned int length = GetParam();
    std::string text;
    for (unsigned int i = 0; i < length; i++)
        text.push_back(static_cast<char>('A' + i % 26));
    std::string out = CaptureTrace([&] {
        for (unsigned int pos = 0; pos < length; pos += 1000)
            tprint("%s", text.substr(pos, 1000).c_str());
        // Whatever is pending, the terminator after it is still in the buffer.
        EXPECT_LT(gTraceLineBufferOffest, cTraceLineBufferSize);
        EXPECT_EQ('\0', gTraceLineBuffer[cTraceLineBufferSize - 1]);
        tprint("\n");
    });
    EXPECT_EQ(text + "\n", out);
    EXPECT_EQ(0u, gTraceLineBufferOffest);
    EXPECT_EQ(0u, gCol);
}

// 4094: the newline lands on the last but one element; 4095: on the last one.
INSTANTIATE_TEST_SUITE_P(Lengths, OverlongLineTest, ::testing::Values(4094u, 4095u, 4096u, 4097u, 8190u, 8191u, 10000u));

TEST_F(TraceTest, ConcurrentLinesNeverInterleave)
{
    const int threads = 4;
    const int linesPerThread = 200;
    std::string out = CaptureTrace([&] {
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; t++) {
            workers.emplace_back([t] {
                const unsigned char data[4] = {static_cast<unsigned char>('a' + t), 'b', 'c', 'd'};
                for (int i = 0; i < linesPerThread; i++) {
                    tprint("thread %d line %d %s\n", t, i, "payload-payload-payload");
                    DumpBytesEx(data, 4, 2);
                }
            });
        }
        for (std::thread& w : workers)
            w.join();
    });
    ASSERT_TRUE(!out.empty() && out.back() == '\n') << "the last line is incomplete";
    const std::vector<std::string> lines = Lines(out);
    ASSERT_EQ(static_cast<size_t>(threads * linesPerThread * 3), lines.size());
    std::multiset<std::string> seen(lines.begin(), lines.end());
    for (int t = 0; t < threads; t++) {
        for (int i = 0; i < linesPerThread; i++) {
            std::string line = "thread " + std::to_string(t) + " line " + std::to_string(i) + " payload-payload-payload";
            ASSERT_EQ(1u, seen.count(line)) << line;
        }
        char first[32];
        snprintf(first, sizeof(first), "0000: %02X 62 %cb", 'a' + t, 'a' + t);
        EXPECT_EQ(static_cast<size_t>(linesPerThread), seen.count(first)) << first;
    }
    // A dump is written under one lock: its two lines are always adjacent.
    for (size_t i = 0; i < lines.size(); i++) {
        if (lines[i].compare(0, 6, "0000: ") == 0) {
            ASSERT_LT(i + 1, lines.size());
            ASSERT_EQ("0002: 63 64 cd", lines[i + 1]) << i;
        }
    }
}
