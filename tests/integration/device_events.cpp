// Pin event dispatch of the device object: the pin event thread, its queue,
// re-registration, overrun, bad events, throwing callbacks and Close while a
// callback runs.
#include "support/device_fixture.h"

#include <atomic>
#include <stdexcept>

using namespace device_test;

namespace {

struct Event {
    unsigned pin;
    KARVEX_GPIOState state;
    std::thread::id thread;
};

// Context of the test callback: records every delivered event; an optional
// hook runs first and may block or throw.
struct Sink {
    Recorder<Event> events;
    Recorder<unsigned> entered;
    std::function<void(unsigned pin)> hook;

    std::vector<unsigned> Pins()
    {
        std::vector<unsigned> pins;
        for (const Event& e : events.Items())
            pins.push_back(e.pin);
        return pins;
    }
};

void SinkCallback(void* context, unsigned int pinId, KARVEX_GPIOState state)
{
    Sink* sink = static_cast<Sink*>(context);
    sink->entered.Add(pinId);
    if (sink->hook)
        sink->hook(pinId);
    sink->events.Add(Event{pinId, state, std::this_thread::get_id()});
}

// Closes the device when the test body ends, before the locals that its
// callback uses are destroyed (declare it after them).
struct CloseOnExit {
    explicit CloseOnExit(KarvexDevice& device) : mDevice(device) {}
    ~CloseOnExit() { mDevice.Close(); }
    KarvexDevice& mDevice;
};

class DeviceEventTest : public DeviceTest {
protected:
    // A command round trip: the reader thread handles input reports in
    // order, so every event sent before has been sorted when this returns.
    static void Sync(KarvexDevice& device)
    {
        KARVEX_GPIOMode mode;
        EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinMode(0, mode));
    }
};

// One thread of its own runs every callback, not the reader thread: while a
// callback is held, commands are still answered. Pin IDs are 32-bit
// little-endian.
TEST_F(DeviceEventTest, CallbackRunsOnThePinEventThread)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    Gate gate;
    CloseOnExit closeOnExit(device);
    sink.hook = [&](unsigned pin) {
        if (pin == 0x01020304u)
            gate.Pass();
    };
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinMode(4, GPIOMode_InputEvent));
    adapter.firmware->SetInputLevel(4, true);
    adapter.firmware->SendPinEvent(0x01020304u, 0);
    ASSERT_TRUE(sink.entered.WaitForCount(2)) << "the second event to reach the callback";
    KARVEX_GPIOState state = GPIOState_Low;
    EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(4, state)) << "answered while the callback is held";
    EXPECT_EQ(GPIOState_High, state);
    gate.Open();
    ASSERT_TRUE(sink.events.WaitForCount(2)) << "both events delivered";
    const auto events = sink.events.Items();
    EXPECT_EQ(4u, events[0].pin);
    EXPECT_EQ(GPIOState_High, events[0].state);
    EXPECT_EQ(0x01020304u, events[1].pin);
    EXPECT_EQ(GPIOState_Low, events[1].state);
    EXPECT_NE(std::this_thread::get_id(), events[0].thread);
    EXPECT_EQ(events[0].thread, events[1].thread);
}

