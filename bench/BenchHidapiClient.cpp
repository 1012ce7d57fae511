#include "BenchHidapiClient.h"

#include <hidapi.h>

namespace kbench {

BenchHidapiClient::~BenchHidapiClient()
{
    Close();
}

bool BenchHidapiClient::Open(const std::string& path)
{
    Close();
    mDevice = hid_open_path(path.c_str());
    return mDevice != nullptr;
}

void BenchHidapiClient::Close()
{
    if (mDevice != nullptr)
        hid_close(mDevice);
    mDevice = nullptr;
}

std::uint8_t BenchHidapiClient::NextId()
{
    if (++mUniqueId == 0)
        mUniqueId = 1;
    return mUniqueId;
}

bool BenchHidapiClient::Exchange()
{
    if (hid_write(mDevice, mCommand, sizeof mCommand) != static_cast<int>(sizeof mCommand))
        return false;
    const std::uint8_t id = BenchMessage::Header(mCommand)->uniqueId;
    for (;;) {
        const int n = hid_read_timeout(mDevice, mResponse + 1, sizeof mResponse - 1, 5000);
        if (n < static_cast<int>(sizeof(THID_MsgHeader)))
            return false;
        if (BenchMessage::Header(mResponse)->uniqueId == id &&
            BenchMessage::Header(mResponse)->messageCode != THID_EVT_PIN_STATE_CHANGED)
            return true;
    }
}

bool BenchHidapiClient::SetPinState(unsigned pin, unsigned state)
{
    BenchMessage::SetPinState(mCommand, NextId(), pin, static_cast<std::uint8_t>(state));
    return Exchange() && BenchMessage::Ok(mResponse, THID_RSP_ACK, THID_MSG_LEN_HEADER_ONLY);
}

bool BenchHidapiClient::GetPinState(unsigned pin, unsigned& state)
{
    BenchMessage::GetPinState(mCommand, NextId(), pin);
    if (!Exchange() || !BenchMessage::Ok(mResponse, THID_RSP_GET_PIN_STATE, THID_MSG_LEN_PIN))
        return false;
    const THID_PinState* answer = BenchMessage::Payload<THID_PinState>(mResponse);
    if (answer->pinId.Get() != pin || answer->pinState > 1)
        return false;
    state = answer->pinState;
    return true;
}

bool BenchHidapiClient::I2c(const std::uint8_t* writeData, unsigned toWrite, std::uint8_t* readBuffer,
                            unsigned toRead)
{
    BenchMessage::I2c(mCommand, NextId(), writeData, toWrite, toRead);
    if (!Exchange() || !BenchMessage::Ok(mResponse, THID_RSP_I2C_TRANSACTION, THID_MSG_LEN_I2C))
        return false;
    std::memcpy(readBuffer, BenchMessage::Payload<THID_I2cTransaction>(mResponse)->data, toRead);
    return true;
}

} // namespace kbench
