// Fixture for the device object tests: a KarvexDevice (library internals)
// driven against emulated adapters under umockdev, with helpers to decode the
// commands the firmware received and to build raw input reports.
#pragma once

#include <gtest/gtest.h>

#include <time.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "EmuAdapterFirmware.h"
#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"
#include "karvex_api_linux/KarvexDeviceEnumeratorLx.h"
#include "karvex_api_linux/KarvexDeviceLx.h"
#include "karvex_api_linux/thid_prot_karvex.h"
#include "support/test_support.h"

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

using ktest::CaptureTrace;
using ktest::CountOf;
using ktest::ElapsedMs;
using ktest::Gate;
using ktest::TraceMaskGuard;
using ktest::WaitUntil;
template <typename T>
using Recorder = ktest::EventLog<T>;
using Faults = kemu::EmuAdapterFirmware::Faults;

// An adapter that swallows commands, or answers them after a delay.
inline Faults Silent()
{
    Faults f;
    f.noAnswer = true;
    return f;
}
inline Faults Delayed(unsigned ms)
{
    Faults f;
    f.delayMs = ms;
    return f;
}

// Faults in an answer's header (-1: that field is left alone).
inline Faults HeaderFaults(std::uint8_t status, int wrongCode = -1, int lengthOverride = -1)
{
    Faults f;
    f.status = status;
    f.wrongCode = wrongCode;
    f.lengthOverride = lengthOverride;
    return f;
}

// CPU time the whole process has used, in milliseconds: a thread that spins
// shows up here even when it writes nothing.
inline double ProcessCpuMs()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec * 1000.0 + ts.tv_nsec / 1e6;
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
