// The buffer of one HID report as hidraw moves it: byte 0 is the report ID
// (0 when the device does not number its reports), the report data follows.
// The accessors sit on the path of every report; they are inline and only
// check their preconditions with the fatal assertion.
#pragma once

#include "libtb/TbBufferBlock.h"
#include "libtb/TbDebug.h"
#include "libtb/TbTypes.h"

class LxHidRawReportBuffer : public TbBufferBlock {
public:
    LxHidRawReportBuffer() : mBytesTransferred(0) {}

    // First data byte. Without storage the assertion reports the misuse and
    // null is returned (there is nothing to point into).
    T_UINT8* ReportData() const
    {
        TB_FATAL_ASSERT(IsValid());
        return mBuffer != nullptr ? mBuffer + 1 : nullptr;
    }

    // Number of data bytes. A buffer without room for the ID byte has none,
    // rather than a wrapped-around size that a caller could read into.
    T_UINT32 ReportDataSize() const
    {
        TB_FATAL_ASSERT(IsValid());
        TB_FATAL_ASSERT(BufferSize()>=2);
        return mBufferSize != 0 ? mBufferSize - 1 : 0;
    }

    T_UINT8 GetReportId() const { return mBuffer != nullptr ? mBuffer[0] : 0; }

    void SetReportId(T_UINT8 id)
    {
        TB_FATAL_ASSERT(IsValid());
        if (mBuffer != nullptr)
            mBuffer[0] = id;
    }

    // Bytes moved by the last read or write, the report ID byte included.
    T_UINT32 BytesTransferred() const { return mBytesTransferred; }
    void SetBytesTransferred(T_UINT32 n) { mBytesTransferred = n; }

protected:
    T_UINT32 mBytesTransferred;
};