// An event with an unknown state or a length other than 16 is skipped by the
// pin event thread; one that claims more bytes than the report holds never
// gets past the reader. The events behind them arrive.
TEST_F(DeviceEventTest, BadEventsAreSkipped)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        adapter.firmware->SendPinEvent(3, 2);
        adapter.firmware->SendPinEvent(3, 0);
        for (std::uint16_t length : {12, 20, 400}) {
            adapter.hid->InjectInputReport(
                RawMessage(THID_EVT_PIN_STATE_CHANGED, length, 0, PinStatePayload(5, 1)));
        }
        adapter.hid->InjectInputReport(RawMessage(THID_EVT_PIN_STATE_CHANGED, 16, 0, PinStatePayload(6, 1)));
        ASSERT_TRUE(sink.events.WaitForCount(2));
    });
    EXPECT_EQ(1u, CountOf(trace, kSigPinThread + ": ignore pin event with unknown pin state 2\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigPinThread + ": Ignore pin event with invalid length 12, exp. 16\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigPinThread + ": Ignore pin event with invalid length 20, exp. 16\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, kSigProcess + ": unexpected bytes transferred 320, exp. min. 400\n")) << trace;
    EXPECT_EQ(4u, CountOf(trace, "\n")) << trace;
    EXPECT_EQ((std::vector<unsigned>{3, 6}), sink.Pins());
    EXPECT_EQ(GPIOState_Low, sink.events.Items()[0].state);
}

TEST_F(DeviceEventTest, ThrowingCallbackIsReportedAndLaterEventsArrive)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    sink.hook = [](unsigned pin) {
        if (pin == 1)
            throw std::runtime_error("application bug");
        if (pin == 3)
            throw 42;
    };
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        for (unsigned pin : {1, 2, 3, 2, 1, 4})
            adapter.firmware->SendPinEvent(pin, 1);
        ASSERT_TRUE(sink.events.WaitForCount(3));
    });
    EXPECT_EQ(3u, CountOf(trace, kSigPinThread + ": FATAL: Uncaught exception in pin event callback\n")) << trace;
    EXPECT_EQ(3u, CountOf(trace, "\n")) << trace;
    EXPECT_EQ((std::vector<unsigned>{2, 2, 4}), sink.Pins());
}

TEST_F(DeviceEventTest, EventsWithoutCallbackAreDropped)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        adapter.firmware->SendPinEvent(6, 1);
        Sync(device);
    });
    EXPECT_EQ(kSigProcess + ": Ignore pin event, no callback registered\n", trace);

    // It was never queued: the first event after registering is the first delivered.
    Sink sink;
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    adapter.firmware->SendPinEvent(7, 0);
    ASSERT_TRUE(sink.events.WaitForCount(1));
    EXPECT_EQ(std::vector<unsigned>{7}, sink.Pins());

    // Registering null stops delivery again.
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(nullptr, nullptr));
    trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        adapter.firmware->SendPinEvent(8, 1);
        Sync(device);
    });
    EXPECT_EQ(kSigProcess + ": Ignore pin event, no callback registered\n", trace);
    EXPECT_EQ(std::vector<unsigned>{7}, sink.Pins());

    // A restarted pin event thread waits for events, not spinning on a
    // wake-up left over from the stop of its predecessor.
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    const double cpuStart = ProcessCpuMs();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(ProcessCpuMs() - cpuStart, 100.0) << "a thread spins while the device is idle";
    adapter.firmware->SendPinEvent(5, 1);
    ASSERT_TRUE(sink.events.WaitForCount(2));
    EXPECT_EQ((std::vector<unsigned>{7, 5}), sink.Pins());
}

// Re-registering (even the same callback) restarts the pin event thread;
// events queued but not yet delivered are dropped with the old queue.
TEST_F(DeviceEventTest, ReRegistrationDropsQueuedEvents)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    Gate gate;
    sink.hook = [&](unsigned pin) {
        if (pin == 21)
            gate.Pass();
    };
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    adapter.firmware->SendPinEvent(21, 1);
    ASSERT_TRUE(sink.entered.WaitForCount(1));
    adapter.firmware->SendPinEvent(22, 1);
    adapter.firmware->SendPinEvent(23, 1);
    Sync(device);

    std::atomic<TSTATUS> result{TSTATUS_FAILED};
    std::atomic<bool> done{false};
    std::atomic<pid_t> tid{0};
    std::thread registrar([&] {
        tid = ktest::ThreadId();
        result = device.RegisterPinEventCallback(SinkCallback, &sink);
        done = true;
    });
    // The registration waits for the running callback.
    ASSERT_TRUE(WaitUntil([&] { return tid.load() != 0; }) && ktest::WaitUntilBlocked(tid))
        << "timed out waiting for the registration to block";
    EXPECT_FALSE(done.load());
    gate.Open();
    registrar.join();
    EXPECT_EQ(TSTATUS_SUCCESS, result.load());

    adapter.firmware->SendPinEvent(24, 0);
    ASSERT_TRUE(sink.events.WaitForCount(2));
    Sync(device);
    EXPECT_EQ((std::vector<unsigned>{21, 24}), sink.Pins());
}

