// Enumeration, instance ids, open/close, handles, argument checks and the
// exact entry/exit trace lines, through the public API only.
#include "support/api_fixture.h"

#include <cstring>

using namespace karvex_test;

namespace {

const char* kCloseSig = "TSTATUS KARVEX_CloseDevice(KARVEXDeviceHandle)";
const char* kOpenSig = "TSTATUS KARVEX_OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*)";

} // namespace

TEST_F(ApiTest, EnumerationListsOnlySupportedAdaptersInOrder)
{
    mTestbed->AddDevice(kemu::ForeignDeviceConfig());
    AddAdapter(KARVEX_USB_PRODUCT_ID_1, "A1");
    AddAdapter(KARVEX_USB_PRODUCT_ID_3, "A3");
    unsigned int count = 99;
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
    EXPECT_EQ(TSTATUS_INVALID_INDEX, KARVEX_GetDeviceInstanceId(count, id, sizeof id));
    EXPECT_STREQ("", id);
}

TEST_F(ApiTest, EnumerationWithNothingAttachedSucceedsWithZero)
{
    unsigned int count = 7;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    EXPECT_EQ(0u, count);
    char id[32] = "x";
    EXPECT_EQ(TSTATUS_INVALID_INDEX, KARVEX_GetDeviceInstanceId(0, id, sizeof id));
}

TEST_F(ApiTest, InstanceIdBufferSizeIsCheckedBeforeTheIndex)
{
    AddAdapter();
    unsigned int count = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    ASSERT_EQ(1u, count);
    char id[64];
    std::memset(id, 'Q', sizeof id);
    // Size 1 is refused before the (invalid) index is looked at, and the buffer stays untouched.
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, KARVEX_GetDeviceInstanceId(12345, id, 1));
    EXPECT_EQ('Q', id[0]);
    const std::string path = mAdapters[0]->device->DevNode();
    // One byte short of path + terminator: too small, and an empty string left behind.
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, KARVEX_GetDeviceInstanceId(0, id, static_cast<unsigned>(path.size())));
    EXPECT_STREQ("", id);
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceInstanceId(0, id, static_cast<unsigned>(path.size() + 1)));
    EXPECT_EQ(path, id);
}

TEST_F(ApiTest, OpenWithoutEnumerationAndCaseInsensitivePath)
{
    auto& a = AddAdapter();
    std::string upper = a.device->DevNode();
    for (char& c : upper)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    KARVEXDeviceHandle h = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(upper.c_str(), &h));
    mOpened.push_back(h);
    // The first handle of the process's table may not be the first ever
    // issued (other tests ran before), but it is never 0 and has a generation.
    EXPECT_NE(0u, h);
    EXPECT_NE(0u, h >> 16);
}

TEST_F(ApiTest, OpenUnknownIdFailsAndZeroesTheHandle)
{
    AddAdapter();
    KARVEXDeviceHandle h = 0xDEADBEEF;
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice("/dev/hidraw77", &h));
    EXPECT_EQ(0u, h);
    h = 0xDEADBEEF;
    // A foreign HID device is not an adapter even though its node exists.
    auto& foreign = mTestbed->AddDevice(kemu::ForeignDeviceConfig());
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice(foreign.DevNode().c_str(), &h));
    EXPECT_EQ(0u, h);
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
}

TEST_F(ApiTest, NullArgumentsAreRefusedWithInvalidParameter)
{
    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_EnumerateDevices(nullptr));
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_GetDeviceInstanceId(0, nullptr, 100));
    KARVEXDeviceHandle out = 0;
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_OpenDevice(nullptr, &out));
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
    TraceCapture capture;
    TPosixSetTraceMask(KARVEX_TRACE_FUNCTION | KARVEX_TRACE_ERROR);
    capture.Start();
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CloseDevice(0));
    KARVEXDeviceHandle h = 5;
    EXPECT_EQ(TSTATUS_INVALID_PARAMETER, KARVEX_OpenDevice(nullptr, &h));
    // Without the function bit only the error lines remain.
    TPosixSetTraceMask(KARVEX_TRACE_ERROR);
    unsigned int count = 0;
    EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    EXPECT_EQ(TSTATUS_INVALID_HANDLE, KARVEX_CloseDevice(0));
    TPosixSetTraceMask(0);
    const std::string closeError = "TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle): invalid deviceHandle 0x00000000\n";
    EXPECT_EQ(std::string(kCloseSig) + ": --> deviceHandle=0x00000000\n" + closeError + kCloseSig +
                  ": <-- err=0xE0000048 TSTATUS_INVALID_HANDLE\n" + kOpenSig + ": --> instanceIdString=(null)\n" +
                  "TSTATUS KarvexApi::OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*): instanceIdString is NULL\n" +
                  kOpenSig + ": <-- err=0xE0000041 TSTATUS_INVALID_PARAMETER\n" + closeError,
              capture.Stop());
}

TEST_F(ApiTest, OpenAndCloseInformationLines)
{
    auto& a = AddAdapter();
    TraceCapture capture;
    TPosixSetTraceMask(KARVEX_TRACE_INFO);
    capture.Start();
    KARVEXDeviceHandle h = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(a.device->DevNode().c_str(), &h));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
    TPosixSetTraceMask(0);
    const std::string out = capture.Stop();
    char expectOpen[256], expectClose[256];
    snprintf(expectOpen, sizeof expectOpen,
             "TSTATUS KarvexApi::OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*): Successfully opened device '%s', "
             "handle=0x%08X\n",
             a.device->DevNode().c_str(), h);
    snprintf(expectClose, sizeof expectClose,
             "TSTATUS KarvexApi::CloseDevice(KARVEXDeviceHandle): Device with handle=0x%08X was closed\n", h);
    EXPECT_NE(std::string::npos, out.find(expectOpen)) << out;
    EXPECT_NE(std::string::npos, out.find(expectClose)) << out;
}

TEST_F(ApiTest, UsbInfoAndSerialNumber)
{
    auto& a = AddAdapter(KARVEX_USB_PRODUCT_ID_2, "SER-42");
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    unsigned int vid = 0, pid = 0, bcd = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceUsbInfo(h, &vid, &pid, &bcd));
    EXPECT_EQ(0x1209u, vid);
    EXPECT_EQ(0x7A02u, pid);
    EXPECT_EQ(a.device->Config().bcdDevice, bcd);
    char serial[7];
    EXPECT_EQ(TSTATUS_BUFFER_TOO_SMALL, KARVEX_GetDeviceSerialNumber(h, serial, 6));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_GetDeviceSerialNumber(h, serial, 7));
    EXPECT_STREQ("SER-42", serial);
}

