// Adapters that leave together: a hub with two adapters pulled out, or one
// composite adapter with two matching interfaces. udev sends each "remove"
// only after the node has left sysfs, so by the time the hot-plug thread
// handles the first removal, the second adapter is already gone from any
// enumeration. Each must still be reported exactly once.
//
// To make the burst certain, the application's callback holds the hot-plug
// thread on an arrival; while it is held, the test unplugs both adapters
// (their events queue up), then lets it go. Holding the thread also keeps
// the testbed from changing while the thread reads sysfs (umockdev's preload
// library is not safe against that).
#include "support/api_fixture.h"

#include <condition_variable>
#include <functional>
#include <mutex>

using namespace karvex_test;

namespace {

struct ArrivalGate {
    EventLog<KARVEXDeviceEvent> log;
    std::mutex mutex;
    std::condition_variable cond;
    bool holdNextArrival = false;
    bool held = false;

    void Arm()
    {
        std::lock_guard<std::mutex> lock(mutex);
        holdNextArrival = true;
    }
    bool WaitHeld()
    {
        std::unique_lock<std::mutex> lock(mutex);
        return cond.wait_for(lock, std::chrono::seconds(10), [&] { return held; });
    }
    void Release()
    {
        std::lock_guard<std::mutex> lock(mutex);
        held = false;
        holdNextArrival = false;
        cond.notify_all();
    }
};

void OnDeviceChange(void* context, KARVEXDeviceEvent event)
{
    auto* gate = static_cast<ArrivalGate*>(context);
    gate->log.Add(event);
    std::unique_lock<std::mutex> lock(gate->mutex);
    if (event == KARVEXEvent_DeviceAttached && gate->holdNextArrival) {
        gate->held = true;
        gate->cond.notify_all();
        // Bounded, so that a broken test cannot hang the run.
        gate->cond.wait_for(lock, std::chrono::seconds(20), [&] { return !gate->held; });
    }
}

std::string Describe(const std::vector<KARVEXDeviceEvent>& events)
{
    std::string text;
    for (KARVEXDeviceEvent e : events)
        text += e == KARVEXEvent_DeviceAttached ? "attached " : e == KARVEXEvent_DeviceRemoved ? "removed " : "? ";
    return text;
}

} // namespace

class HotplugBurst : public ApiTest {
protected:
    // Registers, holds the hot-plug thread on a third adapter's arrival, runs
    // unplugAll while it is held, lets it go and checks that the burst gives
    // exactly `leaving` removals: a sentinel adapter plugged afterwards must
    // be the next event after them.
    void ExpectEachRemovalOnce(const std::function<void()>& unplugAll, std::size_t leaving)
    {
        ArrivalGate gate;
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterDeviceChangeCallback(OnDeviceChange, &gate));
        gate.Arm();
        mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_2, "KVXHOLD01"));
        ASSERT_TRUE(gate.WaitHeld()) << "no arrival reached the callback";

        unplugAll();
        gate.Release();
        ASSERT_TRUE(gate.log.WaitForCount(1 + leaving, std::chrono::seconds(10)))
            << "waited for " << leaving << " removals, got: " << Describe(gate.log.Items());

        mTestbed->AddDevice(kemu::AdapterConfig(KARVEX_USB_PRODUCT_ID_3, "KVXSENT01"));
        ASSERT_TRUE(gate.log.WaitForCount(2 + leaving, std::chrono::seconds(10)))
            << "the sentinel's arrival was not reported: " << Describe(gate.log.Items());
        std::vector<KARVEXDeviceEvent> expected(1, KARVEXEvent_DeviceAttached);
        expected.insert(expected.end(), leaving, KARVEXEvent_DeviceRemoved);
        expected.push_back(KARVEXEvent_DeviceAttached);
        EXPECT_EQ(Describe(expected), Describe(gate.log.Items()));
        KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr);
    }
};

TEST_F(HotplugBurst, TwoAdaptersOnAHubLeaveTogether)
{
    EmulatedAdapter& a = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVXBURST1");
    EmulatedAdapter& b = AddAdapter(KARVEX_USB_PRODUCT_ID_1, "KVXBURST2");
    ExpectEachRemovalOnce(
        [&] {
            a.device->Unplug();
            b.device->Unplug();
        },
        2);
}

TEST_F(HotplugBurst, CompositeAdapterWithTwoMatchingInterfacesLeaves)
{
    std::vector<kemu::EmuHidDevice*> interfaces;
    for (const kemu::EmuHidDeviceConfig& config : kemu::CompositeDeviceConfigs())
        interfaces.push_back(&mTestbed->AddDevice(config));
    unsigned int count = 0;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_EnumerateDevices(&count));
    ASSERT_EQ(2u, count);
    ExpectEachRemovalOnce(
        [&] {
            for (kemu::EmuHidDevice* device : interfaces)
                device->Unplug();
        },
        2);
}
