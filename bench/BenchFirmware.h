// The adapter's firmware reduced to what the benchmarks exercise, answering
// on the spot: protocol version, pin mode and state, I2C transactions against
// a 256-byte memory, and pin events on demand. Nothing is allocated per
// message, so the emulated side adds as little as possible to a round trip.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>

namespace kbench {

class BenchFirmware {
public:
    // Bytes of every input report as read() returns it from an unnumbered
    // 320-byte report: the message from offset 0, unused bytes zero.
    static constexpr std::size_t cInputReportBytes = 320;
    static constexpr unsigned cPinCount = 16;

    BenchFirmware();
    BenchFirmware(const BenchFirmware&) = delete;
    BenchFirmware& operator=(const BenchFirmware&) = delete;

    // Handles one output report (report ID byte first, as written to the
    // node). Writes the answer into reply (cInputReportBytes) and returns its
    // length, or 0 when the report gets no answer (too short, not a command).
    // Thread-safe.
    std::size_t Process(const std::uint8_t* report, std::size_t length, std::uint8_t* reply);

    // A THID_EVT_PIN_STATE_CHANGED input report (cInputReportBytes).
    static std::size_t BuildPinEvent(std::uint32_t pinId, std::uint8_t stateByte, std::uint8_t* reply);

    std::uint64_t CommandCount() const;

private:
    mutable std::mutex mMutex;
    std::uint8_t mMode[cPinCount];
    std::uint8_t mLevel[cPinCount];
    std::uint8_t mMemory[256];
    std::uint64_t mCommandCount = 0;
};

} // namespace kbench
