// A HID report that carries one adapter message: report ID in byte 0, the
// 8-byte message header from byte 1, the payload from byte 9. All accessors
// read the buffer in place.
#pragma once

#include "karvex_api_linux/thid_prot_karvex.h"
#include "libtb/TbTypes.h"
#include "liblinux/LxHidRawReportBuffer.h"

class KarvexReportBuffer : public LxHidRawReportBuffer {
public:
    KarvexReportBuffer() = default;

    THID_MsgHeader* MessageHeader() const { return reinterpret_cast<THID_MsgHeader*>(ReportData()); }
    unsigned char* MessagePayload() const { return ReportData() + sizeof(THID_MsgHeader); }
    T_UINT16 MessageLength() const { return MessageHeader()->messageLength.Get(); }
    T_UINT8 MessageCode() const { return MessageHeader()->messageCode; }
    T_UINT8 UniqueId() const { return MessageHeader()->uniqueId; }
    T_UINT8 MessageStatus() const { return MessageHeader()->messageStatus; }

    // Payload viewed as one of the protocol structures. Callers size every
    // command and response buffer for THID_MAX_MESSAGE_SIZE, which holds the
    // largest payload.
    template <typename TPayload>
    TPayload* Payload() const
    {
        return reinterpret_cast<TPayload*>(MessagePayload());
    }

private:
    KarvexReportBuffer(const KarvexReportBuffer&) = delete;
    KarvexReportBuffer& operator=(const KarvexReportBuffer&) = delete;
};

// 0 stays success; a non-zero adapter status becomes 0xE0001100 + status.
inline TSTATUS ResponseStatusToTStatus(T_UINT8 rspStatus)
{
    return rspStatus == 0 ? TSTATUS_SUCCESS
                          : static_cast<TSTATUS>(static_cast<unsigned int>(TSTATUS_RESPONSE_STATUS_BASE) + rspStatus);
}
