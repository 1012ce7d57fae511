// Texts from the application, a device or udev end up in trace lines. The
// formatter refuses (aborts on) a message of 2048 bytes or more, so no such
// text may make a line that long: each is cut at 1024 characters, and texts
// of any realistic length come out whole.
#include "support/api_fixture.h"

#include <sstream>

using namespace karvex_test;

namespace {

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::size_t LongestLine(const std::string& text)
{
    std::size_t longest = 0;
    for (const std::string& line : Lines(text))
        longest = std::max(longest, line.size());
    return longest;
}

const char* const kOpenSignature = "TSTATUS KARVEX_OpenDevice(const T_UNICHAR*, KARVEXDeviceHandle*)";

} // namespace

class TraceBounds : public ApiTest {};

TEST_F(TraceBounds, OverlongInstanceIdIsCutAndRefused)
{
    AddAdapter();
    const std::string id = "/dev/" + std::string(2995, 'h');
    TPosixSetTraceMask(KARVEX_TRACE_FUNCTION | KARVEX_TRACE_ERROR | KARVEX_TRACE_INFO);
    TraceCapture capture;
    capture.Start();
    KARVEXDeviceHandle handle = 0x1234;
    const TSTATUS st = KARVEX_OpenDevice(id.c_str(), &handle);
    const std::string out = capture.Stop();

    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, st) << TStatusStringA(st);
    EXPECT_EQ(0u, handle);
    EXPECT_LT(LongestLine(out), 2048u);
    const std::string entry = std::string(kOpenSignature) + ": --> instanceIdString=" + id.substr(0, 1024);
    ASSERT_FALSE(Lines(out).empty());
    EXPECT_EQ(entry, Lines(out).front());
    EXPECT_NE(std::string::npos, out.find("err=0xE0000081 TSTATUS_OBJECT_NOT_FOUND"));
}

TEST_F(TraceBounds, RealisticIdsComeOutWhole)
{
    EmulatedAdapter& adapter = AddAdapter();
    const std::string node = adapter.device->DevNode();
    const std::string longId = "/dev/" + std::string(1019, 'q'); // 1024 characters
    TPosixSetTraceMask(KARVEX_TRACE_FUNCTION | KARVEX_TRACE_INFO);
    TraceCapture capture;
    capture.Start();
    KARVEXDeviceHandle unused = 0;
    EXPECT_EQ(TSTATUS_OBJECT_NOT_FOUND, KARVEX_OpenDevice(longId.c_str(), &unused));
    const KARVEXDeviceHandle handle = Open(adapter);
    const std::string out = capture.Stop();

    ASSERT_NE(0u, handle);
    EXPECT_NE(std::string::npos, out.find(std::string(kOpenSignature) + ": --> instanceIdString=" + longId + "\n"));
    EXPECT_NE(std::string::npos, out.find(std::string(kOpenSignature) + ": --> instanceIdString=" + node + "\n"));
    char opened[128];
    std::snprintf(opened, sizeof opened, ": Successfully opened device '%s', handle=0x%08X\n", node.c_str(), handle);
    EXPECT_NE(std::string::npos, out.find(opened)) << out;
}

TEST_F(TraceBounds, OverlongUsbStringsFromTheDeviceAreCut)
{
    kemu::EmuHidDeviceConfig config = kemu::AdapterConfig();
    config.product = std::string(3000, 'p');
    config.manufacturer = std::string(3000, 'm');
    mTestbed->AddDevice(config);
    TPosixSetTraceMask(KARVEX_TRACE_VERBOSE | KARVEX_TRACE_ERROR);
    TraceCapture capture;
    capture.Start();
    unsigned int count = 0;
    const TSTATUS st = KARVEX_EnumerateDevices(&count);
    const std::string out = capture.Stop();

    EXPECT_EQ(TSTATUS_SUCCESS, st);
    EXPECT_EQ(1u, count);
    EXPECT_LT(LongestLine(out), 2048u);
    EXPECT_NE(std::string::npos, out.find("product:         '" + std::string(1024, 'p') + "'\n"));
}
