// The adapter's firmware, emulated: speaks the message protocol behind an
// EmuHidDevice as a real adapter would. Deterministic: the same sequence of
// commands and test actions produces the same messages every run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "EmuHidDevice.h"

namespace kemu {

class EmuI2cSlave {
public:
    virtual ~EmuI2cSlave() = default;
    // Returns the adapter status byte for the transfer (0 = success); fills
    // readData with bytesToRead bytes on success.
    virtual std::uint8_t Transfer(const std::uint8_t* writeData, std::size_t bytesToWrite, std::uint8_t* readData,
                                  std::size_t bytesToRead) = 0;
};

// A 24C02-like EEPROM: a one-byte write sets the address pointer, further
// written bytes are stored at the pointer, reads return from the pointer;
// the pointer advances and wraps at the memory size.
class EmuEeprom : public EmuI2cSlave {
public:
    explicit EmuEeprom(std::size_t size = 256);
    std::uint8_t Transfer(const std::uint8_t* writeData, std::size_t bytesToWrite, std::uint8_t* readData,
                          std::size_t bytesToRead) override;
    std::vector<std::uint8_t>& Memory();
    std::size_t Pointer() const;

private:
    std::vector<std::uint8_t> mMemory;
    std::size_t mPointer = 0;
};

class EmuAdapterFirmware {
public:
    static constexpr unsigned cPinCount = 16;
    static constexpr unsigned cI2cBusCount = 2;
    static constexpr std::uint8_t cStatusI2cNoAck = 0x20;    // status for an address nobody answers
    static constexpr std::uint8_t cStatusInvalidPin = 0x10;  // pin id >= cPinCount
    static constexpr std::uint8_t cStatusInvalidBus = 0x21;  // bus >= cI2cBusCount

    // Installs itself as the device's write hook.
    explicit EmuAdapterFirmware(EmuHidDevice& device);
    ~EmuAdapterFirmware();

    // Pins: mode and level per pin (0..15). Output modes drive the level.
    // Changing the input level of a pin in GPIOMode_InputEvent (1) sends a
    // THID_EVT_PIN_STATE_CHANGED event.
    void SetInputLevel(unsigned pin, bool high);
    std::uint8_t PinMode(unsigned pin) const;
    bool PinLevel(unsigned pin) const;
    // Sends one event as the firmware would (any pin id, any state byte).
    void SendPinEvent(std::uint32_t pinId, std::uint8_t stateByte);
    // Sends count events for pin as fast as possible, alternating the level.
    void SendPinEventBurst(unsigned pin, unsigned count);

    // I2C: slaves per bus and 8-bit address as the host sends it.
    void AttachI2cSlave(unsigned bus, std::uint8_t address, std::shared_ptr<EmuI2cSlave> slave);

    void SetProtocolVersion(std::uint8_t major, std::uint8_t minor);

    // Faults, applied to responses (never to events).
    struct Faults {
        bool noAnswer = false;          // swallow commands
        unsigned delayMs = 0;           // answer after this delay (from a timer thread, in order)
        bool staleIdFirst = false;      // send a copy with uniqueId - 1 before the real answer
        int wrongCode = -1;             // >= 0: response code replaced
        int lengthOverride = -1;        // >= 0: messageLength replaced
        std::uint8_t status = 0;        // non-zero: messageStatus
        bool wrongPinIdEcho = false;    // pin id echo + 1
        int modeByteOverride = -1;      // >= 0: pinMode byte of get-mode answers
        int stateByteOverride = -1;     // >= 0: pinState byte of get-state answers
        int shortReport = -1;           // >= 0: the report is cut to this many bytes
    };
    void SetFaults(const Faults& faults);
    Faults GetFaults() const;
    // Faults for the next matching command code only (then cleared); code 0 matches any command.
    void SetOneShotFaults(std::uint8_t commandCode, const Faults& faults);

    // Every command message received (without the report ID byte), in order.
    std::vector<std::vector<std::uint8_t>> ReceivedCommands() const;
    void ClearReceivedCommands();
    std::size_t CommandCount() const;

    struct Impl;

private:
    std::unique_ptr<Impl> mImpl;
};

} // namespace kemu
