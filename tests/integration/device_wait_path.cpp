// The thread that waits for an answer reads it from the node itself while the
// reader thread stands aside: what it meets on the way (pin events, answers
// at the edge of its time budget) must end up where the reader thread would
// have put it.
#include <pthread.h>

#include <atomic>

#include "support/device_fixture.h"

using namespace device_test;

namespace {

struct PinEvent {
    unsigned pin;
    KARVEX_GPIOState state;
    pthread_t thread;
};

void RecordEvent(void* context, unsigned int pin, KARVEX_GPIOState state)
{
    static_cast<Recorder<PinEvent>*>(context)->Add({pin, state, pthread_self()});
}

class DeviceWaitPathTest : public DeviceTest {
protected:
    Recorder<PinEvent> mEvents;
};

} // namespace

// A pin event that arrives while a command waits reaches the callback on the
// pin event thread before the answer does; the answer then ends the command.
TEST_F(DeviceWaitPathTest, EventWhileACommandWaitsIsDeliveredAtOnce)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(RecordEvent, &mEvents));
    Faults silent;
    silent.noAnswer = true;
    adapter.firmware->SetOneShotFaults(THID_CMD_SET_PIN_STATE, silent);
    const size_t sent = adapter.firmware->CommandCount();

    std::atomic<bool> done{false};
    TSTATUS result = TSTATUS_TIMEOUT;
    pthread_t caller{};
    std::string trace = CaptureTrace(KARVEX_TRACE_INFO | KARVEX_TRACE_PROTOCOL, [&] {
        std::thread worker([&] {
            caller = pthread_self();
            PxMutexLock lock(device.mMutex);
            result = device.SetPinState(2, GPIOState_High);
            done = true;
        });
        ASSERT_TRUE(WaitUntil([&] { return adapter.firmware->CommandCount() > sent; }))
            << "the command never reached the adapter";
        adapter.firmware->SendPinEvent(7, 1);
        EXPECT_TRUE(mEvents.WaitForCount(1)) << "the event sent while the command waited was not delivered";
        EXPECT_FALSE(done.load()) << "the command ended without its answer";
        const unsigned id = MsgId(adapter.LastCommand());
        adapter.hid->InjectInputReport(RawMessage(THID_RSP_ACK, 8, static_cast<std::uint8_t>(id)));
        worker.join();
    });
    EXPECT_EQ(TSTATUS_SUCCESS, result);
    const auto events = mEvents.Items();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(7u, events[0].pin);
    EXPECT_EQ(GPIOState_High, events[0].state);
    EXPECT_FALSE(pthread_equal(caller, events[0].thread)) << "the callback ran on the command's thread";
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
TEST_F(DeviceWaitPathTest, EventsRightAfterACommandAreDelivered)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    ASSERT_EQ(TSTATUS_SUCCESS, device.RegisterPinEventCallback(RecordEvent, &mEvents));
    for (unsigned i = 0; i < 5; ++i) {
        {
            PxMutexLock lock(device.mMutex);
            ASSERT_EQ(TSTATUS_SUCCESS, device.SetPinState(1, i % 2 ? GPIOState_High : GPIOState_Low));
        }
        adapter.firmware->SendPinEvent(i, 0);
        ASSERT_TRUE(mEvents.WaitForCount(i + 1)) << "event " << i << " after a command was not delivered";
    }
    const auto events = mEvents.Items();
    for (unsigned i = 0; i < events.size(); ++i)
        EXPECT_EQ(i, events[i].pin);
}

// An answer that arrives as the budget runs out either ends the command or
// comes too late; a late one is skipped by the next command, which succeeds.
// Either way a time-out comes no earlier than the budget.
TEST_F(DeviceWaitPathTest, AnswerAtTheEndOfTheBudget)
{
    Adapter& adapter = AddAdapter();
    KarvexDevice& device = OpenedDevice(adapter);
    const std::uint8_t address = 0;
    for (unsigned delay : {990u, 1000u, 1010u}) {
        Faults late;
        late.delayMs = delay;
        adapter.firmware->SetOneShotFaults(THID_CMD_I2C_TRANSACTION, late);
        PxMutexLock lock(device.mMutex);
        const auto t0 = std::chrono::steady_clock::now();
        // Bus time-out 100 ms: the host allows its minimum of 1000 ms.
        const TSTATUS st = device.I2cTransaction(0, 100, kEepromAddress, &address, 1, nullptr, 0, 100);
        const long long took = ElapsedMs(t0);
        if (st == TSTATUS_TIMEOUT) {
            EXPECT_GE(took, 1000) << "timed out before its budget (delay " << delay << ")";
        } else {
            EXPECT_EQ(TSTATUS_SUCCESS, st) << TStatusStringA(st);
        }
        // A late I2C answer taken for this one would fail its code check.
        adapter.firmware->SetInputLevel(3, delay == 1000u);
        KARVEX_GPIOState state = GPIOState_Low;
        EXPECT_EQ(TSTATUS_SUCCESS, device.GetPinState(3, state)) << "after delay " << delay;
        EXPECT_EQ(delay == 1000u ? GPIOState_High : GPIOState_Low, state);
    }
}
