// Benchmarks of libkarvex against emulated adapters.
//
//   umockdev-wrapper karvex_bench [--mode=main|enum|callgrind] [--devices=N]
//                                 [--answer=inline|thread] [--latency-us=N]
//                                 [--loops=N] [benchmark flags]
//
// main:      round trips of the library beside the same exchange written by
//            hand (the floor) and on hidapi, allocations and context switches
//            per call, one adapter against two in parallel, pin event latency
//            and throughput.
// enum:      enumeration and open time with 3 adapters among --devices hidraw
//            devices.
// callgrind: fixed loops for valgrind --tool=callgrind (see run.sh); no timing.
//
// --answer=inline (default): the emulated adapter answers inside write().
// --answer=thread: a firmware thread answers, --latency-us after the command
// (250 is the round trip of a real adapter at USB high speed).
//
// The adapters' nodes are served in-process (BenchHidrawShim, BenchFirmware);
// udev enumeration goes through umockdev's testbed. bench/run.sh runs
// everything and writes bench/RESULTS.md.
#include <benchmark/benchmark.h>
#include <hidapi.h>
#include <linux/futex.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchAllocCounter.h"
#include "BenchFirmware.h"
#include "BenchHidapiClient.h"
#include "BenchHidrawShim.h"
#include "BenchMessage.h"
#include "BenchRawClient.h"
#include "BenchTestbed.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"

namespace {

using namespace kbench;

// ---- Time, futexes, samples ------------------------------------------------------

inline std::int64_t NowNs()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Waits while *word == value, at most timeoutMs. False on time-out.
bool FutexWait(std::atomic<std::uint32_t>* word, std::uint32_t value, long timeoutMs = 2000)
{
    timespec ts = {timeoutMs / 1000, (timeoutMs % 1000) * 1000000};
    const long rc = syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAIT_PRIVATE, value, &ts,
                            nullptr, 0);
    return !(rc < 0 && errno == ETIMEDOUT);
}

