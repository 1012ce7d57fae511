// An application may have functions of its own whose names the library also
// exports (OutputString and TStatusStringA are common enough names). The
// library's calls to its own functions must stay inside the library: this
// program defines both and checks that the library's trace reaches neither.
#include "support/api_fixture.h"

#include <atomic>

using namespace karvex_test;

namespace {
std::atomic<unsigned> gAppOutputStringCalls{0};
std::atomic<unsigned> gAppStatusStringCalls{0};
} // namespace

// The application's own functions, with the library's names.
extern "C" void OutputString(const char*)
{
    ++gAppOutputStringCalls;
}

extern "C" const char* TStatusStringA(int)
{
    ++gAppStatusStringCalls;
    return "application's own";
}

TEST_F(ApiTest, LibraryTraceStaysInsideTheLibrary)
{
    TSTATUS st = TSTATUS_SUCCESS;
    const std::string out = CaptureTrace(KARVEX_TRACE_FUNCTION | KARVEX_TRACE_ERROR, [&] {
        KARVEXDeviceHandle handle = 0;
        st = KARVEX_OpenDevice("/dev/no-such-adapter", &handle);
        EXPECT_EQ(0, KARVEX_CheckApiVersion(2, 0));
    });

    EXPECT_EQ(static_cast<TSTATUS>(TSTATUS_OBJECT_NOT_FOUND), st);
    EXPECT_EQ(0u, gAppOutputStringCalls.load()) << "the library's trace went to the application's OutputString";
    EXPECT_EQ(0u, gAppStatusStringCalls.load()) << "the library used the application's TStatusStringA";
    // The library's own functions did the work.
    EXPECT_NE(std::string::npos,
              out.find("TSTATUS KARVEX_OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*): <-- err=0xE0000081 "
                       "TSTATUS_OBJECT_NOT_FOUND\n"))
        << out;
    EXPECT_NE(std::string::npos, out.find("DLL API version 1.0 is incompatible with requested version 2.0\n")) << out;
}
