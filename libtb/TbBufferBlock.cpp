#include "libtb/TbBufferBlock.h"

#include <string.h>

#include "libtb/TbOSEnv.h"

bool TbBufferBlock::AllocateBuffer(T_UINT32 size)
{
    FreeBuffer();
    if (size == 0)
        return true;
    T_UINT8* buffer = new (TbMemTypeDontCare) T_UINT8[size];
    if (buffer == nullptr)
        return false;
    mBuffer = buffer;
    mBufferSize = size;
    return true;
}

void TbBufferBlock::FreeBuffer()
{
    delete[] mBuffer;
    mBuffer = nullptr;
    mBufferSize = 0;
}

void TbBufferBlock::ZeroBuffer()
{
    if (mBuffer != nullptr)
        memset(mBuffer, 0, mBufferSize);
}

void TbBufferBlock::AttachBuffer(T_UINT8* buffer, T_UINT32 size)
{
    if (buffer == mBuffer) {
        mBufferSize = (buffer != nullptr) ? size : 0;
        return;
    }
    FreeBuffer();
    mBuffer = buffer;
    mBufferSize = (buffer != nullptr) ? size : 0;
}

T_UINT8* TbBufferBlock::DetachBuffer()
{
    T_UINT8* buffer = mBuffer;
    mBuffer = nullptr;
    mBufferSize = 0;
    return buffer;
}