// Ten slots: with the callback held on one event, eleven more overwrite the
// oldest queued one, and the overrun is traced once.
TEST_F(DeviceEventTest, OverrunDropsTheOldestEventOnce)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    Gate gate;
    sink.hook = [&](unsigned pin) {
        if (pin == 100)
            gate.Pass();
    };
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    adapter.firmware->SendPinEvent(100, 1);
    ASSERT_TRUE(sink.entered.WaitForCount(1));
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        for (unsigned i = 1; i <= 11; ++i)
            adapter.firmware->SendPinEvent(100 + i, i & 1);
        Sync(device);
    });
    EXPECT_EQ(kSigProcess + ": Event Queue overrun occurred\n", trace);
    gate.Open();
    ASSERT_TRUE(sink.events.WaitForCount(11));
    std::vector<unsigned> expected = {100};
    for (unsigned i = 2; i <= 11; ++i)
        expected.push_back(100 + i);
    EXPECT_EQ(expected, sink.Pins());
    const auto events = sink.events.Items();
    EXPECT_EQ(GPIOState_Low, events[1].state);  // 102
    EXPECT_EQ(GPIOState_High, events[2].state); // 103
}

// Close waits for a running callback. It stops the pin event thread before it
// takes the device mutex and before it stops the reader: a callback that runs
// a command meanwhile (under the device mutex, as the API object does) gets
// its answer.
TEST_F(DeviceEventTest, CloseWaitsForARunningCallbackAndItsCommand)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    Gate gate;
    std::atomic<TSTATUS> inner{TSTATUS_FAILED};
    std::atomic<bool> callbackReturned{false};
    sink.hook = [&](unsigned) {
        gate.Pass();
        PxMutexLock lock(device.mMutex);
        KARVEX_GPIOMode mode;
        inner = device.GetPinMode(1, mode);
        callbackReturned = true;
    };
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    adapter.firmware->SendPinEvent(9, 1);
    ASSERT_TRUE(sink.entered.WaitForCount(1));

    std::atomic<bool> closed{false};
    std::atomic<bool> returnedBeforeClose{false};
    std::atomic<pid_t> tid{0};
    std::thread closer([&] {
        tid = ktest::ThreadId();
        device.Close();
        returnedBeforeClose = callbackReturned.load();
        closed = true;
    });
    ASSERT_TRUE(WaitUntil([&] { return tid.load() != 0; }) && ktest::WaitUntilBlocked(tid))
        << "timed out waiting for Close to block";
    EXPECT_FALSE(closed.load()) << "Close returned while the callback was still running";
    gate.Open();
    closer.join();
    EXPECT_TRUE(returnedBeforeClose.load());
    EXPECT_EQ(TSTATUS_SUCCESS, inner.load());
    EXPECT_FALSE(device.IsOpen());
}

