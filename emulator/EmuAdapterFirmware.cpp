#include "EmuAdapterFirmware.h"

#include "karvex_api_linux/thid_prot_karvex.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace kemu {

namespace {

using Clock = std::chrono::steady_clock;
using Message = std::array<std::uint8_t, THID_MAX_MESSAGE_SIZE>;

constexpr std::uint8_t cModeInputEvent = 1;
constexpr std::uint8_t cModeOutputLow = 2;
constexpr std::uint8_t cModeOutputHigh = 3;

THID_MsgHeader& Header(Message& m)
{
    return *reinterpret_cast<THID_MsgHeader*>(m.data());
}

std::uint8_t* Payload(Message& m)
{
    return m.data() + sizeof(THID_MsgHeader);
}

bool IsOutput(std::uint8_t mode)
{
    return mode == cModeOutputLow || mode == cModeOutputHigh;
}

} // namespace

struct EmuAdapterFirmware::Impl {
    explicit Impl(EmuHidDevice& dev) : device(dev) {}

    void OnReport(const std::uint8_t* report, std::size_t length);
    // With mutex held:
    void Execute(std::uint8_t code, Message& command, Message& response);
    std::vector<std::uint8_t> MakeReport(const Message& message) const;
    void Send(std::vector<std::uint8_t> report, unsigned delayMs);
    void SendEvent(std::uint32_t pinId, std::uint8_t state);
    bool Level(unsigned pin) const;
    void TimerLoop();

    EmuHidDevice& device;
    mutable std::mutex mutex;
    std::array<std::uint8_t, cPinCount> modes{};
    std::array<bool, cPinCount> inputLevels{};
    std::array<bool, cPinCount> outputLevels{};
    std::uint8_t versionMajor = THID_PROTOCOL_VERSION_MAJOR;
    std::uint8_t versionMinor = THID_PROTOCOL_VERSION_MINOR;
    std::map<std::pair<unsigned, std::uint8_t>, std::shared_ptr<EmuI2cSlave>> slaves;
    Faults faults;
    bool oneShotArmed = false;
    std::uint8_t oneShotCode = 0;
    Faults oneShotFaults;
    std::vector<std::vector<std::uint8_t>> received;
    std::size_t responses = 0;

    // Answers held back by a delay, sent in order by the timer thread.
    struct Delayed {
        Clock::time_point due;
        std::vector<std::uint8_t> report;
    };
    std::deque<Delayed> delayed;
    std::condition_variable delayedChanged;
    std::thread timer;
    bool stopping = false;
};

bool EmuAdapterFirmware::Impl::Level(unsigned pin) const
{
    return IsOutput(modes[pin]) ? outputLevels[pin] : inputLevels[pin];
}

namespace {
constexpr std::size_t cMaxReportBytes = 16384;
} // namespace

std::vector<std::uint8_t> EmuAdapterFirmware::Impl::MakeReport(const Message& message) const
{
    const EmuReportLayout layout = device.ReportLayout();
    if (layout.inputBytes == 0)
        return {}; // a device without input reports cannot answer
    // hidraw never moves a report longer than its buffer (16 KiB); a broken
    // descriptor claiming more must not make the firmware allocate it either.
    if (layout.inputBytes > cMaxReportBytes)
        return {};
    const std::size_t offset = layout.numbered ? 1 : 0;
    std::vector<std::uint8_t> report(offset + layout.inputBytes, 0);
    if (layout.numbered)
        report[0] = layout.inputReportId;
    std::memcpy(report.data() + offset, message.data(), std::min(layout.inputBytes, message.size()));
    return report;
}

void EmuAdapterFirmware::Impl::Send(std::vector<std::uint8_t> report, unsigned delayMs)
{
    if (delayMs == 0 && delayed.empty()) {
        device.InjectInputReport(report);
        ++responses;
        return;
    }
    // Once one answer waits, later ones queue behind it, whatever their delay.
    delayed.push_back({Clock::now() + std::chrono::milliseconds(delayMs), std::move(report)});
    if (!timer.joinable())
        timer = std::thread([this] { TimerLoop(); });
    delayedChanged.notify_all();
}

