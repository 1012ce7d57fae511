// A device on one of the emulated adapter's I2C buses.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kemu {

class EmuI2cSlave {
public:
    virtual ~EmuI2cSlave() = default;
    // Returns the adapter status byte for the transfer (0 = success); fills
    // readData with bytesToRead bytes on success. Called on the emulator's
    // handler thread, one transfer at a time per adapter.
    virtual std::uint8_t Transfer(const std::uint8_t* writeData, std::size_t bytesToWrite, std::uint8_t* readData,
                                  std::size_t bytesToRead) = 0;
};

} // namespace kemu