// A callback cannot stop the thread it runs on: re-registering or closing its
// own device from inside it is refused and changes nothing.
TEST_F(DeviceEventTest, CallbackCannotReRegisterOrCloseItsDevice)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    std::atomic<TSTATUS> inner{TSTATUS_SUCCESS};
    sink.hook = [&](unsigned pin) {
        if (pin == 1)
            inner = device.RegisterPinEventCallback(nullptr, nullptr);
        if (pin == 2)
            device.Close();
    };
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    std::string trace = CaptureTrace(KARVEX_TRACE_ERROR, [&] {
        adapter.firmware->SendPinEvent(1, 1);
        adapter.firmware->SendPinEvent(2, 1);
        adapter.firmware->SendPinEvent(3, 1);
        ASSERT_TRUE(sink.events.WaitForCount(3));
    });
    EXPECT_EQ(TSTATUS_NOT_ALLOWED, inner.load());
    EXPECT_EQ(1u, CountOf(trace, kSigRegister + ": not allowed from inside the pin event callback\n")) << trace;
    EXPECT_EQ(1u, CountOf(trace, "void KarvexDevice::Close(): not allowed from inside the pin event callback\n"))
        << trace;
    EXPECT_EQ(2u, CountOf(trace, "\n")) << trace;
    EXPECT_TRUE(device.IsOpen());
    EXPECT_EQ((std::vector<unsigned>{1, 2, 3}), sink.Pins());
    Sync(device);
}

// The thread that waits for an answer reads the node itself while the reader
// thread stands aside. A pin event that arrives meanwhile reaches the callback
// on the pin event thread before the answer does; the answer then ends the
// command.
TEST_F(DeviceEventTest, EventWhileACommandWaitsIsDeliveredAtOnce)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    adapter.firmware->SetOneShotFaults(THID_CMD_SET_PIN_STATE, Silent());
    const size_t sent = adapter.firmware->CommandCount();

    std::atomic<bool> done{false};
    TSTATUS result = TSTATUS_TIMEOUT;
    std::thread::id caller;
    std::string trace = CaptureTrace(KARVEX_TRACE_INFO | KARVEX_TRACE_PROTOCOL, [&] {
        std::thread worker([&] {
            caller = std::this_thread::get_id();
            PxMutexLock lock(device.mMutex);
            result = device.SetPinState(2, GPIOState_High);
            done = true;
        });
        ASSERT_TRUE(WaitUntil([&] { return adapter.firmware->CommandCount() > sent; }))
            << "the command never reached the adapter";
        adapter.firmware->SendPinEvent(7, 1);
        EXPECT_TRUE(sink.events.WaitForCount(1)) << "the event sent while the command waited was not delivered";
        EXPECT_FALSE(done.load()) << "the command ended without its answer";
        const unsigned id = MsgId(adapter.LastCommand());
        adapter.hid->InjectInputReport(RawMessage(THID_RSP_ACK, 8, static_cast<std::uint8_t>(id)));
        worker.join();
    });
    EXPECT_EQ(TSTATUS_SUCCESS, result);
    const auto events = sink.events.Items();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(7u, events[0].pin);
    EXPECT_EQ(GPIOState_High, events[0].state);
    EXPECT_NE(caller, events[0].thread) << "the callback ran on the command's thread";
    const size_t event = trace.find(kSigProcess + ": Pin event received\n");
    const size_t answer = trace.find(kSigProcess + ": Response received\n");
    const size_t received = trace.find(kSigExecute + ": Receive response 0x80");
    ASSERT_NE(std::string::npos, event) << trace;
    EXPECT_LT(event, answer) << trace;
    EXPECT_LT(answer, received) << trace;
}

// Between commands the node stays with the command thread for a moment; an
// event arriving then is still delivered (the reader thread takes the node
// back), and so are events once the device has been idle.
TEST_F(DeviceEventTest, EventsRightAfterACommandAreDelivered)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    Sink sink;
    CloseOnExit closeOnExit(device);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(SinkCallback, &sink));
    for (unsigned i = 0; i < 5; ++i) {
        {
            PxMutexLock lock(device.mMutex);
            ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinState(1, i % 2 ? GPIOState_High : GPIOState_Low));
        }
        adapter.firmware->SendPinEvent(i, 0);
        ASSERT_TRUE(sink.events.WaitForCount(i + 1)) << "event " << i << " after a command was not delivered";
    }
    const auto events = sink.events.Items();
    for (unsigned i = 0; i < events.size(); ++i)
        EXPECT_EQ(i, events[i].pin);
}

} // namespace
