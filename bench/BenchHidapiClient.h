// The same exchange written on hidapi (hidraw backend) the way an
// application would: hid_write the command report, then hid_read_timeout
// until the answer with the same unique ID arrives.
#pragma once

#include <cstdint>
#include <string>

#include "BenchMessage.h"

typedef struct hid_device_ hid_device;

namespace kbench {

class BenchHidapiClient {
public:
    BenchHidapiClient() = default;
    ~BenchHidapiClient();
    BenchHidapiClient(const BenchHidapiClient&) = delete;
    BenchHidapiClient& operator=(const BenchHidapiClient&) = delete;

    bool Open(const std::string& path);
    void Close();

    bool SetPinState(unsigned pin, unsigned state);
    bool GetPinState(unsigned pin, unsigned& state);
    bool I2c(const std::uint8_t* writeData, unsigned toWrite, std::uint8_t* readBuffer, unsigned toRead);

private:
    std::uint8_t NextId();
    bool Exchange();

    hid_device* mDevice = nullptr;
    std::uint8_t mUniqueId = 0;
    std::uint8_t mCommand[BenchMessage::cReportBytes];
    std::uint8_t mResponse[BenchMessage::cReportBytes];
};

} // namespace kbench
