// Version functions and their traces.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>

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
    EXPECT_EQ(0, KARVEX_CheckApiVersion(1, 1));
    EXPECT_EQ(0, KARVEX_CheckApiVersion(0, 0));
    EXPECT_EQ(0, KARVEX_CheckApiVersion(0, 1));
    EXPECT_EQ(0, KARVEX_CheckApiVersion(2, 0));
    EXPECT_EQ(0, KARVEX_CheckApiVersion(0x10000, 0));
    EXPECT_EQ(0, KARVEX_CheckApiVersion(1, 0x10000));
    EXPECT_EQ(0, KARVEX_CheckApiVersion(0xFFFFFFFFu, 0xFFFFFFFFu));
}

TEST_F(VersionTest, FunctionTraceOnBit0x10)
{
    TPosixSetTraceMask(KARVEX_TRACE_FUNCTION);
    std::string out = CaptureTrace([] { EXPECT_EQ(1, KARVEX_CheckApiVersion(1, 0)); });
    EXPECT_EQ(std::string(kSig) + ": --> majorVersion=1, minorVersion=0\n" + kSig + ": <-- compatible=1\n", out);
    // A mismatch without the error bit: entry and exit only.
    out = CaptureTrace([] { EXPECT_EQ(0, KARVEX_CheckApiVersion(1, 1)); });
    EXPECT_EQ(std::string(kSig) + ": --> majorVersion=1, minorVersion=1\n" + kSig + ": <-- compatible=0\n", out);
}

TEST_F(VersionTest, MismatchTraceOnBit0x01)
{
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    std::string out = CaptureTrace([] { EXPECT_EQ(0, KARVEX_CheckApiVersion(1, 1)); });
    EXPECT_EQ(std::string(kSig) + ": DLL API version 1.0 is incompatible with requested version 1.1\n", out);
    out = CaptureTrace([] { EXPECT_EQ(0, KARVEX_CheckApiVersion(0, 0)); });
    EXPECT_EQ(std::string(kSig) + ": DLL API version 1.0 is incompatible with requested version 0.0\n", out);
    out = CaptureTrace([] { EXPECT_EQ(0, KARVEX_CheckApiVersion(4294967295u, 7)); });
    EXPECT_EQ(std::string(kSig) + ": DLL API version 1.0 is incompatible with requested version 4294967295.7\n", out);
    // A match prints nothing on the error class.
    EXPECT_EQ("", CaptureTrace([] { EXPECT_EQ(1, KARVEX_CheckApiVersion(1, 0)); }));
}

TEST_F(VersionTest, AllThreeLinesInOrder)
{
    TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_FUNCTION);
    std::string out = CaptureTrace([] { EXPECT_EQ(0, KARVEX_CheckApiVersion(2, 3)); });
    EXPECT_EQ(std::string(kSig) + ": --> majorVersion=2, minorVersion=3\n" + kSig +
                  ": DLL API version 1.0 is incompatible with requested version 2.3\n" + kSig +
                  ": <-- compatible=0\n",
              out);
}
