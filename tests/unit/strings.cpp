// String family (char, wchar_t, 16-bit USB text, mixed widths) and bit
// operations.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <regex>
#include <string>

#include "libposix/PxTrace.h"
#include "libtb/TbBitOps.h"
#include "libtb/TbStringUtils.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

// The checking assertion as reported from the string unit.
bool IsAssertionReport(const std::string& out, const char* expression)
{
    std::string pattern = std::string("\nASSERTION FAILED: \\(") + expression + "\\)\n  libtb/TbStringUtils\\.cpp\\([0-9]+\\)\n";
    return std::regex_match(out, std::regex(pattern));
}

class StringTest : public ::testing::Test {
protected:
    void SetUp() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR); }
    void TearDown() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }
};

} // namespace

TEST_F(StringTest, LCopyCutsAndReturnsTheTerminator)
{
    char buf[8];
    memset(buf, '#', sizeof(buf));
    char* end = TbStringLCopy(buf, buf + 4, "abcdef");
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ(buf + 3, end);
    EXPECT_EQ('#', buf[4]); // nothing beyond the limit

    // Exact fit: nothing cut.
    end = TbStringLCopy(buf, buf + 4, "xyz");
    EXPECT_STREQ("xyz", buf);
    EXPECT_EQ(buf + 3, end);

    // Empty source and a one-element destination give the empty string.
    EXPECT_EQ(buf, TbStringLCopy(buf, buf + 8, ""));
    EXPECT_STREQ("", buf);
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(buf, TbStringLCopy(buf, buf + 1, "abc"));
    EXPECT_EQ('\0', buf[0]);
    EXPECT_EQ('#', buf[1]);

    // The returned terminator continues the string.
    end = TbStringLCopy(buf, buf + 8, "ab");
    end = TbStringLCopy(end, buf + 8, "cdefgh");
    EXPECT_STREQ("abcdefg", buf);
    EXPECT_EQ(buf + 7, end);
}

TEST_F(StringTest, LCopyWithoutRoomAssertsAndWritesNothing)
{
    char buf[4];
    memset(buf, '#', sizeof(buf));
    char* end = nullptr;
    std::string out = CaptureTrace([&] { end = TbStringLCopy(buf, buf, "abc"); });
    EXPECT_TRUE(IsAssertionReport(out, "destinationLimit>destination")) << out;
    EXPECT_EQ(buf, end);
    EXPECT_EQ(0, memcmp(buf, "####", 4));
    out = CaptureTrace([&] { TbStringLCat(buf + 2, buf + 1, "abc"); });
    EXPECT_TRUE(IsAssertionReport(out, "destinationLimit>destination")) << out;
    EXPECT_EQ(0, memcmp(buf, "####", 4));
    // Silent with the error class off, same behaviour.
    TPosixSetTraceMask(0);
    EXPECT_EQ("", CaptureTrace([&] { TbStringLCopy(buf, buf, "abc"); }));
    EXPECT_EQ(0, memcmp(buf, "####", 4));
}

TEST_F(StringTest, LCatAppendsWithinTheLimit)
{
    char buf[8];
    memset(buf, '#', sizeof(buf));
    strcpy(buf, "ab");
    char* end = TbStringLCat(buf, buf + 5, "cdef");
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(buf + 4, end);
    EXPECT_EQ('#', buf[5]);
    // Already full: unchanged, terminator returned.
    end = TbStringLCat(buf, buf + 5, "zz");
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(buf + 4, end);
    // Empty source.
    end = TbStringLCat(buf, buf + 8, "");
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(buf + 4, end);
}

