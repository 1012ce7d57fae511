// Adapters that leave together: a hub with two adapters pulled out, or one
// composite adapter with two matching interfaces. udev sends each "remove"
// only after the node has left sysfs, so by the time the hot-plug thread
// handles the first removal, the second adapter is already gone from any
// enumeration. Each must still be reported exactly once.
//
// To make the burst certain, the application's callback holds the hot-plug
// thread on an arrival; while it is held, the test unplugs both adapters
// (their events queue up), then lets it go.
#include "support/reliability.h"

using namespace karvex_test;

namespace {

std::string Describe(const std::vector<KARVEXDeviceEvent>& events)
{
    std::string text;
    for (KARVEXDeviceEvent e : events)
        text += e == KARVEXEvent_DeviceAttached ? "attached " : e == KARVEXEvent_DeviceRemoved ? "removed " : "? ";
    return text;
}

class HotplugBurst : public ApiTest {
protected:
    void TearDown() override
    {
        hold.StopHolding();
        ApiTest::TearDown();
    }

    // Holds the hot-plug thread on a third adapter's arrival, runs unplugAll
    // while it is held, lets it go and checks that the burst gives exactly
    // two removals: a sentinel adapter plugged afterwards is the next event.
    void ExpectEachRemovalOnce(const std::function<void()>& unplugAll)
    {
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(reliability::HotPlugHold::Callback, &hold));
        mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_2, "KVXHOLD01"));
        ASSERT_TRUE(hold.log.WaitForCount(1)) << "no arrival reached the callback";
        unplugAll();
        hold.StopHolding();
        ASSERT_TRUE(hold.log.WaitForCount(3)) << "waited for 2 removals, got: " << Describe(hold.log.Items());
        mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_3, "KVXSENT01"));
        ASSERT_TRUE(hold.log.WaitForCount(4)) << "the sentinel's arrival was not reported: "
                                              << Describe(hold.log.Items());
        EXPECT_EQ("attached removed removed attached ", Describe(hold.log.Items()));
    }

    reliability::HotPlugHold hold;
};

TEST_F(HotplugBurst, TwoAdaptersOnAHubLeaveTogether)
{
    EmulatedAdapter& a = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVXBURST1");
    EmulatedAdapter& b = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVXBURST2");
    ExpectEachRemovalOnce([&] {
        a.device->Unplug();
        b.device->Unplug();
    });
}

TEST_F(HotplugBurst, CompositeAdapterWithTwoMatchingInterfacesLeaves)
{
    std::vector<kemu::EmuHidDevice*> interfaces;
    for (const kemu::EmuHidDeviceConfig& config : kemu::CompositeDeviceConfigs())
        interfaces.push_back(&mTestbed->AddDevice(config));
    unsigned int count = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    ASSERT_EQ(2u, count);
    ExpectEachRemovalOnce([&] {
        for (kemu::EmuHidDevice* device : interfaces)
            device->Unplug();
    });
}

} // namespace
