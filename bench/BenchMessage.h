// Builds commands and checks answers of the adapter protocol the way an
// application that speaks it directly would (the hand-written client and
// the hidapi client share it). Header only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "karvex_api_linux/thid_prot_karvex.h"

namespace kbench {

struct BenchMessage {
    // An output report: report ID byte 0, then the 320-byte message area.
    static constexpr std::size_t cReportBytes = 1 + THID_MAX_MESSAGE_SIZE;

    static THID_MsgHeader* Header(std::uint8_t* report) { return reinterpret_cast<THID_MsgHeader*>(report + 1); }
    template <typename T>
    static T* Payload(std::uint8_t* report)
    {
        return reinterpret_cast<T*>(report + 1 + sizeof(THID_MsgHeader));
    }

    static void Begin(std::uint8_t* report, std::uint8_t code, std::uint16_t length, std::uint8_t uniqueId)
    {
        std::memset(report, 0, cReportBytes);
        THID_MsgHeader* h = Header(report);
        h->messageLength.Set(length);
        h->messageCode = code;
        h->uniqueId = uniqueId;
    }

    static void SetPinState(std::uint8_t* report, std::uint8_t uniqueId, std::uint32_t pin, std::uint8_t state)
    {
        Begin(report, THID_CMD_SET_PIN_STATE, THID_MSG_LEN_PIN, uniqueId);
        Payload<THID_PinState>(report)->pinId.Set(pin);
        Payload<THID_PinState>(report)->pinState = state;
    }

    static void GetPinState(std::uint8_t* report, std::uint8_t uniqueId, std::uint32_t pin)
    {
        Begin(report, THID_CMD_GET_PIN_STATE, THID_MSG_LEN_PIN, uniqueId);
        Payload<THID_PinState>(report)->pinId.Set(pin);
    }

    static void I2c(std::uint8_t* report, std::uint8_t uniqueId, const std::uint8_t* writeData, unsigned toWrite,
                    unsigned toRead)
    {
        Begin(report, THID_CMD_I2C_TRANSACTION, THID_MSG_LEN_I2C, uniqueId);
        THID_I2cTransaction* t = Payload<THID_I2cTransaction>(report);
        t->i2cBus = 0;
        t->i2cSlaveAddress = 0x50;
        t->i2cSpeed.Set(400000);
        t->timeoutInterval.Set(100);
        t->bytesToWrite.Set(static_cast<std::uint16_t>(toWrite));
        t->bytesToRead.Set(static_cast<std::uint16_t>(toRead));
        std::memcpy(t->data, writeData, toWrite);
    }

    // The answer (report as read into report + 1) matches and succeeded.
    static bool Ok(std::uint8_t* report, std::uint8_t code, std::uint16_t length)
    {
        const THID_MsgHeader* h = Header(report);
        return h->messageStatus == 0 && h->messageCode == code && h->messageLength.Get() == length;
    }
};

} // namespace kbench