TEST_F(StringTest, WideAndMixedLCopyAndLCat)
{
    wchar_t w[8];
    EXPECT_EQ(w + 3, TbStringLCopy(w, w + 4, L"abcdef"));
    EXPECT_EQ(std::wstring(L"abc"), w);
    EXPECT_EQ(w + 5, TbStringLCat(w, w + 6, L"xyz"));
    EXPECT_EQ(std::wstring(L"abcxy"), w);

    // Wide to narrow keeps the low 8 bits.
    const wchar_t wide[] = {0x141, 0x41, 0x12E9, 0};
    char c[8];
    EXPECT_EQ(c + 3, TbStringLCopy(c, c + 8, wide));
    EXPECT_EQ(0x41, static_cast<unsigned char>(c[0]));
    EXPECT_EQ(0x41, static_cast<unsigned char>(c[1]));
    EXPECT_EQ(0xE9, static_cast<unsigned char>(c[2]));
    EXPECT_EQ(c + 4, TbStringLCat(c, c + 5, wide));
    EXPECT_EQ(0x41, static_cast<unsigned char>(c[3]));
    EXPECT_EQ('\0', c[4]);

    // Narrow to wide zero-extends.
    EXPECT_EQ(w + 2, TbStringLCopy(w, w + 8, "\xE9z"));
    EXPECT_EQ(0xE9, static_cast<int>(w[0]));
    EXPECT_EQ(L'z', w[1]);
    EXPECT_EQ(w + 4, TbStringLCat(w, w + 8, "\xFF!"));
    EXPECT_EQ(0xFF, static_cast<int>(w[2]));
    EXPECT_EQ(L'!', w[3]);
    EXPECT_EQ(0, static_cast<int>(w[4]));
}

TEST_F(StringTest, NCopyCountsWhatItCopied)
{
    char buf[8];
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(3u, TbStringNCopy(buf, "abcdef", 4));
    EXPECT_STREQ("abc", buf);
    EXPECT_EQ('#', buf[4]);
    EXPECT_EQ(0u, TbStringNCopy(buf, "abcdef", 1));
    EXPECT_STREQ("", buf);
    EXPECT_EQ(2u, TbStringNCopy(buf, "ab", 8));
    EXPECT_STREQ("ab", buf);
    EXPECT_EQ(0u, TbStringNCopy(buf, "", 8));
    EXPECT_STREQ("", buf);
}

TEST_F(StringTest, NCopyWithZeroCapacityAssertsAndStillTerminates)
{
    char buf[4] = {'x', 'y', 'z', '\0'};
    unsigned int n = 99;
    std::string out = CaptureTrace([&] { n = TbStringNCopy(buf, "abc", 0); });
    EXPECT_EQ(0u, n);
    EXPECT_EQ('\0', buf[0]);
    EXPECT_EQ('y', buf[1]);
    EXPECT_TRUE(IsAssertionReport(out, "maxChars>0")) << out;

    unsigned short u[2] = {1, 1};
    out = CaptureTrace([&] { n = TbStringNCopy(u, "abc", 0); });
    EXPECT_EQ(0u, u[0]);
    EXPECT_TRUE(IsAssertionReport(out, "maxChars>0")) << out;
}

TEST_F(StringTest, NCopyConversions)
{
    // char -> unsigned short sign-extends; wchar_t <- char does not.
    unsigned short u[8];
    EXPECT_EQ(3u, TbStringNCopy(u, "\xE9" "A\x80", 8));
    EXPECT_EQ(0xFFE9, u[0]);
    EXPECT_EQ(0x0041, u[1]);
    EXPECT_EQ(0xFF80, u[2]);
    EXPECT_EQ(0, u[3]);

    wchar_t w[8];
    EXPECT_EQ(2u, TbStringNCopy(w, "\xE9" "A", 8));
    EXPECT_EQ(0xE9, static_cast<int>(w[0]));
    EXPECT_EQ(0x41, static_cast<int>(w[1]));

    const wchar_t wide[] = {0x1234, 0x7A, 0};
    char c[8];
    EXPECT_EQ(2u, TbStringNCopy(c, wide, 8));
    EXPECT_EQ(0x34, static_cast<unsigned char>(c[0]));
    EXPECT_EQ('z', c[1]);
    EXPECT_EQ('\0', c[2]);

    const unsigned short usb[] = {0xFFE9, 0x0041, 0x1234, 0};
    unsigned short u2[3];
    EXPECT_EQ(2u, TbStringNCopy(u2, usb, 3));
    EXPECT_EQ(0xFFE9, u2[0]);
    EXPECT_EQ(0x0041, u2[1]);
    EXPECT_EQ(0, u2[2]);

    wchar_t w2[3];
    EXPECT_EQ(2u, TbStringNCopy(w2, L"abcd", 3));
    EXPECT_EQ(std::wstring(L"ab"), w2);
}