void FutexWake(std::atomic<std::uint32_t>* word)
{
    syscall(SYS_futex, reinterpret_cast<std::uint32_t*>(word), FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Per-operation durations, preallocated so that recording never allocates.
class Samples {
public:
    static constexpr std::size_t cCapacity = 1 << 21;
    Samples() : mData(new std::int64_t[cCapacity]) {}
    void Clear() { mCount = 0; }
    void Add(std::int64_t ns)
    {
        if (mCount < cCapacity)
            mData[mCount++] = ns;
    }
    std::size_t Count() const { return mCount; }
    std::int64_t* Data() { return mData.get(); }
    // Quantile in microseconds (sorts in place).
    double QuantileUs(double q)
    {
        if (mCount == 0)
            return 0;
        std::sort(mData.get(), mData.get() + mCount);
        std::size_t index = static_cast<std::size_t>(q * static_cast<double>(mCount - 1) + 0.5);
        return static_cast<double>(mData[index]) / 1000.0;
    }
    void Report(benchmark::State& state, const char* prefix = "")
    {
        state.counters[std::string(prefix) + "p50_us"] = QuantileUs(0.50);
        state.counters[std::string(prefix) + "p99_us"] = QuantileUs(0.99);
    }

private:
    std::unique_ptr<std::int64_t[]> mData;
    std::size_t mCount = 0;
};

Samples gSamples[2]; // one per benchmark thread

// Whole-process costs of one benchmark loop: heap allocations, context
// switches and CPU time of all threads (the library's included).
class ProcessProbe {
public:
    void Start()
    {
        mAllocs = BenchAllocCounter::Count();
        mSwitches = Switches();
        mInvoluntary = Involuntary();
        mCpuNs = CpuNs();
    }
    void Report(benchmark::State& state, double operations)
    {
        const double allocs = static_cast<double>(BenchAllocCounter::Count() - mAllocs);
        const double switches = static_cast<double>(Switches() - mSwitches);
        const double involuntary = static_cast<double>(Involuntary() - mInvoluntary);
        const double cpu = static_cast<double>(CpuNs() - mCpuNs);
        if (operations <= 0)
            operations = 1;
        state.counters["allocs_per_op"] = allocs / operations;
        state.counters["ctxsw_per_op"] = switches / operations;
        state.counters["preempted_per_op"] = involuntary / operations;
        state.counters["cpu_us_per_op"] = cpu / operations / 1000.0;
    }

private:
    static long Switches()
    {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_nvcsw + usage.ru_nivcsw;
    }
    static long Involuntary()
    {
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        return usage.ru_nivcsw;
    }
    static std::int64_t CpuNs()
    {
        timespec ts;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        return static_cast<std::int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
    }
    std::uint64_t mAllocs = 0;
    long mSwitches = 0;
    long mInvoluntary = 0;
    std::int64_t mCpuNs = 0;
};

// ---- The run's adapters and clients -----------------------------------------------

// Adapter roles in the main run.
constexpr unsigned cRoundTripAdapter = 0; // library, raw and hidapi share this node
constexpr unsigned cSecondAdapter = 1;    // the second adapter of the parallel runs
constexpr unsigned cEventAdapter = 2;     // library pin events
constexpr unsigned cRawEventAdapter = 3;  // hand-written pin event reader
constexpr unsigned cMainAdapters = 4;

BenchTestbed* gBed = nullptr;
KARVEXDeviceHandle gLib[cMainAdapters] = {};
BenchRawClient gRaw[cMainAdapters];
BenchHidapiClient gHidapi;

enum class Client { Raw, Hidapi, Library };
enum class Op { SetPinState, GetPinState, I2c256 };

std::uint8_t gWriteData[2][256];
std::uint8_t gReadData[2][256];

bool DoOp(Client client, Op op, unsigned adapter, unsigned i, unsigned slot)
{
    const unsigned pin = 3;
    switch (client) {
    case Client::Library:
        switch (op) {
        case Op::SetPinState:
            return KARVEX_SetPinState(gLib[adapter], pin, (i & 1) ? GPIOState_High : GPIOState_Low) == TSTATUS_SUCCESS;
        case Op::GetPinState: {
            KARVEX_GPIOState s;
            return KARVEX_GetPinState(gLib[adapter], pin, &s) == TSTATUS_SUCCESS;
        }
        case Op::I2c256:
            return KARVEX_I2cTransaction(gLib[adapter], 0, 400000, 0x50, gWriteData[slot], 256, gReadData[slot], 256,
                                         100) == TSTATUS_SUCCESS;
        }
        break;
    case Client::Raw: {
        unsigned s = 0;
        switch (op) {
        case Op::SetPinState:
            return gRaw[adapter].SetPinState(pin, i & 1);
        case Op::GetPinState:
            return gRaw[adapter].GetPinState(pin, s);
        case Op::I2c256:
            return gRaw[adapter].I2c(gWriteData[slot], 256, gReadData[slot], 256);
        }
        break;
    }
    case Client::Hidapi: {
        unsigned s = 0;
        switch (op) {
        case Op::SetPinState:
            return gHidapi.SetPinState(pin, i & 1);
        case Op::GetPinState:
            return gHidapi.GetPinState(pin, s);
        case Op::I2c256:
            return gHidapi.I2c(gWriteData[slot], 256, gReadData[slot], 256);
        }
        break;
    }
    }
    return false;
}

// ---- Round trips ------------------------------------------------------------------

void BM_RoundTrip(benchmark::State& state, Client client, Op op)
{
    Samples& samples = gSamples[0];
    samples.Clear();
    ProcessProbe probe;
    unsigned i = 0;
    probe.Start();
    for (auto _ : state) {
        const std::int64_t t0 = NowNs();
        if (!DoOp(client, op, cRoundTripAdapter, i++, 0)) {
            state.SkipWithError("operation failed");
            break;
        }
        samples.Add(NowNs() - t0);
    }
    probe.Report(state, static_cast<double>(state.iterations()));
    samples.Report(state);
    state.SetItemsProcessed(state.iterations());
}

// One thread per adapter; with Threads(1) the first adapter alone.
void BM_Parallel(benchmark::State& state, Client client)
{
    const unsigned slot = static_cast<unsigned>(state.thread_index());
    const unsigned adapter = slot == 0 ? cRoundTripAdapter : cSecondAdapter;
    ProcessProbe probe;
    unsigned i = 0;
    if (slot == 0)
        probe.Start();
    for (auto _ : state) {
        if (!DoOp(client, Op::SetPinState, adapter, i++, slot)) {
            state.SkipWithError("operation failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    if (slot == 0)
        probe.Report(state, static_cast<double>(state.iterations()) * state.threads());
}

// The cost of waking another thread and being woken by it (two hand-offs
// through futexes): what a reader thread between caller and device costs at
// the least on this machine.
// With an argument > 0 the benchmark thread sleeps that many microseconds
// before each ping (untimed), so that both CPUs may have gone idle, as
// between two calls to a real adapter.
void BM_ThreadPingPong(benchmark::State& state)
{
    const long idleUs = static_cast<long>(state.range(0));
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    std::atomic<std::uint32_t> word{0};
    std::atomic<bool> stop{false};
    std::thread partner([&] {
        for (;;) {
            std::uint32_t v = word.load();
            while (v != 1 && !stop.load()) {
                FutexWait(&word, v, 100);
                v = word.load();
            }
            if (stop.load())
                return;
            word.store(2);
            FutexWake(&word);
        }
    });
    Samples& samples = gSamples[0];
    samples.Clear();
    for (auto _ : state) {
        if (idleUs > 0) {
            state.PauseTiming();
            const timespec idle = {0, idleUs * 1000};
            nanosleep(&idle, nullptr);
            state.ResumeTiming();
        }
        const std::int64_t t0 = NowNs();
        word.store(1);
        FutexWake(&word);
        std::uint32_t v = word.load();
        while (v != 2) {
            FutexWait(&word, v, 100);
            v = word.load();
        }
        samples.Add(NowNs() - t0);
        word.store(0);
    }
    stop.store(true);
    word.store(3);
    FutexWake(&word);
    partner.join();
    samples.Report(state);
}

// Pure computation on every benchmark thread: how much of two CPUs this
// machine gives two threads (the ceiling for any two-adapter ratio).
void BM_CpuSpin(benchmark::State& state)
{
    std::uint64_t x = 88172645463325252ULL + static_cast<std::uint64_t>(state.thread_index());
    for (auto _ : state) {
        for (int i = 0; i < 1000; ++i) {
            x ^= x << 13;
            x ^= x >> 7;
            x ^= x << 17;
        }
        benchmark::DoNotOptimize(x);
    }
    state.SetItemsProcessed(state.iterations());
}

// The emulated firmware's own share of a round trip (no system calls).
void BM_FirmwareProcess(benchmark::State& state)
{
    BenchFirmware firmware;
    std::uint8_t command[BenchMessage::cReportBytes];
    std::uint8_t reply[BenchFirmware::cInputReportBytes];
    BenchMessage::SetPinState(command, 1, 3, 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(firmware.Process(command, sizeof command, reply));
        benchmark::ClobberMemory();
    }
}

// ---- Pin events -------------------------------------------------------------------

// Every event carries its sequence number as pin ID, so a gap in what the
// callback sees is an event lost on the way (an overrun).
struct EventSink {
    std::atomic<std::uint32_t> delivered{0};
    std::atomic<std::int64_t> lastNs{0};
    std::atomic<std::uint32_t> waiting{0};
    std::atomic<std::uint32_t> gaps{0};
    std::atomic<std::uint32_t> firstGapAt{UINT32_MAX};
    std::uint32_t expected = 0; // callback thread only
    // When set: the callback's time of each event, indexed by sequence number - stampBase.
    std::int64_t* stamps = nullptr;
    std::uint32_t stampBase = 0;
    std::uint32_t stampCount = 0;

    void Reset(std::uint32_t nextSeq)
    {
        delivered.store(0);
        gaps.store(0);
        firstGapAt.store(UINT32_MAX);
        expected = nextSeq;
    }
    void Deliver(std::uint32_t seq)
    {
        const std::int64_t now = NowNs();
        lastNs.store(now, std::memory_order_relaxed);
        if (stamps != nullptr && seq - stampBase < stampCount)
            stamps[seq - stampBase] = now;
        if (seq != expected) {
            if (gaps.fetch_add(1) == 0)
                firstGapAt.store(delivered.load());
        }
        expected = seq + 1;
        delivered.fetch_add(1);
        if (waiting.load())
            FutexWake(&delivered);
    }
    // Until at least target events were delivered; false on time-out.
    bool WaitFor(std::uint32_t target, long timeoutMs = 2000)
    {
        waiting.store(1);
        std::uint32_t v = delivered.load();
        const std::int64_t deadline = NowNs() + timeoutMs * 1000000;
        while (v < target) {
            if (NowNs() > deadline) {
                waiting.store(0);
                return false;
            }
            FutexWait(&delivered, v, 100);
            v = delivered.load();
        }
        waiting.store(0);
        return true;
    }
};

EventSink gLibSink;
EventSink gRawSink;

void OnPinEvent(void* context, unsigned int pinId, KARVEX_GPIOState)
{
    static_cast<EventSink*>(context)->Deliver(pinId);
}

// The hand-written counterpart of the library's reader: one thread blocked
// in poll() on the node, reading each event as it comes.
class RawEventReader {
public:
    explicit RawEventReader(int fd) : mFd(fd)
    {
        if (pipe(mStop) != 0)
            std::abort();
        mThread = std::thread([this] { Run(); });
    }
    ~RawEventReader()
    {
        char c = 'x';
        if (write(mStop[1], &c, 1) != 1)
            std::abort();
        mThread.join();
        close(mStop[0]);
        close(mStop[1]);
    }

private:
    void Run()
    {
        std::uint8_t report[BenchFirmware::cInputReportBytes];
        for (;;) {
            pollfd fds[2] = {{mStop[0], POLLIN, 0}, {mFd, POLLIN, 0}};
            if (poll(fds, 2, -1) < 0)
                continue;
            if (fds[0].revents)
                return;
            const ssize_t n = read(mFd, report, sizeof report);
            if (n < static_cast<ssize_t>(sizeof(THID_MsgHeader) + sizeof(THID_PinState)))
                continue;
            const auto* h = reinterpret_cast<const THID_MsgHeader*>(report);
            if (h->messageCode != THID_EVT_PIN_STATE_CHANGED)
                continue;
            gRawSink.Deliver(reinterpret_cast<const THID_PinState*>(report + sizeof(THID_MsgHeader))->pinId.Get());
        }
    }
    int mFd;
    int mStop[2];
    std::thread mThread;
};

std::uint32_t gNextSeq = 1;

bool InjectEvent(unsigned adapter, std::uint32_t seq)
{
    std::uint8_t report[BenchFirmware::cInputReportBytes];
    BenchFirmware::BuildPinEvent(seq, seq & 1, report);
    return BenchHidrawShim::Inject(gBed->Path(adapter), report, sizeof report) > 0;
}

// Injection (the adapter's report on the wire) to the callback, one event at a time.
void BM_PinEventLatency(benchmark::State& state, bool library)
{
    EventSink& sink = library ? gLibSink : gRawSink;
    const unsigned adapter = library ? cEventAdapter : cRawEventAdapter;
    std::unique_ptr<RawEventReader> reader;
    if (library)
        KARVEX_RegisterPinEventCallback(gLib[cEventAdapter], OnPinEvent, &gLibSink);
    else
        reader = std::make_unique<RawEventReader>(gRaw[cRawEventAdapter].Fd());
    sink.Reset(gNextSeq);
    Samples& samples = gSamples[0];
    samples.Clear();
    ProcessProbe probe;
    std::uint32_t target = 0;
    probe.Start();
    for (auto _ : state) {
        const std::int64_t t0 = NowNs();
        if (!InjectEvent(adapter, gNextSeq++) || !sink.WaitFor(++target)) {
            state.SkipWithError("event lost");
            break;
        }
        samples.Add(sink.lastNs.load() - t0);
    }
    probe.Report(state, static_cast<double>(state.iterations()));
    samples.Report(state);
    state.counters["overruns"] = sink.gaps.load();
    if (library)
        KARVEX_RegisterPinEventCallback(gLib[cEventAdapter], nullptr, nullptr);
}

// Sustained delivery with at most `window` events between injection and
// callback (fewer than the library's 10 queue slots, so none can be lost):
// the most events per second that reach the callback without an overrun.
void BM_PinEventThroughput(benchmark::State& state, bool library)
{
    const std::uint32_t window = static_cast<std::uint32_t>(state.range(0));
    EventSink& sink = library ? gLibSink : gRawSink;
    const unsigned adapter = library ? cEventAdapter : cRawEventAdapter;
    std::unique_ptr<RawEventReader> reader;
    if (library)
        KARVEX_RegisterPinEventCallback(gLib[cEventAdapter], OnPinEvent, &gLibSink);
    else
        reader = std::make_unique<RawEventReader>(gRaw[cRawEventAdapter].Fd());
    sink.Reset(gNextSeq);
    ProcessProbe probe;
    std::uint32_t sent = 0;
    probe.Start();
    for (auto _ : state) {
        if (sent - sink.delivered.load() >= window && !sink.WaitFor(sent - window + 1)) {
            state.SkipWithError("events lost");
            break;
        }
        if (!InjectEvent(adapter, gNextSeq++)) {
            state.SkipWithError("injection failed");
            break;
        }
        ++sent;
    }
    if (!sink.WaitFor(sent))
        state.SkipWithError("events lost at the end");
    probe.Report(state, static_cast<double>(state.iterations()));
    state.SetItemsProcessed(state.iterations());
    state.counters["overruns"] = sink.gaps.load();
    if (library)
        KARVEX_RegisterPinEventCallback(gLib[cEventAdapter], nullptr, nullptr);
}

// Events arriving as a USB high-speed interrupt endpoint can bring them:
// `perFrame` reports every 125 us microframe (1 is what an endpoint with
// bInterval 1 delivers, 3 the most a high-bandwidth endpoint can), for one
// second. A microframe the injector wakes up late for is not made up for
// with a burst (the bus cannot do that either): the schedule moves on from
// the late wake-up. Counts what reaches the callback, where the first event
// was lost, if any, and the latency from injection to callback.
void BM_PinEventPaced(benchmark::State& state, bool library)
{
    EventSink& sink = library ? gLibSink : gRawSink;
    const unsigned adapter = library ? cEventAdapter : cRawEventAdapter;
    const unsigned perFrame = static_cast<unsigned>(state.range(0));
    const unsigned frames = 8000;
    const unsigned total = frames * perFrame;
    const unsigned mask = TPosixGetTraceMask();
    TPosixSetTraceMask(0); // the library traces every overrun on standard output
    prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
    static std::vector<std::int64_t> injectedAt(Samples::cCapacity);
    std::int64_t* callbackAt = gSamples[1].Data();
    Samples& samples = gSamples[0];
    std::uint32_t delivered = 0, lost = 0, firstLoss = 0, wireDrops = 0;
    double offeredPerSec = 0, deliveredPerSec = 0;
    for (auto _ : state) {
        std::unique_ptr<RawEventReader> reader;
        if (library)
            KARVEX_RegisterPinEventCallback(gLib[cEventAdapter], OnPinEvent, &gLibSink);
        else
            reader = std::make_unique<RawEventReader>(gRaw[cRawEventAdapter].Fd());
        sink.Reset(gNextSeq);
        std::fill(callbackAt, callbackAt + total, 0);
        sink.stampBase = gNextSeq;
        sink.stampCount = total;
        sink.stamps = callbackAt;
        const std::uint64_t dropped0 = BenchHidrawShim::Dropped();
        const std::int64_t t0 = NowNs();
        std::int64_t due = t0;
        unsigned k = 0;
        for (unsigned f = 0; f < frames; ++f) {
            timespec ts = {static_cast<time_t>(due / 1000000000), static_cast<long>(due % 1000000000)};
            while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
            }
            const std::int64_t now = NowNs();
            for (unsigned j = 0; j < perFrame; ++j, ++k) {
                injectedAt[k] = now;
                InjectEvent(adapter, gNextSeq++);
            }
            due = std::max(due + 125000, now);
        }
        const std::int64_t t1 = NowNs();
        std::uint32_t last = UINT32_MAX;
        while (sink.delivered.load() != last) { // until delivery stops
            last = sink.delivered.load();
            sink.WaitFor(last + 1, 50);
        }
        if (library)
            KARVEX_RegisterPinEventCallback(gLib[cEventAdapter], nullptr, nullptr);
        reader.reset();
        sink.stamps = nullptr;
        wireDrops = static_cast<std::uint32_t>(BenchHidrawShim::Dropped() - dropped0);
        delivered = sink.delivered.load();
        lost = total - wireDrops - delivered;
        firstLoss = sink.gaps.load() ? sink.firstGapAt.load() : delivered;
        offeredPerSec = total / (static_cast<double>(t1 - t0) / 1e9);
        deliveredPerSec = delivered / (static_cast<double>(sink.lastNs.load() - t0) / 1e9);
        samples.Clear();
        for (unsigned i = 0; i < total; ++i)
            if (callbackAt[i] != 0)
                samples.Add(callbackAt[i] - injectedAt[i]);
    }
    TPosixSetTraceMask(mask);
    samples.Report(state);
    state.counters["max_us"] = samples.QuantileUs(1.0);
    state.counters["injected"] = total;
    state.counters["offered_per_sec"] = offeredPerSec;
    state.counters["delivered_per_sec"] = deliveredPerSec;
    state.counters["wire_drops"] = wireDrops;
    state.counters["lost_in_library"] = lost;
    state.counters["delivered_before_first_loss"] = firstLoss;
}

// ---- Enumeration and open -----------------------------------------------------------

void BM_EnumerateLibrary(benchmark::State& state)
{
    ProcessProbe probe;
    probe.Start();
    for (auto _ : state) {
        unsigned count = 0;
        if (KARVEX_EnumerateDevices(&count) != TSTATUS_SUCCESS || count != gBed->AdapterCount()) {
            state.SkipWithError("enumeration failed");
            break;
        }
    }
    probe.Report(state, static_cast<double>(state.iterations()));
    state.counters["hidraw_devices"] = gBed->DeviceCount();
}

void BM_EnumerateHidapi(benchmark::State& state)
{
    for (auto _ : state) {
        hid_device_info* list = hid_enumerate(KARVEX_USB_VENDOR_ID, 0);
        unsigned count = 0;
        for (hid_device_info* d = list; d != nullptr; d = d->next)
            ++count;
        hid_free_enumeration(list);
        if (count != gBed->AdapterCount()) {
            const std::string message = "hid_enumerate found " + std::to_string(count) + " adapters";
            state.SkipWithError(message.c_str());
            break;
        }
    }
    state.counters["hidraw_devices"] = gBed->DeviceCount();
}

// KARVEX_OpenDevice alone (it enumerates again, opens the node, starts the
// reader thread and exchanges the protocol version); the close is not timed.
void BM_OpenLibrary(benchmark::State& state)
{
    const std::string path = gBed->Path(gBed->AdapterCount() - 1);
    for (auto _ : state) {
        KARVEXDeviceHandle h = 0;
        const std::int64_t t0 = NowNs();
        const TSTATUS st = KARVEX_OpenDevice(path.c_str(), &h);
        const std::int64_t t1 = NowNs();
        if (st != TSTATUS_SUCCESS) {
            state.SkipWithError("open failed");
            break;
        }
        KARVEX_CloseDevice(h);
        state.SetIterationTime(static_cast<double>(t1 - t0) / 1e9);
    }
    state.counters["hidraw_devices"] = gBed->DeviceCount();
}

// ---- Runs -------------------------------------------------------------------------

bool OpenLibrary(unsigned adapter)
{
    return KARVEX_OpenDevice(gBed->Path(adapter).c_str(), &gLib[adapter]) == TSTATUS_SUCCESS;
}

int RunMain(int argc, char** argv)
{
    BenchTestbed bed(cMainAdapters, 0);
    gBed = &bed;
    for (unsigned i = 0; i < 256; ++i) {
        gWriteData[0][i] = static_cast<std::uint8_t>(i * 7);
        gWriteData[1][i] = static_cast<std::uint8_t>(i * 5);
    }
    unsigned count = 0;
    if (KARVEX_EnumerateDevices(&count) != TSTATUS_SUCCESS || count != cMainAdapters) {
        std::fprintf(stderr, "enumeration found %u adapters\n", count);
        return 1;
    }
    for (unsigned a : {cRoundTripAdapter, cSecondAdapter, cEventAdapter})
        if (!OpenLibrary(a)) {
            std::fprintf(stderr, "KARVEX_OpenDevice(%s) failed\n", bed.Path(a).c_str());
            return 1;
        }
    for (unsigned a : {cRoundTripAdapter, cSecondAdapter, cRawEventAdapter})
        if (!gRaw[a].Open(bed.Path(a))) {
            std::perror("open");
            return 1;
        }
    if (!gHidapi.Open(bed.Path(cRoundTripAdapter))) {
        std::fprintf(stderr, "hid_open_path failed\n");
        return 1;
    }

    // Warm caches, clocks and the scheduler's view of our threads, so that
    // the first benchmark is not measured cold.
    for (unsigned i = 0; i < 20000; ++i)
        for (Client c : {Client::Raw, Client::Hidapi, Client::Library})
            if (!DoOp(c, Op::SetPinState, cRoundTripAdapter, i, 0)) {
                std::fprintf(stderr, "warm-up call failed\n");
                return 1;
            }

    struct OpName {
        Op op;
        const char* name;
    };
    const OpName ops[] = {{Op::SetPinState, "SetPinState"}, {Op::GetPinState, "GetPinState"}, {Op::I2c256, "I2c256"}};
    for (const OpName& o : ops) {
        benchmark::RegisterBenchmark((std::string("RoundTrip/") + o.name + "/raw").c_str(), BM_RoundTrip, Client::Raw,
                                     o.op)
            ->MinTime(0.5)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
        benchmark::RegisterBenchmark((std::string("RoundTrip/") + o.name + "/hidapi").c_str(), BM_RoundTrip,
                                     Client::Hidapi, o.op)
            ->MinTime(0.5)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
        benchmark::RegisterBenchmark((std::string("RoundTrip/") + o.name + "/library").c_str(), BM_RoundTrip,
                                     Client::Library, o.op)
            ->MinTime(0.5)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
    }
    benchmark::RegisterBenchmark("Reference/ThreadPingPong", BM_ThreadPingPong)
        ->Arg(0)
        ->MinTime(0.3)
        ->Repetitions(3)
        ->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark("Reference/ThreadPingPongAfterIdle", BM_ThreadPingPong)
        ->Arg(250)
        ->Iterations(2000)
        ->Repetitions(3)
        ->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark("Reference/CpuSpin", BM_CpuSpin)
        ->Threads(1)
        ->Threads(2)
        ->UseRealTime()
        ->MinTime(0.5)
        ->Repetitions(5)
        ->ReportAggregatesOnly(true);
    benchmark::RegisterBenchmark("Reference/FirmwareProcess", BM_FirmwareProcess);
    for (Client c : {Client::Raw, Client::Library})
        benchmark::RegisterBenchmark(c == Client::Raw ? "Parallel/SetPinState/raw" : "Parallel/SetPinState/library",
                                     BM_Parallel, c)
            ->Threads(1)
            ->Threads(2)
            ->UseRealTime()
            ->MinTime(0.5)
            ->Repetitions(5)
            ->ReportAggregatesOnly(true);
    for (bool library : {false, true})
        benchmark::RegisterBenchmark(library ? "PinEvent/Latency/library" : "PinEvent/Latency/raw",
                                     BM_PinEventLatency, library)
            ->Iterations(10000)
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
    for (bool library : {false, true})
        benchmark::RegisterBenchmark(library ? "PinEvent/Throughput/library" : "PinEvent/Throughput/raw",
                                     BM_PinEventThroughput, library)
            ->Arg(8)
            ->Iterations(50000)
            ->UseRealTime()
            ->Repetitions(3)
            ->ReportAggregatesOnly(true);
    for (bool library : {false, true})
        benchmark::RegisterBenchmark(library ? "PinEvent/Paced/library" : "PinEvent/Paced/raw", BM_PinEventPaced,
                                     library)
            ->Arg(1)
            ->Arg(3)
            ->Arg(8)
            ->Iterations(1)
            ->UseRealTime();

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    gHidapi.Close();
    hid_exit();
    for (auto& raw : gRaw)
        raw.Close();
    for (KARVEXDeviceHandle& h : gLib)
        if (h != 0)
            KARVEX_CloseDevice(h);
    gBed = nullptr;
    return 0;
}

int RunEnum(int argc, char** argv, unsigned devices)
{
    const unsigned adapters = 3;
    if (devices < adapters)
        devices = adapters;
    const std::int64_t t0 = NowNs();
    BenchTestbed bed(adapters, devices - adapters);
    std::fprintf(stderr, "testbed with %u hidraw devices built in %.1f s\n", devices,
                 static_cast<double>(NowNs() - t0) / 1e9);
    gBed = &bed;
    const int iterations = static_cast<int>(std::max(3u, 3000u / devices));
    benchmark::RegisterBenchmark(("Enumerate/library/" + std::to_string(devices)).c_str(), BM_EnumerateLibrary)
        ->Iterations(iterations)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Enumerate/hidapi/" + std::to_string(devices)).c_str(), BM_EnumerateHidapi)
        ->Iterations(iterations)
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark(("Open/library/" + std::to_string(devices)).c_str(), BM_OpenLibrary)
        ->Iterations(iterations)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    hid_exit();
    gBed = nullptr;
    return 0;
}

// Fixed loops for callgrind: run.sh zeroes the counters before each loop and
// dumps them after it (client requests), so each dump holds exactly `loops`
// operations of one client.
int RunCallgrind(unsigned loops)
{
    BenchTestbed bed(1, 0);
    gBed = &bed;
    if (!OpenLibrary(0) || !gRaw[0].Open(bed.Path(0)) || !gHidapi.Open(bed.Path(0))) {
        std::fprintf(stderr, "open failed\n");
        return 1;
    }
    struct Run {
        Client client;
        const char* name;
    };
    bool ok = true;
    for (const Run& run : {Run{Client::Library, "library"}, Run{Client::Raw, "raw"}, Run{Client::Hidapi, "hidapi"}}) {
        for (unsigned i = 0; i < 100; ++i)
            ok = DoOp(run.client, Op::SetPinState, 0, i, 0) && ok;
        const std::uint64_t allocs = BenchAllocCounter::Count();
        CALLGRIND_ZERO_STATS;
        for (unsigned i = 0; i < loops; ++i)
            ok = DoOp(run.client, Op::SetPinState, 0, i, 0) && ok;
        const std::uint64_t allocated = BenchAllocCounter::Count() - allocs;
        CALLGRIND_DUMP_STATS_AT(run.name);
        std::printf("%s: %u SetPinState, %llu allocations\n", run.name, loops,
                    static_cast<unsigned long long>(allocated));
    }
    gHidapi.Close();
    hid_exit();
    gRaw[0].Close();
    KARVEX_CloseDevice(gLib[0]);
    gLib[0] = 0;
    gBed = nullptr;
    return ok ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    std::string mode = "main";
    unsigned devices = 10;
    unsigned loops = 1000;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg.rfind("--mode=", 0) == 0)
            mode = arg.substr(7);
        else if (arg.rfind("--devices=", 0) == 0)
            devices = static_cast<unsigned>(std::stoul(arg.substr(10)));
        else if (arg.rfind("--loops=", 0) == 0)
            loops = static_cast<unsigned>(std::stoul(arg.substr(8)));
        else if (arg == "--answer=thread")
            BenchHidrawShim::SetAnswerMode(BenchHidrawShim::AnswerMode::FirmwareThread);
        else if (arg.rfind("--latency-us=", 0) == 0)
            BenchHidrawShim::SetAnswerLatency(static_cast<unsigned>(std::stoul(arg.substr(13))));
        else if (arg == "--answer=inline")
            BenchHidrawShim::SetAnswerMode(BenchHidrawShim::AnswerMode::Inline);
        else
            rest.push_back(argv[i]);
    }
    rest.push_back(nullptr);
    int restCount = static_cast<int>(rest.size()) - 1;
    if (!kemu::EmuTestbed::InMockEnvironment()) {
        std::fprintf(stderr, "%s: run under umockdev-wrapper (see bench/run.sh)\n", argv[0]);
        return 2;
    }
    if (mode == "main")
        return RunMain(restCount, rest.data());
    if (mode == "enum")
        return RunEnum(restCount, rest.data(), devices);
    if (mode == "callgrind")
        return RunCallgrind(loops);
    std::fprintf(stderr, "unknown mode '%s'\n", mode.c_str());
    return 2;
}
