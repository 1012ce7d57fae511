// String family (char, wchar_t, 16-bit USB text, mixed widths) and bit
// operations.
#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <regex>
#include <string>
#include <type_traits>
#include <vector>

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

// The first n elements as unsigned values, for comparing mixed-width text.
template <typename T>
std::vector<unsigned int> Units(const T* p, size_t n)
{
    std::vector<unsigned int> v;
    for (size_t i = 0; i < n; i++)
        v.push_back(static_cast<typename std::make_unsigned<T>::type>(p[i]));
    return v;
}
typedef std::vector<unsigned int> U;

class StringTest : public ::testing::Test {
protected:
    void SetUp() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR); }
    void TearDown() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }
};

} // namespace

// Each call on an 8-element buffer of '#' holding start; nothing at or
// beyond the limit is written, and the terminator is returned.
TEST_F(StringTest, LCopyAndLCatCutAtTheLimitAndReturnTheTerminator)
{
    struct {
        bool cat;
        const char* start;
        unsigned int limit;
        const char* source;
        const char* expected;
    } const cases[] = {
        {false, "", 4, "abcdef", "abc"}, {false, "", 4, "xyz", "xyz"}, // cut, exact fit
        {false, "", 8, "", ""},          {false, "", 1, "abc", ""},    // empty source, one-element room
        {true, "ab", 5, "cdef", "abcd"}, {true, "abcd", 5, "zz", "abcd"}, // cut, already full
        {true, "abcd", 8, "", "abcd"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cat ? "LCat " : "LCopy ") + c.start + "+" + c.source + " " +
                     std::to_string(c.limit));
        char buf[8];
        memset(buf, '#', sizeof(buf));
        if (c.cat)
            strcpy(buf, c.start);
        char* end = c.cat ? TbStringLCat(buf, buf + c.limit, c.source) : TbStringLCopy(buf, buf + c.limit, c.source);
        EXPECT_STREQ(c.expected, buf);
        EXPECT_EQ(buf + strlen(c.expected), end);
        for (size_t i = c.cat ? std::max<size_t>(c.limit, strlen(c.start) + 1) : c.limit; i < sizeof(buf); i++)
            EXPECT_EQ('#', buf[i]) << i;
    }
    // The returned terminator continues the string.
    char buf[8];
    char* end = TbStringLCopy(buf, buf + 8, "ab");
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
    EXPECT_EQ((U{0x41, 0x41, 0xE9, 0}), Units(c, 4));
    EXPECT_EQ(c + 4, TbStringLCat(c, c + 5, wide));
    EXPECT_EQ((U{0x41, 0x41, 0xE9, 0x41, 0}), Units(c, 5));

    // Narrow to wide zero-extends.
    EXPECT_EQ(w + 2, TbStringLCopy(w, w + 8, "\xE9z"));
    EXPECT_EQ(w + 4, TbStringLCat(w, w + 8, "\xFF!"));
    EXPECT_EQ((U{0xE9, 'z', 0xFF, '!', 0}), Units(w, 5));
}

// NCopy counts what it copied, NCat the resulting length; maxChars includes
// the terminator and nothing beyond it is written.
TEST_F(StringTest, NCopyAndNCatUseTheWholeCapacity)
{
    struct {
        bool cat;
        const char* start;
        const char* source;
        unsigned int maxChars, result;
        const char* expected;
    } const cases[] = {
        {false, "", "abcdef", 4, 3, "abc"}, {false, "", "abcdef", 1, 0, ""},
        {false, "", "ab", 8, 2, "ab"},      {false, "", "", 8, 0, ""},
        {true, "ab", "cdef", 5, 4, "abcd"}, {true, "abcd", "x", 5, 4, "abcd"}, // cut, full already
        {true, "abcd", "x", 3, 4, "abcd"},  // existing text longer than the capacity is left alone
        {true, "abcd", "ef", 8, 6, "abcdef"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.cat ? "NCat " : "NCopy ") + c.start + "+" + c.source + " " +
                     std::to_string(c.maxChars));
        char buf[8];
        memset(buf, '#', sizeof(buf));
        if (c.cat)
            strcpy(buf, c.start);
        EXPECT_EQ(c.result, c.cat ? TbStringNCat(buf, c.source, c.maxChars) : TbStringNCopy(buf, c.source, c.maxChars));
        EXPECT_STREQ(c.expected, buf);
        for (size_t i = c.cat ? std::max<size_t>(c.maxChars, strlen(c.start) + 1) : c.maxChars; i < sizeof(buf); i++)
            EXPECT_EQ('#', buf[i]) << i;
    }
}

TEST_F(StringTest, ZeroCapacityAssertsNCopyStillTerminates)
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

    char text[8] = "abcdef";
    out = CaptureTrace([&] { n = TbStringNCat(text, "zz", 0); });
    EXPECT_EQ(6u, n);
    EXPECT_STREQ("abcdef", text);
    EXPECT_TRUE(IsAssertionReport(out, "maxChars>0")) << out;
}

