// A storm of pin events against a slow pin callback, through the public API:
// the reader thread keeps draining the adapter however slow the callback is,
// so command responses still arrive; the event queue overruns (and says so
// in the trace) instead of growing; memory stays flat; every event the
// library read is delivered once, in order, or accounted for as an overrun.
//
// The emulated adapter sends KARVEX_STORM_EVENTS events (1,000,000; fewer in
// the sanitizer builds) in bursts far faster than any host reads: the
// emulated hidraw queue keeps 63 reports per descriptor and drops the rest,
// as the kernel does. So the library reads only as many as umockdev lets it
// (a few thousand a second); the test prints both numbers.
#include "support/reliability.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <thread>

using namespace karvex_test;

namespace {

constexpr unsigned kStormPin = 0x10000; // pin IDs of storm events count up from here
constexpr unsigned kEventPin = 4;       // an input pin configured for events
constexpr unsigned kOutputPin = 2;      // read back between bursts
constexpr unsigned kBurst = 2000;       // events per burst

const char* const kOverrunLine =
    "void KarvexDevice::ProcessReceivedReport(KarvexReportBuffer&): Event Queue overrun occurred\n";

// The slow application: every event costs it a millisecond. It checks that
// events come in the order they were sent, each at most once.
struct SlowSink {
    std::atomic<unsigned long> delivered{0};
    std::atomic<unsigned long> outOfOrder{0};
    std::atomic<unsigned long> badState{0};
    unsigned lastPin = 0; // only the pin event thread touches it
};

void SlowCallback(void* context, unsigned int pinId, KARVEX_GPIOState state)
{
    auto* sink = static_cast<SlowSink*>(context);
    if (pinId < kStormPin || pinId <= sink->lastPin)
        ++sink->outOfOrder;
    sink->lastPin = pinId;
    if (state != GPIOState_Low && state != GPIOState_High)
        ++sink->badState;
    ++sink->delivered;
    usleep(1000);
}

// The reader thread must empty the device's queue whatever the callback
// does; an answer needs room in it to arrive at all.
bool WaitForRoom(kemu::EmuHidDevice& device, std::size_t below)
{
    return WaitUntil([&] { return device.PendingInputReports() < below; }, std::chrono::seconds(5));
}

} // namespace

