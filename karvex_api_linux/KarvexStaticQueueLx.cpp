#include "karvex_api_linux/KarvexStaticQueueLx.h"

#include <string.h>

#include "libposix/PxTrace.h"
#include "libtb/TbDebug.h"

KarvexStaticQueue::KarvexStaticQueue() : mMutex(true)
{
}

KarvexStaticQueue::~KarvexStaticQueue()
{
    Free();
}

TSTATUS KarvexStaticQueue::Allocate(unsigned int slotSize, unsigned int slotCount)
{
    PxMutexLock lock(mMutex);
    Free();
    const unsigned long long total = static_cast<unsigned long long>(slotSize) * slotCount;
    if (total > 0xFFFFFFFFULL || !mBufferMemory.AllocateBuffer(static_cast<T_UINT32>(total))) {
        PXTRACE_ERROR("%s: AllocateBuffer failed\n");
        return TSTATUS_NO_MEMORY;
    }
    mCircBuffer.AttachBufferSpace(mBufferMemory.Buffer(), slotCount, slotSize);
    return TSTATUS_SUCCESS;
}

void KarvexStaticQueue::Free()
{
    PxMutexLock lock(mMutex);
    mCircBuffer.AttachBufferSpace(nullptr, 0, 0);
    mBufferMemory.FreeBuffer();
}

void KarvexStaticQueue::Clear()
{
    PxMutexLock lock(mMutex);
    mCircBuffer.Reset();
    mEvent.Reset();
}

bool KarvexStaticQueue::Store(const void* data, unsigned int dataLength, bool overwrite)
{
    TB_ASSERT(NULL != data);
    TB_ASSERT(mCircBuffer.IsValid());
    TB_ASSERT(dataLength <= mCircBuffer.SlotSize());
    bool dropped = false;
    if (mCircBuffer.IsFull()) {
        if (!overwrite || mCircBuffer.IsEmpty())
            return false; // full, or no slots at all
        mCircBuffer.IncReadPointer();
        dropped = true;
    }
    unsigned char* slot = mCircBuffer.GetWritePointer();
    if (slot == nullptr)
        return false;
    // Never copy more than a slot holds, whatever the caller claims.
    const unsigned int n = dataLength <= mCircBuffer.SlotSize() ? dataLength : mCircBuffer.SlotSize();
    if (data != nullptr && n > 0)
        memcpy(slot, data, n);
    mCircBuffer.IncWritePointer();
    // The flag is set under the queue's lock; the consumer is woken by the
    // caller once that lock is released (see Put).
    mEvent.MarkSet();
    return !dropped;
}

bool KarvexStaticQueue::Put(const void* data, unsigned int dataLength)
{
    return StoreAndWake(data, dataLength, false);
}

bool KarvexStaticQueue::PutForceOverwrite(const void* data, unsigned int dataLength)
{
    return StoreAndWake(data, dataLength, true);
}

bool KarvexStaticQueue::StoreAndWake(const void* data, unsigned int dataLength, bool overwrite)
{
    bool result;
    {
        PxMutexLock lock(mMutex);
        result = Store(data, dataLength, overwrite);
    }
    // Woken with no lock of the queue held, the consumer's Get does not block
    // on the producer that has just woken it. A wake-up after a failed store
    // is harmless: consumers test the flag and the queue after every wake-up.
    mEvent.Wake();
    return result;
}

bool KarvexStaticQueue::Get(void* dataBuffer, unsigned int dataBufferLength)
{
    PxMutexLock lock(mMutex);
    TB_ASSERT(NULL != dataBuffer);
    TB_ASSERT(mCircBuffer.IsValid());
    TB_ASSERT(dataBufferLength <= mCircBuffer.SlotSize());
    const unsigned char* slot = mCircBuffer.GetReadPointer();
    if (slot == nullptr)
        return false;
    const unsigned int n =
        dataBufferLength <= mCircBuffer.SlotSize() ? dataBufferLength : mCircBuffer.SlotSize();
    if (dataBuffer != nullptr && n > 0)
        memcpy(dataBuffer, slot, n);
    mCircBuffer.IncReadPointer();
    if (mCircBuffer.IsEmpty())
        mEvent.Reset();
    return true;
}

bool KarvexStaticQueue::IsValid()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.IsValid();
}

bool KarvexStaticQueue::IsEmpty()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.IsEmpty();
}

bool KarvexStaticQueue::IsFull()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.IsFull();
}

unsigned int KarvexStaticQueue::SlotCount()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.SlotCount();
}

unsigned int KarvexStaticQueue::SlotSize()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.SlotSize();
}

unsigned int KarvexStaticQueue::SlotsUsed()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.SlotsUsed();
}

unsigned int KarvexStaticQueue::SlotsFree()
{
    PxMutexLock lock(mMutex);
    return mCircBuffer.SlotsFree();
}
