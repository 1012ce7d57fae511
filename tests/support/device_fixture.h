// Fixture for the device object tests: a KarvexDevice (library internals)
// driven against emulated adapters under umockdev, with helpers to capture
// trace output, decode the commands the firmware received and wait for
// asynchronous results without fixed sleeps.
#pragma once

#include <gtest/gtest.h>

#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "EmuAdapterFirmware.h"
#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"
#include "karvex_api_linux/KarvexDeviceEnumeratorLx.h"
#include "karvex_api_linux/KarvexDeviceLx.h"
#include "karvex_api_linux/thid_prot_karvex.h"

namespace device_test {

// Function signatures as they open the device object's trace lines.
inline const std::string kSigOpen = "TSTATUS KarvexDevice::Open(KarvexDeviceEnumerator&, unsigned int)";
inline const std::string kSigExecute =
    "TSTATUS KarvexDevice::ExecuteCommand(KarvexReportBuffer&, KarvexReportBuffer&, unsigned int)";
inline const std::string kSigGetProtocolVersion = "TSTATUS KarvexDevice::GetProtocolVersion(T_UINT8&, T_UINT8&)";
inline const std::string kSigSetPinMode = "TSTATUS KarvexDevice::SetPinMode(unsigned int, KARVEX_GPIOMode)";
inline const std::string kSigSetPinState = "TSTATUS KarvexDevice::SetPinState(unsigned int, KARVEX_GPIOState)";
inline const std::string kSigGetPinState = "TSTATUS KarvexDevice::GetPinState(unsigned int, KARVEX_GPIOState&)";
inline const std::string kSigGetPinMode = "TSTATUS KarvexDevice::GetPinMode(unsigned int, KARVEX_GPIOMode&)";
inline const std::string kSigI2c =
    "TSTATUS KarvexDevice::I2cTransaction(unsigned int, unsigned int, unsigned int, const unsigned char*, "
    "unsigned int, unsigned char*, unsigned int, unsigned int)";
inline const std::string kSigProcess = "void KarvexDevice::ProcessReceivedReport(KarvexReportBuffer&)";
inline const std::string kSigReader = "void* KarvexDevice::ReadThreadRoutine()";
inline const std::string kSigPinThread = "void* KarvexDevice::PinEventThreadRoutine()";
inline const std::string kSigRegister =
    "TSTATUS KarvexDevice::RegisterPinEventCallback(void (*)(void*, unsigned int, KARVEX_GPIOState), void*)";

// Restores the trace mask on scope exit.
class TraceMaskGuard {
public:
    explicit TraceMaskGuard(unsigned int mask) : mSaved(TPosixGetTraceMask()) { TPosixSetTraceMask(mask); }
    ~TraceMaskGuard() { TPosixSetTraceMask(mSaved); }
    TraceMaskGuard(const TraceMaskGuard&) = delete;
    TraceMaskGuard& operator=(const TraceMaskGuard&) = delete;

private:
    unsigned int mSaved;
};

// Runs f with the given trace mask and returns what the trace wrote. A
// failed expectation inside f prints into the capture too; the capture is
// then shown on stderr so that the message is not lost.
template <typename F>
std::string CaptureTrace(unsigned int mask, F f)
{
    const bool failedBefore = testing::Test::HasFailure();
    std::string text;
    {
        TraceMaskGuard guard(mask);
        fflush(stdout);
        testing::internal::CaptureStdout();
        f();
        fflush(stdout);
        text = testing::internal::GetCapturedStdout();
    }
    if (!failedBefore && testing::Test::HasFailure())
        fprintf(stderr, "--- output captured while the failure happened ---\n%s--- end ---\n", text.c_str());
    return text;
}

// Non-overlapping occurrences of needle in text.
inline size_t CountOf(const std::string& text, const std::string& needle)
{
    size_t count = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos; pos = text.find(needle, pos + needle.size()))
        ++count;
    return count;
}

// Number of non-empty lines.
inline size_t LineCount(const std::string& text)
{
    size_t count = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            ++count;
        start = end + 1;
    }
    return count;
}

// Polls pred until it holds or the time is up; true when it held.
inline bool WaitUntil(const std::function<bool()>& pred,
                      std::chrono::milliseconds timeout = std::chrono::milliseconds(5000))
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// CPU time the whole process has used, in milliseconds: a thread that spins
// shows up here even when it writes nothing.
inline double ProcessCpuMs()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
}

inline long long ElapsedMs(std::chrono::steady_clock::time_point since)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

// Fields of a command message as the firmware received it (no report ID byte).
inline unsigned MsgLength(const std::vector<std::uint8_t>& m) { return m.size() >= 2 ? m[0] | (m[1] << 8) : 0; }
inline unsigned MsgCode(const std::vector<std::uint8_t>& m) { return m.size() >= 3 ? m[2] : 0x100; }
inline unsigned MsgId(const std::vector<std::uint8_t>& m) { return m.size() >= 4 ? m[3] : 0x100; }
inline std::uint32_t Le32(const std::vector<std::uint8_t>& m, size_t offset)
{
    return static_cast<std::uint32_t>(m.at(offset)) | (static_cast<std::uint32_t>(m.at(offset + 1)) << 8) |
           (static_cast<std::uint32_t>(m.at(offset + 2)) << 16) | (static_cast<std::uint32_t>(m.at(offset + 3)) << 24);
}

