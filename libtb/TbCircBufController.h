// Index arithmetic of a ring of equal-sized slots in memory owned by someone
// else. No locking: the owner serialises access.
#pragma once

#include "libtb/TbTypes.h"

class TbCircBufController {
public:
    TbCircBufController(unsigned char* BufferSpace = nullptr, unsigned int NumberOfSlots = 0,
                        unsigned int SizeOfSlot = 0);

    // Attaching null (with 0 slots of 0 bytes) detaches.
    void AttachBufferSpace(unsigned char* BufferSpace, unsigned int NumberOfSlots, unsigned int SizeOfSlot);
    void Reset();

    bool IsValid() const { return mBufferStart != nullptr; }
    bool IsEmpty() const { return mCurrentCount == 0; }
    // An unattached controller is both empty and full.
    bool IsFull() const { return mCurrentCount == mSlotCount; }
    unsigned int SlotCount() const { return mSlotCount; }
    unsigned int SlotSize() const { return mSlotSize; }
    unsigned int SlotsUsed() const { return mCurrentCount; }
    unsigned int SlotsFree() const { return mSlotCount - mCurrentCount; }

    // Null when full.
    unsigned char* GetWritePointer() const;
    // Commits the slot returned by GetWritePointer; returns the next write slot.
    unsigned char* IncWritePointer();
    // Null when empty.
    unsigned char* GetReadPointer() const;
    // Releases the slot returned by GetReadPointer; returns the next read slot.
    unsigned char* IncReadPointer();

private:
    unsigned char* mBufferStart;
    unsigned char* mBufferLimit;
    T_UINT32 mSlotCount;
    T_UINT32 mSlotSize;
    T_UINT32 mCurrentCount;
    unsigned char* mWritePtr;
    unsigned char* mReadPtr;
};
