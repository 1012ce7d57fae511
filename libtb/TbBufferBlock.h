// An owned block of bytes: pointer and size, allocated once and released by
// FreeBuffer() or the destructor.
#pragma once

#include "libtb/TbTypes.h"

class TbBufferBlock {
public:
    TbBufferBlock() : mBuffer(nullptr), mBufferSize(0) {}
    ~TbBufferBlock() { FreeBuffer(); }

    bool IsValid() const { return mBuffer != nullptr; }
    T_UINT8* Buffer() const { return mBuffer; }
    T_UINT8* BufferLimit() const { return mBuffer + mBufferSize; }
    T_UINT32 BufferSize() const { return mBufferSize; }

    // Replaces any old storage. A size of 0 leaves the block empty and
    // succeeds; false when memory is exhausted (the block is then empty).
    // New storage is not zeroed.
    bool AllocateBuffer(T_UINT32 size);
    // Safe to repeat.
    void FreeBuffer();
    void ZeroBuffer();
    // Takes over storage allocated with new[] (any old storage is freed).
    void AttachBuffer(T_UINT8* buffer, T_UINT32 size);
    // Gives up the storage without freeing it; the caller delete[]s it.
    T_UINT8* DetachBuffer();

    TbBufferBlock(const TbBufferBlock&) = delete;
    TbBufferBlock& operator=(const TbBufferBlock&) = delete;

protected:
    T_UINT8* mBuffer;
    T_UINT32 mBufferSize;
};
