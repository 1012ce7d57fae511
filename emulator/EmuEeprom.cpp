#include "EmuEeprom.h"

namespace kemu {

EmuEeprom::EmuEeprom(std::size_t size) : mMemory(size, 0xFF) {}

std::uint8_t EmuEeprom::Transfer(const std::uint8_t* writeData, std::size_t bytesToWrite, std::uint8_t* readData,
                                 std::size_t bytesToRead)
{
    std::lock_guard<std::mutex> lock(mMutex);
    const std::size_t size = mMemory.size();
    if (size == 0) {
        for (std::size_t i = 0; i < bytesToRead; ++i)
            readData[i] = 0xFF;
        return 0;
    }
    if (bytesToWrite > 0) {
        mPointer = writeData[0] % size;
        for (std::size_t i = 1; i < bytesToWrite; ++i) {
            mMemory[mPointer] = writeData[i];
            mPointer = (mPointer + 1) % size;
        }
    }
    for (std::size_t i = 0; i < bytesToRead; ++i) {
        readData[i] = mMemory[mPointer];
        mPointer = (mPointer + 1) % size;
    }
    return 0;
}

std::vector<std::uint8_t>& EmuEeprom::Memory()
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mMemory;
}

std::size_t EmuEeprom::Pointer() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mPointer;
}

std::vector<std::uint8_t> EmuEeprom::Read(std::size_t offset, std::size_t length) const
{
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::uint8_t> out;
    if (mMemory.empty())
        return out;
    out.reserve(length);
    for (std::size_t i = 0; i < length; ++i)
        out.push_back(mMemory[(offset + i) % mMemory.size()]);
    return out;
}

void EmuEeprom::Write(std::size_t offset, const std::vector<std::uint8_t>& data)
{
    std::lock_guard<std::mutex> lock(mMutex);
    if (mMemory.empty())
        return;
    for (std::size_t i = 0; i < data.size(); ++i)
        mMemory[(offset + i) % mMemory.size()] = data[i];
}

} // namespace kemu