void EmuAdapterFirmware::Impl::TimerLoop()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        if (delayed.empty()) {
            delayedChanged.wait(lock);
            continue;
        }
        const Clock::time_point due = delayed.front().due;
        if (Clock::now() < due) {
            delayedChanged.wait_until(lock, due);
            continue;
        }
        // Sent with the mutex held, so that an answer without delay cannot
        // overtake this one.
        device.InjectInputReport(delayed.front().report);
        delayed.pop_front();
        ++responses;
    }
}

void EmuAdapterFirmware::Impl::SendEvent(std::uint32_t pinId, std::uint8_t state)
{
    Message m{};
    Header(m).messageLength.Set(THID_MSG_LEN_PIN);
    Header(m).messageCode = THID_EVT_PIN_STATE_CHANGED;
    auto& payload = *reinterpret_cast<THID_PinState*>(Payload(m));
    payload.pinId.Set(pinId);
    payload.pinState = state;
    const std::vector<std::uint8_t> report = MakeReport(m);
    if (!report.empty())
        device.InjectInputReport(report);
}

void EmuAdapterFirmware::Impl::Execute(std::uint8_t code, Message& command, Message& response)
{
    THID_MsgHeader& rsp = Header(response);
    const std::uint16_t length = Header(command).messageLength.Get();
    auto checkLength = [&](std::uint16_t expected) {
        if (length == expected)
            return true;
        rsp.messageStatus = cStatusBadLength;
        return false;
    };

    switch (code) {
    case THID_CMD_GET_PROTOCOL_VERSION: {
        rsp.messageCode = THID_RSP_GET_PROTOCOL_VERSION;
        rsp.messageLength.Set(THID_MSG_LEN_PROTOCOL_VERSION);
        if (!checkLength(THID_MSG_LEN_HEADER_ONLY))
            break;
        auto& out = *reinterpret_cast<THID_ProtocolVersion*>(Payload(response));
        out.protocolVersionMj = versionMajor;
        out.protocolVersionMn = versionMinor;
        break;
    }
    case THID_CMD_SET_PIN_MODE:
    case THID_CMD_SET_PIN_STATE: {
        rsp.messageCode = THID_RSP_ACK;
        rsp.messageLength.Set(THID_MSG_LEN_HEADER_ONLY);
        if (!checkLength(THID_MSG_LEN_PIN))
            break;
        // THID_PinMode and THID_PinState share their layout.
        const auto& in = *reinterpret_cast<const THID_PinState*>(Payload(command));
        const std::uint32_t pin = in.pinId.Get();
        const std::uint8_t value = in.pinState;
        if (pin >= cPinCount) {
            rsp.messageStatus = cStatusInvalidPin;
        } else if (code == THID_CMD_SET_PIN_MODE) {
            if (value > cModeOutputHigh) {
                rsp.messageStatus = cStatusInvalidValue;
            } else {
                modes[pin] = value;
                if (IsOutput(value))
                    outputLevels[pin] = value == cModeOutputHigh;
            }
        } else if (value > 1) {
            rsp.messageStatus = cStatusInvalidValue;
        } else if (IsOutput(modes[pin])) {
            outputLevels[pin] = value != 0; // the mode stays as configured
        }
        break;
    }
    case THID_CMD_GET_PIN_MODE:
    case THID_CMD_GET_PIN_STATE: {
        rsp.messageCode = code == THID_CMD_GET_PIN_MODE ? THID_RSP_GET_PIN_MODE : THID_RSP_GET_PIN_STATE;
        rsp.messageLength.Set(THID_MSG_LEN_PIN);
        if (!checkLength(THID_MSG_LEN_PIN))
            break;
        const auto& in = *reinterpret_cast<const THID_PinState*>(Payload(command));
        auto& out = *reinterpret_cast<THID_PinState*>(Payload(response));
        const std::uint32_t pin = in.pinId.Get();
        out.pinId.Set(pin);
        if (pin >= cPinCount)
            rsp.messageStatus = cStatusInvalidPin;
        else
            out.pinState = code == THID_CMD_GET_PIN_MODE ? modes[pin] : static_cast<std::uint8_t>(Level(pin));
        break;
    }
    case THID_CMD_I2C_TRANSACTION: {
        rsp.messageCode = THID_RSP_I2C_TRANSACTION;
        rsp.messageLength.Set(THID_MSG_LEN_I2C);
        if (!checkLength(THID_MSG_LEN_I2C))
            break;
        const auto& in = *reinterpret_cast<const THID_I2cTransaction*>(Payload(command));
        auto& out = *reinterpret_cast<THID_I2cTransaction*>(Payload(response));
        std::memcpy(&out, &in, offsetof(THID_I2cTransaction, data)); // echo everything but the data
        const std::size_t toWrite = in.bytesToWrite.Get();
        const std::size_t toRead = in.bytesToRead.Get();
        if (in.i2cBus >= cI2cBusCount) {
            rsp.messageStatus = cStatusInvalidBus;
        } else if (toWrite > THID_I2C_MAX_DATA || toRead > THID_I2C_MAX_DATA) {
            rsp.messageStatus = cStatusInvalidValue;
        } else {
            const auto it = slaves.find({in.i2cBus, in.i2cSlaveAddress});
            if (it == slaves.end() || !it->second) {
                rsp.messageStatus = cStatusI2cNoAck;
            } else {
                rsp.messageStatus = it->second->Transfer(in.data, toWrite, out.data, toRead);
                if (rsp.messageStatus != 0)
                    std::memset(out.data, 0, sizeof out.data);
            }
        }
        break;
    }
    default:
        rsp.messageCode = static_cast<std::uint8_t>(code | 0x80);
        rsp.messageLength.Set(THID_MSG_LEN_HEADER_ONLY);
        rsp.messageStatus = cStatusUnknownCommand;
        break;
    }
}

