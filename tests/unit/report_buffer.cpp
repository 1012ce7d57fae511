// The HID report buffer: layout accessors and the fatal assertions that
// report misuse whatever the trace mask.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "liblinux/LxHidRawReportBuffer.h"
#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

// One fatal assertion report from this header.
std::string FatalRe(const std::string& escapedExpr)
{
    return "\nFATAL: ASSERTION FAILED: \\(" + escapedExpr + "\\)\n  liblinux/LxHidRawReportBuffer\\.h\\([0-9]+\\)\n";
}

} // namespace

TEST(ReportBuffer, LayoutIsIdByteThenData)
{
    LxHidRawReportBuffer b;
    ASSERT_TRUE(b.AllocateBuffer(65));
    b.ZeroBuffer();
    EXPECT_EQ(b.Buffer() + 1, b.ReportData());
    EXPECT_EQ(64u, b.ReportDataSize());

    for (T_UINT32 i = 0; i < b.ReportDataSize(); ++i)
        b.ReportData()[i] = static_cast<T_UINT8>(0xA0 + i);
    b.SetReportId(5);
    EXPECT_EQ(5, b.GetReportId());
    EXPECT_EQ(5, b.Buffer()[0]);
    for (T_UINT32 i = 0; i < b.ReportDataSize(); ++i)
        ASSERT_EQ(static_cast<T_UINT8>(0xA0 + i), b.ReportData()[i]) << i;

    b.SetBytesTransferred(17);
    EXPECT_EQ(17u, b.BytesTransferred());
}

TEST(ReportBuffer, AccessWithoutStorageReportsFatallyEvenWithMaskZero)
{
    LxHidRawReportBuffer b;
    EXPECT_FALSE(b.IsValid());
    EXPECT_EQ(0u, b.BufferSize());
    EXPECT_EQ(0u, b.BytesTransferred());
    std::string out = CaptureTrace(0, [&] { EXPECT_EQ(nullptr, b.ReportData()); });
    EXPECT_TRUE(std::regex_match(out, std::regex(FatalRe("IsValid\\(\\)")))) << out;

    out = CaptureTrace(0, [&] { EXPECT_EQ(0u, b.ReportDataSize()); });
    EXPECT_TRUE(std::regex_match(out, std::regex(FatalRe("IsValid\\(\\)") + FatalRe("BufferSize\\(\\)>=2")))) << out;

    out = CaptureTrace(0, [&] { b.SetReportId(3); });
    EXPECT_TRUE(std::regex_match(out, std::regex(FatalRe("IsValid\\(\\)")))) << out;
    EXPECT_EQ(0, b.GetReportId());
}

TEST(ReportBuffer, OneByteBufferHasNoDataTwoBytesHaveOne)
{
    LxHidRawReportBuffer b;
    ASSERT_TRUE(b.AllocateBuffer(1));
    std::string out = CaptureTrace(0, [&] { EXPECT_EQ(0u, b.ReportDataSize()); });
    EXPECT_TRUE(std::regex_match(out, std::regex(FatalRe("BufferSize\\(\\)>=2")))) << out;
    // Only the ID byte: SetReportId is fine.
    out = CaptureTrace(0, [&] { b.SetReportId(9); });
    EXPECT_EQ("", out);
    EXPECT_EQ(9, b.GetReportId());

    // Two bytes are the smallest buffer with data; freeing twice is harmless.
    ASSERT_TRUE(b.AllocateBuffer(2));
    out = CaptureTrace(0, [&] {
        EXPECT_EQ(1u, b.ReportDataSize());
        EXPECT_EQ(b.Buffer() + 1, b.ReportData());
    });
    EXPECT_EQ("", out);
    b.FreeBuffer();
    b.FreeBuffer();
    EXPECT_FALSE(b.IsValid());
    EXPECT_EQ(0u, b.BufferSize());
}

