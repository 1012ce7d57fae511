// One adapter, one user: a second open of an adapter that is open, in this
// process or in another, is refused with TSTATUS_IN_USE, and the first user
// goes on undisturbed.
#include "support/api_fixture.h"

#include <unistd.h>

#include <cstdlib>
#include <string>

using namespace karvex_test;

namespace {

// Pin 2 driven high and read back: the handle gets its own answers.
void ExpectAnswers(KARVEXDeviceHandle h)
{
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 2, GPIOMode_Output_High));
    KARVEX_GPIOMode mode = GPIOMode_Input;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinMode(h, 2, &mode));
    EXPECT_EQ(GPIOMode_Output_High, mode);
}

} // namespace

TEST_F(ApiTest, SecondOpenInThisProcessIsRefused)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle first = Open(a);
    ASSERT_NE(0u, first);
    TraceCapture capture;
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    capture.Start();
    KARVEXDeviceHandle second = 0xDEADu;
    const TSTATUS st = KARVEX_OpenDevice(a.device->DevNode().c_str(), &second);
    TPosixSetTraceMask(0);
    const std::string out = capture.Stop();
    EXPECT_EQ(TSTATUS_IN_USE, st);
    EXPECT_EQ(0u, second);
    EXPECT_NE(std::string::npos, out.find("TSTATUS KarvexApi::OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*): device '" +
                                          a.device->DevNode() + "' is already open in this process\n"))
        << out;
    ExpectAnswers(first);
    // Closed, the adapter is free again.
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(first));
    Closed(first);
    KARVEXDeviceHandle again = Open(a);
    ASSERT_NE(0u, again);
    ExpectAnswers(again);
}

// The child: opens the adapter the parent holds, in a process of its own.
TEST(AppInUse, Child)
{
    const char* node = std::getenv("KARVEX_IN_USE_NODE");
    if (node == nullptr)
        GTEST_SKIP() << "runs only as the child of ApiTest.OpenHeldByAnotherProcessIsRefused";
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    KARVEXDeviceHandle h = 0xDEADu;
    const TSTATUS st = KARVEX_OpenDevice(node, &h);
    fflush(stdout);
    EXPECT_EQ(TSTATUS_IN_USE, st) << TStatusStringA(st);
    EXPECT_EQ(0u, h);
    if (st == TSTATUS_SUCCESS)
        KARVEX_CloseDevice(h);
}

TEST_F(ApiTest, OpenHeldByAnotherProcessIsRefused)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    // The child runs in the same emulated environment (inherited), bounded
    // by timeout(1) so that a hang fails instead of stalling the run.
    const std::string cmd = "KARVEX_IN_USE_NODE=" + a.device->DevNode() + " timeout -k 5 60 /proc/" +
                            std::to_string(getpid()) + "/exe --gtest_filter=AppInUse.Child 2>&1";
    FILE* child = popen(cmd.c_str(), "r");
    ASSERT_NE(nullptr, child);
    std::string out;
    char buf[512];
    while (fgets(buf, sizeof buf, child) != nullptr)
        out += buf;
    EXPECT_EQ(0, pclose(child)) << out;
    EXPECT_NE(std::string::npos, out.find("TSTATUS KarvexDevice::LockNode(const char*): device '" +
                                          a.device->DevNode() + "' is in use by another program\n"))
        << out;
    ExpectAnswers(h);
}