TEST_F(StringTest, NCatUsesTheWholeCapacity)
{
    char buf[8];
    memset(buf, '#', sizeof(buf));
    strcpy(buf, "ab");
    EXPECT_EQ(4u, TbStringNCat(buf, "cdef", 5));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ('#', buf[5]);
    // Full already: nothing appended.
    EXPECT_EQ(4u, TbStringNCat(buf, "x", 5));
    EXPECT_STREQ("abcd", buf);
    // Existing text longer than the capacity is left alone.
    EXPECT_EQ(4u, TbStringNCat(buf, "x", 3));
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ(6u, TbStringNCat(buf, "ef", 8));
    EXPECT_STREQ("abcdef", buf);

    unsigned int n = 0;
    std::string out = CaptureTrace([&] { n = TbStringNCat(buf, "zz", 0); });
    EXPECT_EQ(6u, n);
    EXPECT_STREQ("abcdef", buf);
    EXPECT_TRUE(IsAssertionReport(out, "maxChars>0")) << out;
}

TEST_F(StringTest, WideAndMixedNCat)
{
    wchar_t w[8] = L"ab";
    EXPECT_EQ(4u, TbStringNCat(w, L"cdef", 5));
    EXPECT_EQ(std::wstring(L"abcd"), w);
    EXPECT_EQ(6u, TbStringNCat(w, "\xE9!", 8));
    EXPECT_EQ(0xE9, static_cast<int>(w[4]));
    EXPECT_EQ(L'!', w[5]);

    char c[8] = "x";
    const wchar_t wide[] = {0x1241, 0x42, 0};
    EXPECT_EQ(3u, TbStringNCat(c, wide, 8));
    EXPECT_STREQ("xAB", c);
}

TEST_F(StringTest, Lengths)
{
    EXPECT_EQ(0u, TbStringLen(""));
    EXPECT_EQ(5u, TbStringLen("hello"));
    EXPECT_EQ(3u, TbStringLen(L"abc"));
    const unsigned short usb[] = {0xFFFF, 0x100, 1, 0, 5};
    EXPECT_EQ(3u, TbStringLen(usb));
    EXPECT_EQ(3u, TbStringLenUSB(usb));
    EXPECT_EQ(0u, TbStringLenUSB(usb + 3));
}

TEST_F(StringTest, Equality)
{
    EXPECT_TRUE(TbStringEqual("abc", "abc"));
    EXPECT_TRUE(TbStringEqual("", ""));
    EXPECT_FALSE(TbStringEqual("abc", "abcd"));
    EXPECT_FALSE(TbStringEqual("abcd", "abc"));
    EXPECT_FALSE(TbStringEqual("abc", "ABC"));
    EXPECT_TRUE(TbStringEqual(L"abc", L"abc"));
    EXPECT_FALSE(TbStringEqual(L"abc", L"abd"));

    EXPECT_TRUE(TbStringEqualIgnoreCase("/dev/HIDraw3", "/DEV/hidraw3"));
    EXPECT_TRUE(TbStringEqualIgnoreCase("", ""));
    EXPECT_FALSE(TbStringEqualIgnoreCase("abc", "ABCD"));
    EXPECT_FALSE(TbStringEqualIgnoreCase("ABCD", "abc"));
    EXPECT_FALSE(TbStringEqualIgnoreCase("", "a"));
    // ASCII letters only: '@'/'`' and '['/'{' differ by 32 but are not letters.
    EXPECT_FALSE(TbStringEqualIgnoreCase("@", "`"));
    EXPECT_FALSE(TbStringEqualIgnoreCase("[", "{"));
    EXPECT_FALSE(TbStringEqualIgnoreCase("\xC9", "\xE9"));
    EXPECT_TRUE(TbStringEqualIgnoreCase(L"MiXeD", L"mIxEd"));
    const wchar_t upperE[] = {0xC9, 0};
    const wchar_t lowerE[] = {0xE9, 0};
    EXPECT_FALSE(TbStringEqualIgnoreCase(upperE, lowerE));
    // Wide elements whose low byte is a letter are not letters.
    const wchar_t w1[] = {0x161, 0};
    const wchar_t w2[] = {0x141, 0};
    EXPECT_FALSE(TbStringEqualIgnoreCase(w1, w2));
}