// A raw adapter message (header + payload) for InjectInputReport, padded to
// the report's data length so that it reads like a real input report.
inline std::vector<std::uint8_t> RawMessage(std::uint8_t code, std::uint16_t messageLength, std::uint8_t uniqueId,
                                            const std::vector<std::uint8_t>& payload = {}, size_t reportBytes = 320)
{
    std::vector<std::uint8_t> m(reportBytes, 0);
    m[0] = static_cast<std::uint8_t>(messageLength);
    m[1] = static_cast<std::uint8_t>(messageLength >> 8);
    m[2] = code;
    m[3] = uniqueId;
    for (size_t i = 0; i < payload.size() && 8 + i < m.size(); ++i)
        m[8 + i] = payload[i];
    return m;
}

inline std::vector<std::uint8_t> PinStatePayload(std::uint32_t pinId, std::uint8_t state)
{
    return {static_cast<std::uint8_t>(pinId), static_cast<std::uint8_t>(pinId >> 8),
            static_cast<std::uint8_t>(pinId >> 16), static_cast<std::uint8_t>(pinId >> 24), state, 0, 0, 0};
}

// A thread-safe record with a bounded wait.
template <typename T>
class Recorder {
public:
    void Add(const T& value)
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mItems.push_back(value);
        mCond.notify_all();
    }
    bool WaitForCount(size_t count, std::chrono::milliseconds timeout = std::chrono::milliseconds(5000))
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCond.wait_for(lock, timeout, [&] { return mItems.size() >= count; });
    }
    std::vector<T> Items()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mItems;
    }
    size_t Size()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mItems.size();
    }

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    std::vector<T> mItems;
};

// A gate a callback can be parked at until the test opens it.
class Gate {
public:
    void Open()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mOpen = true;
        mCond.notify_all();
    }
    // false when the gate stayed shut for the whole time-out.
    bool Pass(std::chrono::milliseconds timeout = std::chrono::milliseconds(10000))
    {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCond.wait_for(lock, timeout, [&] { return mOpen; });
    }

private:
    std::mutex mMutex;
    std::condition_variable mCond;
    bool mOpen = false;
};

// One emulated adapter: the hidraw device and the firmware answering on it,
// with an EEPROM at address 0xA0 on bus 0.
struct Adapter {
    kemu::EmuHidDevice* hid = nullptr;
    std::unique_ptr<kemu::EmuAdapterFirmware> firmware;
    std::shared_ptr<kemu::EmuEeprom> eeprom;

    std::vector<std::vector<std::uint8_t>> Commands() const { return firmware->ReceivedCommands(); }
    std::vector<std::uint8_t> LastCommand() const
    {
        auto all = firmware->ReceivedCommands();
        return all.empty() ? std::vector<std::uint8_t>() : all.back();
    }
};

class DeviceTest : public testing::Test {
protected:
    static constexpr std::uint8_t kEepromAddress = 0xA0;

    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mSavedMask = TPosixGetTraceMask();
        TPosixSetTraceMask(0);
        mTestbed = std::make_unique<kemu::EmuTestbed>();
    }

    void TearDown() override
    {
        // Devices first: their threads use the emulated nodes.
        mDevices.clear();
        mAdapters.clear();
        mTestbed.reset();
        TPosixSetTraceMask(mSavedMask);
    }

    // The emulator learns of a closed descriptor only some time later and
    // until then copies input reports to it as well; the node can then poll
    // readable for the next descriptor with nothing to read (the reader
    // thread traces a failed read and pauses). Tests that open again after a
    // close take a fresh adapter, unless nothing is answered in between.
    Adapter& AddAdapter(const kemu::EmuHidDeviceConfig& config = kemu::AdapterConfig())
    {
        auto adapter = std::make_unique<Adapter>();
        adapter->hid = &mTestbed->AddDevice(config);
        adapter->firmware = std::make_unique<kemu::EmuAdapterFirmware>(*adapter->hid);
        adapter->eeprom = std::make_shared<kemu::EmuEeprom>(256);
        adapter->firmware->AttachI2cSlave(0, kEepromAddress, adapter->eeprom);
        mAdapters.push_back(std::move(adapter));
        return *mAdapters.back();
    }

    // A device object owned by the fixture (destroyed before the adapters).
    KarvexDevice& NewDevice()
    {
        mDevices.push_back(std::make_unique<KarvexDevice>());
        return *mDevices.back();
    }

    // Enumerates every USB hidraw device and finds the adapter's node.
    unsigned IndexOf(const Adapter& adapter)
    {
        EXPECT_EQ(TSTATUS_SUCCESS, mEnumerator.EnumerateHidRawDevices(nullptr));
        unsigned index = ~0u;
        EXPECT_EQ(TSTATUS_SUCCESS, mEnumerator.FindIndexForDevicePath(adapter.hid->DevNode().c_str(), index))
            << adapter.hid->DevNode();
        return index;
    }

    TSTATUS OpenDevice(KarvexDevice& device, const Adapter& adapter)
    {
        const unsigned index = IndexOf(adapter);
        return device.Open(mEnumerator, index);
    }

    // Adapter plus an open device on it, or a fatal failure.
    KarvexDevice& OpenedDevice(Adapter& adapter)
    {
        KarvexDevice& device = NewDevice();
        const TSTATUS st = OpenDevice(device, adapter);
        EXPECT_EQ(TSTATUS_SUCCESS, st) << TStatusStringA(st);
        return device;
    }

    std::unique_ptr<kemu::EmuTestbed> mTestbed;
    std::vector<std::unique_ptr<Adapter>> mAdapters;
    std::vector<std::unique_ptr<KarvexDevice>> mDevices;
    KarvexDeviceEnumerator mEnumerator;
    unsigned int mSavedMask = 0;
};

} // namespace device_test
