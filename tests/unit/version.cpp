// Version functions and their traces.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <utility>

#include "karvex/karvex_api.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

class VersionTest : public ::testing::Test {
protected:
    void TearDown() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }
};

const char* kSig = "int KARVEX_CheckApiVersion(unsigned int, unsigned int)";

} // namespace

TEST_F(VersionTest, ApiVersionAndCharSizeIgnoreTheMask)
{
    for (unsigned int mask : {0u, 0x7Fu}) {
        TPosixSetTraceMask(mask);
        std::string out = CaptureTrace([] {
            EXPECT_EQ(0x00010000u, KARVEX_GetApiVersion());
            EXPECT_EQ(1u, KARVEX_GetUniCharSize());
        });
        EXPECT_EQ("", out);
    }
    EXPECT_EQ(KARVEX_API_VERSION, KARVEX_GetApiVersion());
    EXPECT_EQ(sizeof(T_UNICHAR), KARVEX_GetUniCharSize());
}

TEST_F(VersionTest, OnlyTheExactVersionIsCompatible)
{
    TPosixSetTraceMask(0);
    EXPECT_EQ(1, KARVEX_CheckApiVersion(1, 0));
    for (auto v : {std::make_pair(1u, 1u), {0u, 0u}, {0u, 1u}, {2u, 0u}, {0x10000u, 0u}, {1u, 0x10000u},
                   {0xFFFFFFFFu, 0xFFFFFFFFu}})
        EXPECT_EQ(0, KARVEX_CheckApiVersion(v.first, v.second)) << v.first << "." << v.second;
}

// Entry and exit on the function bit, the mismatch on the error bit.
TEST_F(VersionTest, TraceLinesByMask)
{
    const std::string sig = kSig;
    const std::string mismatch = sig + ": DLL API version 1.0 is incompatible with requested version ";
    struct {
        unsigned int mask, major, minor;
        std::string expected;
    } const cases[] = {
        {KARVEX_TRACE_FUNCTION, 1, 0, sig + ": --> majorVersion=1, minorVersion=0\n" + sig + ": <-- compatible=1\n"},
        {KARVEX_TRACE_FUNCTION, 1, 1, sig + ": --> majorVersion=1, minorVersion=1\n" + sig + ": <-- compatible=0\n"},
        {KARVEX_TRACE_ERROR, 1, 1, mismatch + "1.1\n"},
        {KARVEX_TRACE_ERROR, 0, 0, mismatch + "0.0\n"},
        {KARVEX_TRACE_ERROR, 4294967295u, 7, mismatch + "4294967295.7\n"},
        {KARVEX_TRACE_ERROR, 1, 0, ""}, // a match prints nothing on the error class
        {KARVEX_TRACE_ERROR | KARVEX_TRACE_FUNCTION, 2, 3,
         sig + ": --> majorVersion=2, minorVersion=3\n" + mismatch + "2.3\n" + sig + ": <-- compatible=0\n"},
    };
    for (const auto& c : cases) {
        const int compatible = c.major == 1 && c.minor == 0;
        SCOPED_TRACE(std::to_string(c.mask) + " " + std::to_string(c.major) + "." + std::to_string(c.minor));
        EXPECT_EQ(c.expected,
                  CaptureTrace(c.mask, [&] { EXPECT_EQ(compatible, KARVEX_CheckApiVersion(c.major, c.minor)); }));
    }
}
