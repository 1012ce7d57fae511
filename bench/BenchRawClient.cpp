#include "BenchRawClient.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>

namespace kbench {

BenchRawClient::~BenchRawClient()
{
    Close();
}

bool BenchRawClient::Open(const std::string& path)
{
    Close();
    mFd = open(path.c_str(), O_RDWR | O_NONBLOCK);
    return mFd >= 0;
}

void BenchRawClient::Close()
{
    if (mFd >= 0)
        close(mFd);
    mFd = -1;
}

std::uint8_t BenchRawClient::NextId()
{
    if (++mUniqueId == 0)
        mUniqueId = 1;
    return mUniqueId;
}

bool BenchRawClient::Exchange()
{
    if (write(mFd, mCommand, sizeof mCommand) != static_cast<ssize_t>(sizeof mCommand))
        return false;
    const std::uint8_t id = BenchMessage::Header(mCommand)->uniqueId;
    for (;;) {
        struct pollfd p = {mFd, POLLIN, 0};
        const int rc = poll(&p, 1, 5000);
        if (rc < 0 && errno == EINTR)
            continue;
        if (rc <= 0 || (p.revents & (POLLERR | POLLHUP | POLLNVAL)))
            return false;
        // Unnumbered reports: the message lands after the report ID byte.
        const ssize_t n = read(mFd, mResponse + 1, sizeof mResponse - 1);
        if (n < 0 && errno == EAGAIN)
            continue;
        if (n < static_cast<ssize_t>(sizeof(THID_MsgHeader)))
            return false;
        if (BenchMessage::Header(mResponse)->uniqueId == id &&
            BenchMessage::Header(mResponse)->messageCode != THID_EVT_PIN_STATE_CHANGED)
            return true;
    }
}

bool BenchRawClient::SetPinState(unsigned pin, unsigned state)
{
    BenchMessage::SetPinState(mCommand, NextId(), pin, static_cast<std::uint8_t>(state));
    return Exchange() && BenchMessage::Ok(mResponse, THID_RSP_ACK, THID_MSG_LEN_HEADER_ONLY);
}

bool BenchRawClient::GetPinState(unsigned pin, unsigned& state)
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

bool BenchRawClient::I2c(const std::uint8_t* writeData, unsigned toWrite, std::uint8_t* readBuffer, unsigned toRead)
{
    BenchMessage::I2c(mCommand, NextId(), writeData, toWrite, toRead);
    if (!Exchange() || !BenchMessage::Ok(mResponse, THID_RSP_I2C_TRANSACTION, THID_MSG_LEN_I2C))
        return false;
    std::memcpy(readBuffer, BenchMessage::Payload<THID_I2cTransaction>(mResponse)->data, toRead);
    return true;
}

} // namespace kbench
