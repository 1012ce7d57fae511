// Wire format of the adapter's message protocol. Shared by the host library
// and the adapter firmware (our emulated firmware includes it as well), so it
// depends on nothing but the fixed-width integer types.
//
// Every message travels in one HID report (report ID byte 0 first, then the
// message). All multi-byte fields are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>

typedef std::uint8_t T_PROT_UINT8;

// Little-endian 16- and 32-bit fields, stored as bytes so the layout is the
// same on any host and access never needs alignment.
struct T_LE_UINT16 {
    std::uint8_t b[2];
    std::uint16_t Get() const { return static_cast<std::uint16_t>(b[0] | (b[1] << 8)); }
    void Set(std::uint16_t v)
    {
        b[0] = static_cast<std::uint8_t>(v);
        b[1] = static_cast<std::uint8_t>(v >> 8);
    }
};

struct T_LE_UINT32 {
    std::uint8_t b[4];
    std::uint32_t Get() const
    {
        return static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8) |
               (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
    }
    void Set(std::uint32_t v)
    {
        b[0] = static_cast<std::uint8_t>(v);
        b[1] = static_cast<std::uint8_t>(v >> 8);
        b[2] = static_cast<std::uint8_t>(v >> 16);
        b[3] = static_cast<std::uint8_t>(v >> 24);
    }
};

// Largest message (header included) that every command and response buffer holds.
#define THID_MAX_MESSAGE_SIZE 320U

// Expected protocol version: any 1.xx adapter is accepted.
#define THID_PROTOCOL_VERSION_MAJOR 1U
#define THID_PROTOCOL_VERSION_MINOR 0U

// Message codes: commands have the high bit clear, responses set, 0xE1 is the event.
#define THID_CMD_GET_PROTOCOL_VERSION 0x01U
#define THID_RSP_GET_PROTOCOL_VERSION 0x81U
#define THID_CMD_SET_PIN_MODE 0x10U
#define THID_CMD_GET_PIN_MODE 0x11U
#define THID_CMD_SET_PIN_STATE 0x12U
#define THID_CMD_GET_PIN_STATE 0x13U
#define THID_RSP_ACK 0x80U // answers both set commands
#define THID_RSP_GET_PIN_MODE 0x91U
#define THID_RSP_GET_PIN_STATE 0x93U
#define THID_CMD_I2C_TRANSACTION 0x18U
#define THID_RSP_I2C_TRANSACTION 0x98U
#define THID_EVT_PIN_STATE_CHANGED 0xE1U

#define THID_I2C_MAX_DATA 256U

#pragma pack(push, 1)

struct THID_MsgHeader {
    T_LE_UINT16 messageLength; // whole message incl. this header
    std::uint8_t messageCode;
    std::uint8_t uniqueId;      // set by the host, echoed in the response
    std::uint8_t messageStatus; // 0 = success in responses
    std::uint8_t reserved[3];
};

struct THID_PinMode {
    T_LE_UINT32 pinId;
    std::uint8_t pinMode;
    std::uint8_t reserved[3];
};

struct THID_PinState {
    T_LE_UINT32 pinId;
    std::uint8_t pinState;
    std::uint8_t reserved[3];
};

struct THID_ProtocolVersion {
    std::uint8_t protocolVersionMj;
    std::uint8_t protocolVersionMn;
};

struct THID_I2cTransaction {
    std::uint8_t i2cBus;
    std::uint8_t i2cSlaveAddress;
    std::uint8_t reserved[2];
    T_LE_UINT32 i2cSpeed;
    T_LE_UINT32 timeoutInterval; // ms, the adapter's own limit
    T_LE_UINT16 bytesToWrite;
    T_LE_UINT16 bytesToRead;
    std::uint8_t data[THID_I2C_MAX_DATA];
};

#pragma pack(pop)

static_assert(sizeof(T_LE_UINT16) == 2 && alignof(T_LE_UINT16) == 1, "T_LE_UINT16 layout");
static_assert(sizeof(T_LE_UINT32) == 4 && alignof(T_LE_UINT32) == 1, "T_LE_UINT32 layout");
static_assert(sizeof(THID_MsgHeader) == 8, "header is 8 bytes");
static_assert(sizeof(THID_PinMode) == 8, "THID_PinMode is 8 bytes");
static_assert(sizeof(THID_PinState) == 8, "THID_PinState is 8 bytes");
static_assert(sizeof(THID_ProtocolVersion) == 2, "THID_ProtocolVersion is 2 bytes");
static_assert(sizeof(THID_I2cTransaction) == 272, "THID_I2cTransaction is 272 bytes");
static_assert(offsetof(THID_I2cTransaction, i2cSpeed) == 4 && offsetof(THID_I2cTransaction, timeoutInterval) == 8 &&
                  offsetof(THID_I2cTransaction, bytesToWrite) == 12 && offsetof(THID_I2cTransaction, bytesToRead) == 14 &&
                  offsetof(THID_I2cTransaction, data) == 16,
              "THID_I2cTransaction field offsets");
static_assert(sizeof(THID_MsgHeader) + sizeof(THID_I2cTransaction) <= THID_MAX_MESSAGE_SIZE, "I2C message fits");

// Message lengths as carried in messageLength.
#define THID_MSG_LEN_HEADER_ONLY 8U
#define THID_MSG_LEN_PROTOCOL_VERSION 10U
#define THID_MSG_LEN_PIN 16U
#define THID_MSG_LEN_I2C 280U
