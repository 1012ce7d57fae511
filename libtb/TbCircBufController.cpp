#include "libtb/TbCircBufController.h"

#include "libtb/TbDebug.h"

TbCircBufController::TbCircBufController(unsigned char* BufferSpace, unsigned int NumberOfSlots,
                                         unsigned int SizeOfSlot)
{
    AttachBufferSpace(BufferSpace, NumberOfSlots, SizeOfSlot);
}

void TbCircBufController::AttachBufferSpace(unsigned char* BufferSpace, unsigned int NumberOfSlots,
                                            unsigned int SizeOfSlot)
{
    mBufferStart = BufferSpace;
    mSlotCount = NumberOfSlots;
    mSlotSize = SizeOfSlot;
    mBufferLimit = (BufferSpace != nullptr)
                       ? BufferSpace + static_cast<size_t>(NumberOfSlots) * static_cast<size_t>(SizeOfSlot)
                       : nullptr;
    Reset();
}

void TbCircBufController::Reset()
{
    mCurrentCount = 0;
    mWritePtr = mBufferStart;
    mReadPtr = mBufferStart;
}

unsigned char* TbCircBufController::GetWritePointer() const
{
    return IsFull() ? nullptr : mWritePtr;
}

unsigned char* TbCircBufController::IncWritePointer()
{
    TB_ASSERT(!IsFull());
    if (IsFull() || mBufferStart == nullptr)
        return mWritePtr; // would overrun the oldest slot; the count must stay truthful
    mWritePtr += mSlotSize;
    if (mWritePtr >= mBufferLimit)
        mWritePtr = mBufferStart;
    mCurrentCount++;
    return mWritePtr;
}

unsigned char* TbCircBufController::GetReadPointer() const
{
    return IsEmpty() ? nullptr : mReadPtr;
}

unsigned char* TbCircBufController::IncReadPointer()
{
    TB_ASSERT(!IsEmpty());
    if (IsEmpty())
        return mReadPtr;
    mReadPtr += mSlotSize;
    if (mReadPtr >= mBufferLimit)
        mReadPtr = mBufferStart;
    mCurrentCount--;
    return mReadPtr;
}
