// A process that ends with handles open and both callbacks registered ends
// cleanly on whichever thread it calls exit(). Each case runs in a child (this
// binary again); KARVEX_CHILD_PREFIX may put a checker such as valgrind first.
#include "support/api_fixture.h"

#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

using namespace karvex_test;

namespace {

void NoChange(void*, KARVEXDeviceEvent) {}
void NoPin(void*, unsigned int, KARVEX_GPIOState) {}
void ExitOnChange(void*, KARVEXDeviceEvent)
{
    std::exit(0);
}
void ExitOnPin(void*, unsigned int, KARVEX_GPIOState)
{
    std::exit(0);
}

} // namespace

// The child: two adapters open, both callbacks registered, then the case.
TEST(AppExitChild, Child)
{
    const char* exitCase = std::getenv("KARVEX_EXIT_CASE");
    if (exitCase == nullptr)
        GTEST_SKIP() << "runs only as the child of the AppExit tests";
    const std::string which = exitCase;
    kemu::EmuTestbed testbed;
    auto& first = testbed.AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_1, "KVX000001"));
    kemu::EmuAdapterFirmware firmware(first);
    auto& second = testbed.AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_2, "KVX000002"));
    kemu::EmuAdapterFirmware secondFirmware(second);
    KARVEXDeviceHandle h1 = 0;
    KARVEXDeviceHandle h2 = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(first.DevNode().c_str(), &h1));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(second.DevNode().c_str(), &h2));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h1, 3, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h1, which == "pin" ? ExitOnPin : NoPin, nullptr));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h2, NoPin, nullptr));
    ASSERT_EQ(TSTATUS_SUCCESS,
              KARVEX_RegisterDeviceChangeCallback(which == "hotplug" ? ExitOnChange : NoChange, nullptr));
    fflush(stdout);
    if (which == "main")
        std::exit(0);
    if (which == "pin")
        firmware.SetInputLevel(3, true);
    else
        testbed.AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_3, "KVX000003"));
    // The callback ends the process; the parent's time limit ends a hang.
    for (;;)
        std::this_thread::sleep_for(std::chrono::seconds(1));
}

// exit() in a pin callback, in the device change callback, on the main thread.
class AppExit : public testing::TestWithParam<const char*> {};

TEST_P(AppExit, EndsCleanly)
{
    if (std::getenv("KARVEX_EXIT_CASE") != nullptr)
        GTEST_SKIP();
    const char* prefix = std::getenv("KARVEX_CHILD_PREFIX");
    const std::string cmd = std::string("KARVEX_EXIT_CASE=") + GetParam() + " timeout -k 5 " +
                            (prefix != nullptr ? "600 " + std::string(prefix) + " " : "60 ") + "/proc/" +
                            std::to_string(getpid()) + "/exe --gtest_filter=AppExitChild.Child 2>&1";
    FILE* child = popen(cmd.c_str(), "r");
    ASSERT_NE(nullptr, child);
    std::string out;
    char buf[512];
    while (fgets(buf, sizeof buf, child) != nullptr)
        out += buf;
    EXPECT_EQ(0, pclose(child)) << out;
    EXPECT_EQ(1u, CountOf(out, "KarvexApi::~KarvexApi(): FATAL: The application has leaked device handles\n")) << out;
}

INSTANTIATE_TEST_SUITE_P(Where, AppExit, testing::Values("pin", "hotplug", "main"));