TEST_F(ApiTest, EventStormAgainstASlowCallbackStaysBoundedAndAnswersCommands)
{
    const unsigned long events = reliability::EnvCount("KARVEX_STORM_EVENTS", 1000000);
    const unsigned long bursts = (events + kBurst - 1) / kBurst;
    reliability::Watchdog watchdog(std::chrono::seconds(240));

    auto& a = AddAdapter();
    KARVEXDeviceHandle h = Open(a);
    ASSERT_NE(0u, h);
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, kEventPin, GPIOMode_InputEvent));
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_SetPinMode(h, kOutputPin, GPIOMode_Output_Low));
    SlowSink sink;
    ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, SlowCallback, &sink));

    const std::uint64_t readsBefore = a.device->ReadCount();
    unsigned long commands = 0;
    unsigned long commandFailures = 0;
    unsigned long wrongValues = 0;
    unsigned long stalled = 0;
    unsigned long rssAfterWarmUp = 0;
    unsigned long heapAfterWarmUp = 0;
    unsigned long rssEnd = 0;
    unsigned long heapEnd = 0;
    unsigned nextPin = kStormPin;
    // A THID_EVT_PIN_STATE_CHANGED input report as the firmware sends it
    // (length 16, code 0xE1, pin ID and state patched per event).
    std::vector<std::uint8_t> event(320, 0);
    event[0] = 16;
    event[2] = 0xE1;
    const auto start = std::chrono::steady_clock::now();
    // A few megabytes of overrun lines: the library reads a few thousand events a second.
    const std::string trace = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING, [&] {
        for (unsigned long burst = 0; burst < bursts; ++burst) {
            const unsigned long count = std::min<unsigned long>(kBurst, events - burst * kBurst);
            for (unsigned long i = 0; i < count; ++i, ++nextPin) {
                for (unsigned b = 0; b < 4; ++b)
                    event[8 + b] = static_cast<std::uint8_t>(nextPin >> (8 * b));
                event[12] = static_cast<std::uint8_t>(nextPin & 1);
                a.device->InjectInputReport(event);
            }
            if (!WaitForRoom(*a.device, 32)) {
                ++stalled;
                break;
            }
            const KARVEX_GPIOState want = (burst & 1) ? GPIOState_High : GPIOState_Low;
            KARVEX_GPIOState got = want == GPIOState_High ? GPIOState_Low : GPIOState_High;
            if (KARVEX_SetPinState(h, kOutputPin, want) != TSTATUS_SUCCESS)
                ++commandFailures;
            if (KARVEX_GetPinState(h, kOutputPin, &got) != TSTATUS_SUCCESS)
                ++commandFailures;
            else if (got != want)
                ++wrongValues;
            commands += 2;
            // The emulated firmware records every command it receives; that
            // record is the test's, not the library's memory.
            a.firmware->ClearReceivedCommands();
            if (burst == bursts / 10) {
                rssAfterWarmUp = reliability::StatusKb("VmRSS");
                heapAfterWarmUp = reliability::HeapInUseBytes();
            }
        }
        // Everything read before the last answer has been sorted (the reader
        // handles reports in order); the device queue is empty.
        ASSERT_TRUE(WaitForRoom(*a.device, 1)) << "the device queue to empty";
        KARVEX_GPIOMode mode = GPIOMode_Input;
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_GetPinMode(h, kEventPin, &mode));
        ++commands;
        EXPECT_EQ(GPIOMode_InputEvent, mode);
        // Stops the pin event thread; what is still queued is dropped with the queue.
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_RegisterPinEventCallback(h, nullptr, nullptr));
        // Before the captured trace is read into memory.
        rssEnd = reliability::StatusKb("VmRSS");
        heapEnd = reliability::HeapInUseBytes();
    });
    const auto elapsed = std::chrono::steady_clock::now() - start;
    const unsigned long overruns = CountOf(trace, kOverrunLine);

    const unsigned long eventsRead = a.device->ReadCount() - readsBefore - commands;
    const double seconds = std::chrono::duration<double>(elapsed).count();
    std::printf("  storm: %lu events sent in %lu bursts, %lu read by the library (%.0f/s), %lu delivered to the "
                "callback, %lu overruns traced, %lu commands answered during the storm, %.1f s\n",
                events, bursts, eventsRead, eventsRead / seconds, sink.delivered.load(), overruns,
                commands, seconds);
    std::printf("  memory: heap in use %lu kB after warm-up, %lu kB at the end; RSS %lu kB after warm-up, %lu kB at "
                "the end\n", heapAfterWarmUp / 1024, heapEnd / 1024, rssAfterWarmUp, rssEnd);

    EXPECT_EQ(0u, stalled) << "the device queue stayed full: the reader thread did not drain it";
    EXPECT_EQ(0u, commandFailures) << "answers lost in the storm";
    EXPECT_EQ(0u, wrongValues);
    EXPECT_EQ(0u, sink.outOfOrder.load()) << "an event was delivered twice or out of order";
    EXPECT_EQ(0u, sink.badState.load());
    // The bursts outran the callback by far: the queue overran, and said so.
    EXPECT_GT(overruns, 0u);
    EXPECT_EQ(CountOf(trace, "\n"), overruns) << "lines other than overruns:\n" << trace.substr(0, 4096);
    // Every event read went to the callback, was dropped by an overrun (one
    // line each), or was still queued (ten slots) when the callback went.
    EXPECT_LE(sink.delivered.load() + overruns, eventsRead);
    EXPECT_GE(sink.delivered.load() + overruns + 10, eventsRead);
    // Nothing is kept per event: after the warm-up the heap does not grow
    // with the number of events (the emulator allocates each report while it
    // is queued, the library nothing), and neither does the process, except
    // under a sanitizer, whose quarantine holds freed blocks for a while.
    EXPECT_LT(heapEnd, heapAfterWarmUp + 256 * 1024) << "heap grew from " << heapAfterWarmUp << " to " << heapEnd;
    if (!reliability::cSanitizedHeap) {
        EXPECT_LT(rssEnd, rssAfterWarmUp + 8 * 1024) << "RSS grew from " << rssAfterWarmUp << " kB to " << rssEnd
                                                     << " kB";
    }
}
