// Fixture for tests that use libkarvex the way an application does: only the
// public header and the shared library, against emulated adapters.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "EmuAdapterFirmware.h"
#include "EmuHidDevice.h"
#include "EmuTestbed.h"
#include "karvex/karvex_api.h"
#include "support/test_support.h"

namespace karvex_test {

using ktest::CaptureTrace;
using ktest::CountOf;
using ktest::EventLog;
using ktest::Gate;
using ktest::StatusName;
using ktest::WaitUntil;

struct EmulatedAdapter {
    kemu::EmuHidDevice* device = nullptr;
    std::unique_ptr<kemu::EmuAdapterFirmware> firmware;
    std::shared_ptr<kemu::EmuEeprom> eeprom;
};

class ApiTest : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kemu::EmuTestbed::InMockEnvironment()) << "run under umockdev-wrapper";
        mTestbed = std::make_unique<kemu::EmuTestbed>();
        TPosixSetTraceMask(0);
    }

    void TearDown() override
    {
        for (KARVEXDeviceHandle h : mOpened)
            KARVEX_CloseDevice(h);
        KARVEX_RegisterDeviceChangeCallback(nullptr, nullptr);
        TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING);
        mAdapters.clear();
        mTestbed.reset();
    }

    EmulatedAdapter& AddAdapter(std::uint16_t pid = KARVEX_USB_PRODUCT_ID_1, const std::string& serial = "KVX000001")
    {
        auto adapter = std::make_unique<EmulatedAdapter>();
        adapter->device = &mTestbed->AddDevice(kemu::AdapterConfig(pid, serial));
        adapter->firmware = std::make_unique<kemu::EmuAdapterFirmware>(*adapter->device);
        adapter->eeprom = std::make_shared<kemu::EmuEeprom>(256);
        adapter->firmware->AttachI2cSlave(0, 0x50, adapter->eeprom);
        mAdapters.push_back(std::move(adapter));
        return *mAdapters.back();
    }

    // Opens and closes at tear-down (unless Closed says the test did).
    KARVEXDeviceHandle Open(const EmulatedAdapter& adapter)
    {
        KARVEXDeviceHandle h = 0;
        EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(adapter.device->DevNode().c_str(), &h));
        if (h != 0)
            mOpened.push_back(h);
        return h;
    }

    void Closed(KARVEXDeviceHandle h) { mOpened.erase(std::remove(mOpened.begin(), mOpened.end(), h), mOpened.end()); }

    std::unique_ptr<kemu::EmuTestbed> mTestbed;
    std::vector<std::unique_ptr<EmulatedAdapter>> mAdapters;
    std::vector<KARVEXDeviceHandle> mOpened;
};

} // namespace karvex_test
