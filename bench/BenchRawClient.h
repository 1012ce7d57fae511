// The exchange written by hand, as the floor under every client: write the
// command report, then poll and read on the calling thread until the answer
// with the same unique ID arrives. No threads, no queues, no copies beyond
// the kernel's.
#pragma once

#include <cstdint>
#include <string>

#include "BenchMessage.h"

namespace kbench {

class BenchRawClient {
public:
    BenchRawClient() = default;
    ~BenchRawClient();
    BenchRawClient(const BenchRawClient&) = delete;
    BenchRawClient& operator=(const BenchRawClient&) = delete;

    bool Open(const std::string& path);
    void Close();
    int Fd() const { return mFd; }

    bool SetPinState(unsigned pin, unsigned state);
    bool GetPinState(unsigned pin, unsigned& state);
    bool I2c(const std::uint8_t* writeData, unsigned toWrite, std::uint8_t* readBuffer, unsigned toRead);

private:
    std::uint8_t NextId();
    // Writes mCommand and reads until the answer to it is in mResponse.
    bool Exchange();

    int mFd = -1;
    std::uint8_t mUniqueId = 0;
    std::uint8_t mCommand[BenchMessage::cReportBytes];
    std::uint8_t mResponse[BenchMessage::cReportBytes];
};

} // namespace kbench