void EmuAdapterFirmware::Impl::OnReport(const std::uint8_t* report, std::size_t length)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (length < 1)
        return;
    // The message starts after the report ID byte, whatever the ID.
    const std::uint8_t* message = report + 1;
    const std::size_t messageLength = length - 1;
    received.emplace_back(message, message + messageLength);
    if (messageLength < sizeof(THID_MsgHeader))
        return;

    Message command{};
    std::memcpy(command.data(), message, std::min(messageLength, command.size()));
    const std::uint8_t code = Header(command).messageCode;
    if ((code & 0x80) != 0)
        return; // not a command

    Faults f = faults;
    if (oneShotArmed && (oneShotCode == 0 || oneShotCode == code)) {
        f = oneShotFaults;
        oneShotArmed = false;
    }
    if (f.noAnswer)
        return;

    Message response{};
    const std::uint8_t uniqueId = Header(command).uniqueId;
    Header(response).uniqueId = uniqueId;
    Execute(code, command, response);

    THID_MsgHeader& rsp = Header(response);
    if (f.wrongCode >= 0)
        rsp.messageCode = static_cast<std::uint8_t>(f.wrongCode);
    if (f.lengthOverride >= 0)
        rsp.messageLength.Set(static_cast<std::uint16_t>(f.lengthOverride));
    if (f.status != 0)
        rsp.messageStatus = f.status;
    if (code == THID_CMD_GET_PIN_MODE || code == THID_CMD_GET_PIN_STATE) {
        auto& out = *reinterpret_cast<THID_PinState*>(Payload(response));
        if (f.wrongPinIdEcho)
            out.pinId.Set(out.pinId.Get() + 1);
        if (code == THID_CMD_GET_PIN_MODE && f.modeByteOverride >= 0)
            out.pinState = static_cast<std::uint8_t>(f.modeByteOverride);
        if (code == THID_CMD_GET_PIN_STATE && f.stateByteOverride >= 0)
            out.pinState = static_cast<std::uint8_t>(f.stateByteOverride);
    }

    std::vector<std::uint8_t> answer = MakeReport(response);
    if (answer.empty())
        return;
    if (f.shortReport >= 0 && answer.size() > static_cast<std::size_t>(f.shortReport))
        answer.resize(static_cast<std::size_t>(f.shortReport));
    if (f.staleIdFirst) {
        std::vector<std::uint8_t> stale = answer;
        const std::size_t idOffset = (device.ReportLayout().numbered ? 1 : 0) + offsetof(THID_MsgHeader, uniqueId);
        if (idOffset < stale.size())
            stale[idOffset] = static_cast<std::uint8_t>(uniqueId - 1);
        Send(std::move(stale), f.delayMs);
    }
    Send(std::move(answer), f.delayMs);
}

