#include "BenchFirmware.h"

#include <cstring>

#include "karvex_api_linux/thid_prot_karvex.h"

namespace kbench {

namespace {

constexpr std::uint8_t cStatusUnknownCommand = 0x01;
constexpr std::uint8_t cStatusInvalidPin = 0x10;
constexpr std::uint8_t cStatusInvalidValue = 0x11;

THID_MsgHeader* Header(std::uint8_t* reply)
{
    return reinterpret_cast<THID_MsgHeader*>(reply);
}

template <typename T>
T* Payload(std::uint8_t* reply)
{
    return reinterpret_cast<T*>(reply + sizeof(THID_MsgHeader));
}

} // namespace

BenchFirmware::BenchFirmware()
{
    std::memset(mMode, 0, sizeof mMode);
    std::memset(mLevel, 0, sizeof mLevel);
    for (unsigned i = 0; i < sizeof mMemory; ++i)
        mMemory[i] = static_cast<std::uint8_t>(i);
}

std::uint64_t BenchFirmware::CommandCount() const
{
    std::lock_guard<std::mutex> lock(mMutex);
    return mCommandCount;
}

std::size_t BenchFirmware::BuildPinEvent(std::uint32_t pinId, std::uint8_t stateByte, std::uint8_t* reply)
{
    std::memset(reply, 0, cInputReportBytes);
    THID_MsgHeader* header = Header(reply);
    header->messageLength.Set(THID_MSG_LEN_PIN);
    header->messageCode = THID_EVT_PIN_STATE_CHANGED;
    THID_PinState* event = Payload<THID_PinState>(reply);
    event->pinId.Set(pinId);
    event->pinState = stateByte;
    return cInputReportBytes;
}

std::size_t BenchFirmware::Process(const std::uint8_t* report, std::size_t length, std::uint8_t* reply)
{
    // Byte 0 is the report ID; the message follows.
    if (length < 1 + sizeof(THID_MsgHeader))
        return 0;
    const std::uint8_t* message = report + 1;
    const std::size_t messageBytes = length - 1;
    THID_MsgHeader command;
    std::memcpy(&command, message, sizeof command);
    if (command.messageCode & 0x80)
        return 0;

    std::memset(reply, 0, cInputReportBytes);
    THID_MsgHeader* header = Header(reply);
    header->uniqueId = command.uniqueId;
    header->messageCode = static_cast<std::uint8_t>(command.messageCode | 0x80);
    header->messageLength.Set(THID_MSG_LEN_HEADER_ONLY);

    std::lock_guard<std::mutex> lock(mMutex);
    ++mCommandCount;
    switch (command.messageCode) {
    case THID_CMD_GET_PROTOCOL_VERSION: {
        header->messageLength.Set(THID_MSG_LEN_PROTOCOL_VERSION);
        THID_ProtocolVersion* version = Payload<THID_ProtocolVersion>(reply);
        version->protocolVersionMj = THID_PROTOCOL_VERSION_MAJOR;
        version->protocolVersionMn = THID_PROTOCOL_VERSION_MINOR;
        break;
    }
    case THID_CMD_SET_PIN_MODE:
    case THID_CMD_SET_PIN_STATE:
    case THID_CMD_GET_PIN_MODE:
    case THID_CMD_GET_PIN_STATE: {
        if (messageBytes < THID_MSG_LEN_PIN)
            return 0;
        // THID_PinMode and THID_PinState share their layout.
        THID_PinState pin;
        std::memcpy(&pin, message + sizeof(THID_MsgHeader), sizeof pin);
        const std::uint32_t pinId = pin.pinId.Get();
        if (pinId >= cPinCount) {
            header->messageStatus = cStatusInvalidPin;
            break;
        }
        if (command.messageCode == THID_CMD_SET_PIN_MODE || command.messageCode == THID_CMD_SET_PIN_STATE) {
            header->messageCode = THID_RSP_ACK;
            if (command.messageCode == THID_CMD_SET_PIN_MODE) {
                if (pin.pinState > 3)
                    header->messageStatus = cStatusInvalidValue;
                else
                    mMode[pinId] = pin.pinState;
            } else if (pin.pinState > 1) {
                header->messageStatus = cStatusInvalidValue;
            } else {
                mLevel[pinId] = pin.pinState;
            }
            break;
        }
        header->messageLength.Set(THID_MSG_LEN_PIN);
        THID_PinState* answer = Payload<THID_PinState>(reply);
        answer->pinId.Set(pinId);
        answer->pinState = command.messageCode == THID_CMD_GET_PIN_MODE ? mMode[pinId] : mLevel[pinId];
        break;
    }
    case THID_CMD_I2C_TRANSACTION: {
        if (messageBytes < THID_MSG_LEN_I2C)
            return 0;
        const THID_I2cTransaction* request =
            reinterpret_cast<const THID_I2cTransaction*>(message + sizeof(THID_MsgHeader));
        const unsigned toWrite = request->bytesToWrite.Get();
        const unsigned toRead = request->bytesToRead.Get();
        header->messageLength.Set(THID_MSG_LEN_I2C);
        THID_I2cTransaction* answer = Payload<THID_I2cTransaction>(reply);
        std::memcpy(answer, request, sizeof(THID_I2cTransaction) - THID_I2C_MAX_DATA);
        if (toWrite > THID_I2C_MAX_DATA || toRead > THID_I2C_MAX_DATA) {
            header->messageStatus = cStatusInvalidValue;
            break;
        }
        // A plain memory: written bytes land from address 0, reads return
        // from address 0.
        std::memcpy(mMemory, request->data, toWrite);
        std::memcpy(answer->data, mMemory, toRead);
        break;
    }
    default:
        header->messageStatus = cStatusUnknownCommand;
        break;
    }
    return cInputReportBytes;
}

} // namespace kbench
