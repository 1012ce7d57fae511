// A 24C02-like EEPROM on an emulated I2C bus.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "EmuI2cSlave.h"

namespace kemu {

// A one-byte write sets the address pointer, further written bytes are
// stored at the pointer, reads return from the pointer; the pointer advances
// and wraps at the memory size. A transfer without write bytes reads from
// the current pointer.
class EmuEeprom : public EmuI2cSlave {
public:
    explicit EmuEeprom(std::size_t size = 256);
    std::uint8_t Transfer(const std::uint8_t* writeData, std::size_t bytesToWrite, std::uint8_t* readData,
                          std::size_t bytesToRead) override;

    // The memory itself. Taking it synchronises with the transfers done so
    // far, so it may be read after a transaction has completed; it must not
    // be used while a transfer may be running (use Read/Write then).
    std::vector<std::uint8_t>& Memory();
    std::size_t Pointer() const;

    // Thread-safe copies in and out; offsets wrap like the pointer.
    std::vector<std::uint8_t> Read(std::size_t offset, std::size_t length) const;
    void Write(std::size_t offset, const std::vector<std::uint8_t>& data);

private:
    mutable std::mutex mMutex;
    std::vector<std::uint8_t> mMemory;
    std::size_t mPointer = 0;
};

} // namespace kemu