TEST_F(StringTest, ReplaceChars)
{
    char s[] = "a-b_c";
    EXPECT_EQ(2u, TbReplaceCharsInString(s, "-_", ' '));
    EXPECT_STREQ("a b c", s);

    // A character listed twice counts twice for one replacement.
    char t[] = "x-y";
    EXPECT_EQ(2u, TbReplaceCharsInString(t, "--", '+'));
    EXPECT_STREQ("x+y", t);

    // Matching uses the value before replacement.
    char u[] = "a";
    EXPECT_EQ(1u, TbReplaceCharsInString(u, "ab", 'b'));
    EXPECT_STREQ("b", u);

    char v[] = "abc";
    EXPECT_EQ(0u, TbReplaceCharsInString(v, "", 'x'));
    EXPECT_EQ(0u, TbReplaceCharInString(v, '\0', 'x'));
    EXPECT_STREQ("abc", v);
    EXPECT_EQ(1u, TbReplaceCharInString(v, 'b', 'B'));
    EXPECT_STREQ("aBc", v);

    wchar_t w[] = L"1:2:3";
    EXPECT_EQ(2u, TbReplaceCharInString(w, L':', L'.'));
    EXPECT_EQ(std::wstring(L"1.2.3"), w);
    EXPECT_EQ(4u, TbReplaceCharsInString(w, L"13.", L'x'));
    EXPECT_EQ(std::wstring(L"xx2xx"), w);
}

TEST_F(StringTest, Trim)
{
    char a[] = " \t\n\v\f\rx y ";
    EXPECT_TRUE(TbStringTrimBegin(a));
    EXPECT_STREQ("x y ", a);
    EXPECT_FALSE(TbStringTrimBegin(a));
    EXPECT_TRUE(TbStringTrimEnd(a));
    EXPECT_STREQ("x y", a);
    EXPECT_FALSE(TbStringTrimEnd(a));

    char only[] = " \t ";
    EXPECT_TRUE(TbStringTrimBegin(only));
    EXPECT_STREQ("", only);
    char only2[] = "\r\n";
    EXPECT_TRUE(TbStringTrimEnd(only2));
    EXPECT_STREQ("", only2);

    char empty[] = "";
    EXPECT_FALSE(TbStringTrimBegin(empty));
    EXPECT_FALSE(TbStringTrimEnd(empty));

    // Characters 8 and 14 are just outside the white space class.
    char edge[] = "\x08z\x0E";
    EXPECT_FALSE(TbStringTrimBegin(edge));
    EXPECT_FALSE(TbStringTrimEnd(edge));
    EXPECT_STREQ("\x08z\x0E", edge);

    wchar_t w[] = L"  ab \t";
    EXPECT_TRUE(TbStringTrimBegin(w));
    EXPECT_TRUE(TbStringTrimEnd(w));
    EXPECT_EQ(std::wstring(L"ab"), w);
    const wchar_t wideSpace[] = {0x120, L'a', 0};
    wchar_t ws[3];
    wcscpy(ws, wideSpace);
    EXPECT_FALSE(TbStringTrimBegin(ws));
}

TEST_F(StringTest, RemoveQuotes)
{
    char a[] = "'x'";
    EXPECT_TRUE(TbStringRemoveQuotes(a, '\''));
    EXPECT_STREQ("x", a);
    char b[] = "'x";
    EXPECT_FALSE(TbStringRemoveQuotes(b, '\''));
    EXPECT_STREQ("'x", b);
    char c[] = "''";
    EXPECT_TRUE(TbStringRemoveQuotes(c, '\''));
    EXPECT_STREQ("", c);
    char d[] = "'";
    EXPECT_FALSE(TbStringRemoveQuotes(d, '\''));
    EXPECT_STREQ("'", d);
    char e[] = "\"quoted text\"";
    EXPECT_FALSE(TbStringRemoveQuotes(e, '\''));
    EXPECT_TRUE(TbStringRemoveQuotes(e, '"'));
    EXPECT_STREQ("quoted text", e);
    char f[] = "x'";
    EXPECT_FALSE(TbStringRemoveQuotes(f, '\''));
    wchar_t w[] = L"|ab|";
    EXPECT_TRUE(TbStringRemoveQuotes(w, L'|'));
    EXPECT_EQ(std::wstring(L"ab"), w);
}

