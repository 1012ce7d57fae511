// The adapter's firmware, emulated: speaks the message protocol behind an
// EmuHidDevice as a real adapter would. Deterministic: the same sequence of
// commands and test actions produces the same messages every run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "EmuEeprom.h"
#include "EmuHidDevice.h"
#include "EmuI2cSlave.h"

namespace kemu {

class EmuAdapterFirmware {
public:
    static constexpr unsigned cPinCount = 16;
    static constexpr unsigned cI2cBusCount = 2;
    static constexpr std::uint8_t cStatusI2cNoAck = 0x20;    // status for an address nobody answers
    static constexpr std::uint8_t cStatusInvalidPin = 0x10;  // pin id >= cPinCount
    static constexpr std::uint8_t cStatusInvalidBus = 0x21;  // bus >= cI2cBusCount
    static constexpr std::uint8_t cStatusUnknownCommand = 0x01; // answered with the command code | 0x80
    static constexpr std::uint8_t cStatusBadLength = 0x02;      // messageLength wrong for the command
    static constexpr std::uint8_t cStatusInvalidValue = 0x11;   // mode > 3, state > 1, I2C count > 256

    // Installs itself as the device's write hook. The firmware must be
    // destroyed before its device (i.e. before the testbed); the destructor
    // removes the hook, waits for a command in progress and drops answers
    // that are still waiting for their delay.
    explicit EmuAdapterFirmware(EmuHidDevice& device);
    ~EmuAdapterFirmware();
    EmuAdapterFirmware(const EmuAdapterFirmware&) = delete;
    EmuAdapterFirmware& operator=(const EmuAdapterFirmware&) = delete;

    // Every answer and event is one input report of the device's input
    // report length (for numbered reports the ID byte first, then the
    // message), unused bytes zero. Commands are read from offset 1 of the
    // written report whatever its report ID byte. A report whose message is
    // shorter than a header, or not a command, is ignored.
    //
    // All methods are thread-safe.

    // Pins: mode and level per pin (0..15). Output modes drive the level.
    // Changing the input level of a pin in GPIOMode_InputEvent (1) sends a
    // THID_EVT_PIN_STATE_CHANGED event.
    void SetInputLevel(unsigned pin, bool high);
    std::uint8_t PinMode(unsigned pin) const;
    bool PinLevel(unsigned pin) const;
    // Sends one event as the firmware would (any pin id, any state byte).
    void SendPinEvent(std::uint32_t pinId, std::uint8_t stateByte);
    // Sends count events for pin as fast as possible, alternating the level
    // (starting with the opposite of the present input level, which ends at
    // the level of the last event). The device queue holds 63 unread reports
    // per open descriptor; what the host does not read in time is dropped.
    void SendPinEventBurst(unsigned pin, unsigned count);

    // I2C: slaves per bus and 8-bit address as the host sends it.
    void AttachI2cSlave(unsigned bus, std::uint8_t address, std::shared_ptr<EmuI2cSlave> slave);

    void SetProtocolVersion(std::uint8_t major, std::uint8_t minor);
    // Answers sent so far (not counting those still held back by a delay).
    std::size_t ResponseCount() const;

    // Faults, applied to responses (never to events). With noAnswer the
    // command is neither carried out nor answered; otherwise it is carried
    // out and its answer is altered.
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
        int shortReport = -1;           // >= 0: the report is cut to this many bytes (as read() returns it)
    };
    void SetFaults(const Faults& faults);
    Faults GetFaults() const;
    // Faults for the next matching command code only (then cleared); code 0 matches any command.
    void SetOneShotFaults(std::uint8_t commandCode, const Faults& faults);

    // Every command message received, in order: each written report
    // without its report ID byte (padding included), also those ignored.
    std::vector<std::vector<std::uint8_t>> ReceivedCommands() const;
    void ClearReceivedCommands();
    std::size_t CommandCount() const;

    struct Impl;

private:
    std::unique_ptr<Impl> mImpl;
};

} // namespace kemu
