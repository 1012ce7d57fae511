// Enumeration, instance ids, open/close, handles, argument checks, what the
// output arguments hold after a failure, and the exact entry/exit trace
// lines, through the public API only.
#include "support/api_fixture.h"

#include <unistd.h>

#include <cstring>

using namespace karvex_test;

namespace {

const std::string kCloseSig = "TSTATUS KARVEX_CloseDevice(KARVEXDeviceHandle)";
const std::string kOpenSig = "TSTATUS KARVEX_OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*)";
const std::string kApiOpenSig = "TSTATUS KarvexApi::OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*)";

// Pin 2 driven high and read back: the handle gets its own answers.
void ExpectAnswers(KARVEXDeviceHandle h)
{
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, 2, GPIOMode_Output_High));
    KARVEX_GPIOMode mode = GPIOMode_Input;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinMode(h, 2, &mode));
    EXPECT_EQ(GPIOMode_Output_High, mode);
}

} // namespace

TEST_F(ApiTest, EnumerationListsOnlySupportedAdaptersUnderTheirIds)
{
    unsigned int count = 7;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    EXPECT_EQ(0u, count);
    mTestbed->AddDevice(kemu::ForeignDeviceConfig());
    AddAdapter(KARVEX_USB_PRODUCT_ID_1, "A1");
    AddAdapter(KARVEX_USB_PRODUCT_ID_3, "A3");
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    EXPECT_EQ(2u, count);
    char id[64];
    std::vector<std::string> ids;
    for (unsigned int i = 0; i < count; ++i) {
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceInstanceId(i, id, sizeof id));
        ids.push_back(id);
    }
    EXPECT_NE(ids.end(), std::find(ids.begin(), ids.end(), mAdapters[0]->device->DevNode()));
    EXPECT_NE(ids.end(), std::find(ids.begin(), ids.end(), mAdapters[1]->device->DevNode()));
    // Every failure with a buffer of 2 bytes or more leaves the empty string.
    EXPECT_EQ(TSTATUS_INVALID_INDEX, KARVEX_GetDeviceInstanceId(count, id, sizeof id));
    EXPECT_STREQ("", id);
    // Size 1 is refused before the (invalid) index is looked at, and the buffer stays untouched.
    std::memset(id, 'Q', sizeof id);
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, KARVEX_GetDeviceInstanceId(12345, id, 1));
    EXPECT_EQ('Q', id[0]);
    // One byte short of path + terminator: too small, and an empty string left behind.
    const std::string path = ids[0];
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, KARVEX_GetDeviceInstanceId(0, id, static_cast<unsigned>(path.size())));
    EXPECT_STREQ("", id);
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceInstanceId(0, id, static_cast<unsigned>(path.size() + 1)));
    EXPECT_EQ(path, id);
}

// *deviceHandle is 0 after every failure with a non-null id, untouched with
// a null id; a second open of an open adapter is refused and the first user
// goes on undisturbed.
TEST_F(ApiTest, OpenFailuresAndTheHandleTheyLeave)
{
    auto& a = AddAdapter();
    auto& foreign = mTestbed->AddDevice(kemu::ForeignDeviceConfig());
    KARVEXDeviceHandle h = 0xDEADu;
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_OpenDevice(nullptr, &h));
    EXPECT_EQ(0xDEADu, h);
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice("/dev/hidraw77", &h));
    EXPECT_EQ(0u, h);
    // A foreign HID device is not an adapter even though its node exists.
    h = 0xDEADu;
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice(foreign.DevNode().c_str(), &h));
    EXPECT_EQ(0u, h);

    // No enumeration needed, and the id's case does not matter.
    std::string upper = a.device->DevNode();
    for (char& c : upper)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    KARVEXDeviceHandle first = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(upper.c_str(), &first));
    mOpened.push_back(first);
    // Never 0, and with a generation.
    EXPECT_NE(0u, first >> 16);
    h = 0xDEADu;
    TSTATUS st = TSTATUS_SUCCESS;
    const std::string out =
        CaptureTrace(KARVEX_TRACE_ERROR, [&] { st = KARVEX_OpenDevice(a.device->DevNode().c_str(), &h); });
    EXPECT_EQ(TSTATUS_IN_USE, st);
    EXPECT_EQ(0u, h);
    EXPECT_EQ(kApiOpenSig + ": device '" + a.device->DevNode() + "' is already open in this process\n", out);
    ExpectAnswers(first);
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

TEST_F(ApiTest, CloseTwiceAndStaleHandlesAreRefused)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h1 = Open(a);
    ASSERT_NE(0u, h1);
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h1));
    Closed(h1);
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CloseDevice(h1));
    // Reopen: the slot is reused with a new generation, the old handle stays dead.
    KARVEXDeviceHandle h2 = Open(a);
    ASSERT_NE(0u, h2);
    EXPECT_NE(h1, h2);
    EXPECT_EQ(h1 & 0xFFFFu, h2 & 0xFFFFu);
    KARVEX_GPIOState st = GPIOState_High;
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_GetPinState(h1, 0, &st));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_SetPinState(h1, 0, GPIOState_High));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CheckDeviceConnection(h1));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_RegisterPinEventCallback(h1, nullptr, nullptr));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CheckDeviceConnection(h2 ^ 0x00010000u));
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CheckDeviceConnection(h2));
    // An unknown handle leaves the outputs untouched.
    auto state = static_cast<KARVEX_GPIOState>(7);
    auto mode = static_cast<KARVEX_GPIOMode>(7);
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_GetPinState(h2 + 1, 6, &state));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_GetPinMode(0, 6, &mode));
    EXPECT_EQ(7, static_cast<int>(state));
    EXPECT_EQ(7, static_cast<int>(mode));
}