TEST_F(StringTest, WideAndMixedNCopyAndNCat)
{
    // char -> unsigned short sign-extends; wchar_t <- char does not.
    unsigned short u[8];
    EXPECT_EQ(3u, TbStringNCopy(u, "\xE9" "A\x80", 8));
    EXPECT_EQ((U{0xFFE9, 0x41, 0xFF80, 0}), Units(u, 4));
    wchar_t w[8];
    EXPECT_EQ(2u, TbStringNCopy(w, "\xE9" "A", 8));
    EXPECT_EQ((U{0xE9, 0x41, 0}), Units(w, 3));

    const wchar_t wide[] = {0x1234, 0x7A, 0};
    char c[8];
    EXPECT_EQ(2u, TbStringNCopy(c, wide, 8));
    EXPECT_EQ((U{0x34, 'z', 0}), Units(c, 3));

    const unsigned short usb[] = {0xFFE9, 0x0041, 0x1234, 0};
    unsigned short u2[3];
    EXPECT_EQ(2u, TbStringNCopy(u2, usb, 3));
    EXPECT_EQ((U{0xFFE9, 0x41, 0}), Units(u2, 3));
    wchar_t w2[3];
    EXPECT_EQ(2u, TbStringNCopy(w2, L"abcd", 3));
    EXPECT_EQ(std::wstring(L"ab"), w2);

    wchar_t wc[8] = L"ab";
    EXPECT_EQ(4u, TbStringNCat(wc, L"cdef", 5));
    EXPECT_EQ(std::wstring(L"abcd"), wc);
    EXPECT_EQ(6u, TbStringNCat(wc, "\xE9!", 8));
    EXPECT_EQ((U{'a', 'b', 'c', 'd', 0xE9, '!', 0}), Units(wc, 7));
    char cc[8] = "x";
    const wchar_t wide2[] = {0x1241, 0x42, 0};
    EXPECT_EQ(3u, TbStringNCat(cc, wide2, 8));
    EXPECT_STREQ("xAB", cc);
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
    struct {
        const char *a, *b;
        bool equal, equalIgnoringCase;
    } const cases[] = {
        {"abc", "abc", true, true},   {"", "", true, true},          {"abc", "abcd", false, false},
        {"abcd", "abc", false, false}, {"abc", "ABC", false, true},   {"/dev/HIDraw3", "/DEV/hidraw3", false, true},
        {"", "a", false, false},
        // ASCII letters only: '@'/'`' and '['/'{' differ by 32 but are not letters.
        {"@", "`", false, false},     {"[", "{", false, false},      {"\xC9", "\xE9", false, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.equal, TbStringEqual(c.a, c.b)) << c.a << " " << c.b;
        EXPECT_EQ(c.equalIgnoringCase, TbStringEqualIgnoreCase(c.a, c.b)) << c.a << " " << c.b;
    }
    EXPECT_TRUE(TbStringEqual(L"abc", L"abc"));
    EXPECT_FALSE(TbStringEqual(L"abc", L"abd"));
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
    struct {
        const char *in, *chars;
        char with;
        unsigned int count;
        const char* out;
    } const cases[] = {
        {"a-b_c", "-_", ' ', 2, "a b c"}, {"abc", "", 'x', 0, "abc"},
        {"x-y", "--", '+', 2, "x+y"}, // a character listed twice counts twice for one replacement
        {"a", "ab", 'b', 1, "b"},     // matching uses the value before replacement
    };
    for (const auto& c : cases) {
        char buf[8];
        strcpy(buf, c.in);
        EXPECT_EQ(c.count, TbReplaceCharsInString(buf, c.chars, c.with)) << c.in;
        EXPECT_STREQ(c.out, buf);
    }
    char v[] = "abc";
    EXPECT_EQ(0u, TbReplaceCharInString(v, '\0', 'x'));
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
    // Begin then end, each reporting whether it removed anything; a second
    // round finds nothing more.
    struct {
        const char *in, *out;
        bool begin, end;
    } const cases[] = {
        {" \t\n\v\f\rx y ", "x y", true, true},
        {" \t ", "", true, false}, // all white space goes in the first call
        {"", "", false, false},
        {"\x08z\x0E", "\x08z\x0E", false, false}, // 8 and 14 are just outside the white space class
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        char buf[16];
        strcpy(buf, c.in);
        EXPECT_EQ(c.begin, TbStringTrimBegin(buf));
        EXPECT_EQ(c.end, TbStringTrimEnd(buf));
        EXPECT_STREQ(c.out, buf);
        EXPECT_FALSE(TbStringTrimBegin(buf));
        EXPECT_FALSE(TbStringTrimEnd(buf));
    }
    char only[] = "\r\n";
    EXPECT_TRUE(TbStringTrimEnd(only));
    EXPECT_STREQ("", only);

    wchar_t w[] = L"  ab \t";
    EXPECT_TRUE(TbStringTrimBegin(w));
    EXPECT_TRUE(TbStringTrimEnd(w));
    EXPECT_EQ(std::wstring(L"ab"), w);
    wchar_t ws[] = {0x120, L'a', 0};
    EXPECT_FALSE(TbStringTrimBegin(ws));
}

TEST_F(StringTest, RemoveQuotes)
{
    struct {
        const char* in;
        char quote;
        bool removed;
        const char* out;
    } const cases[] = {
        {"'x'", '\'', true, "x"},    {"'x", '\'', false, "'x"}, {"x'", '\'', false, "x'"},
        {"''", '\'', true, ""},      {"'", '\'', false, "'"},   // one character is no pair
        {"\"quoted text\"", '\'', false, "\"quoted text\""}, {"\"quoted text\"", '"', true, "quoted text"},
    };
    for (const auto& c : cases) {
        char buf[16];
        strcpy(buf, c.in);
        EXPECT_EQ(c.removed, TbStringRemoveQuotes(buf, c.quote)) << c.in;
        EXPECT_STREQ(c.out, buf);
    }
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
    const unsigned char cases[][2] = {{0x01, 0x80}, {0x00, 0x00}, {0xFF, 0xFF},
                                      {0xF0, 0x0F}, {0xA5, 0xA5}, {0x34, 0x2C}};
    for (const auto& c : cases)
        EXPECT_EQ(c[1], TbReverseByte(c[0])) << int(c[0]);
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