TEST_F(StringTest, CaseConversion)
{
    char s[] = "aZ9{`@[z\xE9";
    EXPECT_EQ(s, TbStringToUpperCase(s));
    EXPECT_STREQ("AZ9{`@[Z\xE9", s);
    EXPECT_EQ(s, TbStringToLowerCase(s));
    EXPECT_STREQ("az9{`@[z\xE9", s);
    wchar_t w[] = L"Ab-c";
    EXPECT_EQ(w, TbStringToUpperCase(w));
    EXPECT_EQ(std::wstring(L"AB-C"), w);
    EXPECT_EQ(w, TbStringToLowerCase(w));
    EXPECT_EQ(std::wstring(L"ab-c"), w);

    for (int c = 0; c < 256; c++) {
        char ch = static_cast<char>(c);
        bool lower = c >= 'a' && c <= 'z';
        bool upper = c >= 'A' && c <= 'Z';
        EXPECT_EQ(lower ? static_cast<char>(c - 32) : ch, TbToUpperCaseChar(ch)) << c;
        EXPECT_EQ(upper ? static_cast<char>(c + 32) : ch, TbToLowerCaseChar(ch)) << c;
    }
    EXPECT_EQ(static_cast<wchar_t>(0x161), TbToUpperCaseChar(static_cast<wchar_t>(0x161)));
    EXPECT_EQ(L'Q', TbToUpperCaseChar(L'q'));
    EXPECT_EQ(L'q', TbToLowerCaseChar(L'Q'));
}

TEST_F(StringTest, HexDigits)
{
    EXPECT_EQ('C', TbDigitToHexChar(0x1C, true));
    EXPECT_EQ('c', TbDigitToHexChar(0x1C, false));
    EXPECT_EQ('F', TbDigitToHexChar(-1, true));
    EXPECT_EQ('0', TbDigitToHexChar(16, true));
    EXPECT_EQ('9', TbDigitToHexChar(9, false));
    EXPECT_EQ('a', TbDigitToHexChar(10, false));
    for (int d = 0; d < 16; d++) {
        EXPECT_EQ(d, TbHexCharToDigit(TbDigitToHexChar(d, true)));
        EXPECT_EQ(d, TbHexCharToDigit(TbDigitToHexChar(d, false)));
    }
    for (int c : {int('g'), int('G'), int('/'), int(':'), int('@'), int('`'), int(' '), 0, -1, 0x130, int('x')})
        EXPECT_EQ(-1, TbHexCharToDigit(c)) << c;
}

TEST(BitOpsTest, ReverseByte)
{
    EXPECT_EQ(0x80, TbReverseByte(0x01));
    EXPECT_EQ(0x00, TbReverseByte(0x00));
    EXPECT_EQ(0xFF, TbReverseByte(0xFF));
    EXPECT_EQ(0x0F, TbReverseByte(0xF0));
    EXPECT_EQ(0xA5, TbReverseByte(0xA5));
    EXPECT_EQ(0x2C, TbReverseByte(0x34));
    for (int i = 0; i < 8; i++)
        EXPECT_EQ(1 << (7 - i), TbReverseByte(static_cast<unsigned char>(1 << i))) << i;
    for (int b = 0; b < 256; b++)
        EXPECT_EQ(b, TbReverseByte(TbReverseByte(static_cast<unsigned char>(b)))) << b;
}

TEST(BitOpsTest, NumberOfBitsSet)
{
    EXPECT_EQ(8u, TbNumberOfBitsSet(0x0000FF00u));
    EXPECT_EQ(8u, TbNumberOfBitsSet(0x80402010u | 0x08040201u));
    EXPECT_EQ(0u, TbNumberOfBitsSet(0u));
    EXPECT_EQ(32u, TbNumberOfBitsSet(0xFFFFFFFFu));
    EXPECT_EQ(1u, TbNumberOfBitsSet(1UL << 63));
    EXPECT_EQ(64u, TbNumberOfBitsSet(~0UL));
    EXPECT_EQ(32u, TbNumberOfBitsSet(0xFFFFFFFF00000000ULL));
    EXPECT_EQ(64u, TbNumberOfBitsSet(~0ULL));
    EXPECT_EQ(0u, TbNumberOfBitsSet(0ULL));
}