// ---- EmuAdapterFirmware ----

EmuAdapterFirmware::EmuAdapterFirmware(EmuHidDevice& device) : mImpl(std::make_unique<Impl>(device))
{
    Impl* impl = mImpl.get();
    device.SetWriteHook([impl](const std::uint8_t* report, std::size_t length) { impl->OnReport(report, length); });
}

EmuAdapterFirmware::~EmuAdapterFirmware()
{
    // After this no command reaches us, and none is still being handled.
    mImpl->device.SetWriteHook(nullptr);
    {
        std::lock_guard<std::mutex> lock(mImpl->mutex);
        mImpl->stopping = true;
        mImpl->delayed.clear();
    }
    mImpl->delayedChanged.notify_all();
    if (mImpl->timer.joinable())
        mImpl->timer.join();
}

void EmuAdapterFirmware::SetInputLevel(unsigned pin, bool high)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    if (pin >= cPinCount)
        return;
    const bool changed = mImpl->inputLevels[pin] != high;
    mImpl->inputLevels[pin] = high;
    if (changed && mImpl->modes[pin] == cModeInputEvent)
        mImpl->SendEvent(pin, high ? 1 : 0);
}

std::uint8_t EmuAdapterFirmware::PinMode(unsigned pin) const
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return pin < cPinCount ? mImpl->modes[pin] : 0;
}

bool EmuAdapterFirmware::PinLevel(unsigned pin) const
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return pin < cPinCount && mImpl->Level(pin);
}

void EmuAdapterFirmware::SendPinEvent(std::uint32_t pinId, std::uint8_t stateByte)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    mImpl->SendEvent(pinId, stateByte);
}

void EmuAdapterFirmware::SendPinEventBurst(unsigned pin, unsigned count)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    bool level = pin < cPinCount && mImpl->inputLevels[pin];
    for (unsigned i = 0; i < count; ++i) {
        level = !level;
        mImpl->SendEvent(pin, level ? 1 : 0);
    }
    if (pin < cPinCount)
        mImpl->inputLevels[pin] = level;
}

void EmuAdapterFirmware::AttachI2cSlave(unsigned bus, std::uint8_t address, std::shared_ptr<EmuI2cSlave> slave)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    if (slave)
        mImpl->slaves[{bus, address}] = std::move(slave);
    else
        mImpl->slaves.erase({bus, address});
}

void EmuAdapterFirmware::SetProtocolVersion(std::uint8_t major, std::uint8_t minor)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    mImpl->versionMajor = major;
    mImpl->versionMinor = minor;
}

std::size_t EmuAdapterFirmware::ResponseCount() const
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return mImpl->responses;
}

void EmuAdapterFirmware::SetFaults(const Faults& faults)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    mImpl->faults = faults;
}

EmuAdapterFirmware::Faults EmuAdapterFirmware::GetFaults() const
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return mImpl->faults;
}

void EmuAdapterFirmware::SetOneShotFaults(std::uint8_t commandCode, const Faults& faults)
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    mImpl->oneShotArmed = true;
    mImpl->oneShotCode = commandCode;
    mImpl->oneShotFaults = faults;
}

std::vector<std::vector<std::uint8_t>> EmuAdapterFirmware::ReceivedCommands() const
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return mImpl->received;
}

void EmuAdapterFirmware::ClearReceivedCommands()
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    mImpl->received.clear();
}

std::size_t EmuAdapterFirmware::CommandCount() const
{
    std::lock_guard<std::mutex> lock(mImpl->mutex);
    return mImpl->received.size();
}

} // namespace kemu