TEST_F(ApiTest, NullArgumentsAreRefusedWithInvalidParameter)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_EnumerateDevices(nullptr));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_GetDeviceInstanceId(0, nullptr, 100));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_OpenDevice(a.device->DevNode().c_str(), nullptr));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_GetPinState(h, 0, nullptr));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_GetPinMode(h, 0, nullptr));
    // Null checks come before the handle lookup for these two.
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_GetPinState(0, 0, nullptr));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_GetDeviceSerialNumber(h, nullptr, 64));
    // Any of the USB info pointers may be null.
    unsigned int vid = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceUsbInfo(h, &vid, nullptr, nullptr));
    EXPECT_EQ(static_cast<unsigned>(KARVEX_USB_VENDOR_ID), vid);
    unsigned char buf[4];
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, nullptr, 1, buf, 1, 100));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_I2cTransaction(h, 0, 100000, 0x50, buf, 1, nullptr, 1, 100));
}

TEST_F(ApiTest, EntryAndExitTraceOnlyWithTheFunctionBit)
{
    const std::string out = CaptureTrace(KARVEX_TRACE_FUNCTION | KARVEX_TRACE_ERROR, [] {
        EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CloseDevice(0));
        KARVEXDeviceHandle h = 5;
        EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_OpenDevice(nullptr, &h));
        // Without the function bit only the error lines remain.
        TPosixSetTraceMask(KARVEX_TRACE_ERROR);
        unsigned int count = 0;
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
        EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CloseDevice(0));
    });
    const std::string closeError = "TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle): invalid deviceHandle 0x00000000\n";
    EXPECT_EQ(kCloseSig + ": --> deviceHandle=0x00000000\n" + closeError + kCloseSig +
                  ": <-- err=0xE0000048 TSTATUS_INVALID_HANDLE\n" + kOpenSig + ": --> instanceIdString=(null)\n" +
                  kApiOpenSig + ": instanceIdString is NULL\n" + kOpenSig +
                  ": <-- err=0xE0000041 TSTATUS_INVALID_PARAMETER\n" + closeError,
              out);
}

// An id from the application is cut at 1024 characters in its trace lines
// (the formatter refuses lines of 2048 bytes); ids of any realistic length
// come out whole, as do the open and close information lines.
TEST_F(ApiTest, InstanceIdsInTraceLinesAreCutAt1024Characters)
{
    auto& a = AddAdapter();
    const std::string node = a.device->DevNode();
    const std::string overlong = "/dev/" + std::string(2995, 'h');
    const std::string longest = "/dev/" + std::string(1019, 'q'); // 1024 characters
    KARVEXDeviceHandle h = 0x1234;
    const std::string out = CaptureTrace(KARVEX_TRACE_FUNCTION | KARVEX_TRACE_ERROR | KARVEX_TRACE_INFO, [&] {
        EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice(overlong.c_str(), &h));
        EXPECT_EQ(0u, h);
        EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice(longest.c_str(), &h));
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(node.c_str(), &h));
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
    });
    std::size_t longestLine = 0;
    for (std::size_t at = 0, nl; (nl = out.find('\n', at)) != std::string::npos; at = nl + 1)
        longestLine = std::max(longestLine, nl - at);
    EXPECT_LT(longestLine, 2048u);
    EXPECT_EQ(0u, out.find(kOpenSig + ": --> instanceIdString=" + overlong.substr(0, 1024) + "\n"))
        << out.substr(0, 200);
    EXPECT_NE(std::string::npos, out.find(kOpenSig + ": --> instanceIdString=" + longest + "\n"));
    EXPECT_NE(std::string::npos, out.find(kOpenSig + ": --> instanceIdString=" + node + "\n"));
    char opened[256], closed[128];
    std::snprintf(opened, sizeof opened, "%s: Successfully opened device '%s', handle=0x%08X\n", kApiOpenSig.c_str(),
                  node.c_str(), h);
    std::snprintf(closed, sizeof closed,
                  "TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle): Device with handle=0x%08X was closed\n", h);
    EXPECT_NE(std::string::npos, out.find(opened)) << out;
    EXPECT_NE(std::string::npos, out.find(closed)) << out;
}

// Strings from the device (USB product, manufacturer) are cut the same way.
TEST_F(ApiTest, OverlongUsbStringsFromTheDeviceAreCut)
{
    kemu::EmuHidDeviceConfig config = kemu::AdapterConfig();
    config.product = std::string(3000, 'p');
    config.manufacturer = std::string(3000, 'm');
    mTestbed->AddDevice(config);
    unsigned int count = 0;
    const std::string out = CaptureTrace(KARVEX_TRACE_VERBOSE | KARVEX_TRACE_ERROR,
                                         [&] { EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count)); });
    EXPECT_EQ(1u, count);
    for (std::size_t at = 0, nl; (nl = out.find('\n', at)) != std::string::npos; at = nl + 1)
        EXPECT_LT(nl - at, 2048u);
    EXPECT_NE(std::string::npos, out.find("product:         '" + std::string(1024, 'p') + "'\n"));
}
