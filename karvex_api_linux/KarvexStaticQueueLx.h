// Bounded queue of equal-sized messages, allocated once. The reader thread
// stores reports, a command or the pin event thread takes them. A manual-
// reset event is set by every store and reset by the Get that empties the
// queue; consumers loop (wait, Get, wait again when Get found nothing).
#pragma once

#include "libposix/PxEvent.h"
#include "libposix/PxMutex.h"
#include "libtb/TbBufferBlock.h"
#include "libtb/TbCircBufController.h"
#include "libtb/TbTypes.h"

class KarvexStaticQueue {
public:
    KarvexStaticQueue();
    ~KarvexStaticQueue();

    // Note the order: slot size first. Discards everything queued before.
    TSTATUS Allocate(unsigned int slotSize, unsigned int slotCount);
    void Free();
    // Empties the ring and resets the event.
    void Clear();

    // false when full (the new message is the one lost) or unallocated.
    bool Put(const void* data, unsigned int dataLength);
    // Drops the oldest message when full; false when one was dropped.
    bool PutForceOverwrite(const void* data, unsigned int dataLength);
    // Copies dataBufferLength bytes of the oldest message; false when empty.
    bool Get(void* dataBuffer, unsigned int dataBufferLength);

    bool IsValid();
    bool IsEmpty();
    bool IsFull();
    unsigned int SlotCount();
    unsigned int SlotSize();
    unsigned int SlotsUsed();
    unsigned int SlotsFree();

    void Wait() { mEvent.Wait(); }
    // false on time-out.
    bool WaitWithTimeout(unsigned int waitTimeout) { return mEvent.WaitWithTimeout(waitTimeout); }
    // Wakes a waiter without a message.
    void SetEvent() { mEvent.Set(); }
    PxManualResetEvent& Event() { return mEvent; }

    KarvexStaticQueue(const KarvexStaticQueue&) = delete;
    KarvexStaticQueue& operator=(const KarvexStaticQueue&) = delete;

private:
    bool Store(const void* data, unsigned int dataLength, bool overwrite);
    bool StoreAndWake(const void* data, unsigned int dataLength, bool overwrite);

    PxMutex mMutex;
    PxManualResetEvent mEvent;
    TbCircBufController mCircBuffer;
    TbBufferBlock mBufferMemory;
};
