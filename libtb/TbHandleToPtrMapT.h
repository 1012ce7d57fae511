// Handle <-> pointer map: a slot vector with a free list and a generation
// count.
//
// A handle is (generation << IndexBits) | slot index. The generation part is
// the low bits of a counter advanced for every issued handle and never 0, so
// no issued handle is 0 (InvalidHandleValue) and a reused slot answers only to
// its newest handle: a stale handle resolves to null unless the generation
// part has gone once around in between.
//
// Free slots are kept as a stack threaded through the vector (last freed,
// first reused); the vector's size marks the end of the list. The vector
// never grows beyond cMaxEntries slots, and once it has reached that size
// every further request is refused even while some slots are free: the
// limit is on slots ever created, not on slots in use.
//
// No locking: the owner serialises every call.
#pragma once

#include <cstddef>
#include <vector>

#include "libtb/TbDebug.h"

template <typename T, typename THandle, unsigned int IndexBits>
class TbHandleToPtrMapT {
public:
    static constexpr THandle InvalidHandleValue = 0;
    static constexpr unsigned int cIndexMask = (1U << IndexBits) - 1U;
    static constexpr unsigned int cGenerationCountMask = (1U << (sizeof(THandle) * 8U - IndexBits)) - 1U;
    static constexpr std::size_t cMaxEntries = static_cast<std::size_t>(1) << IndexBits;

    struct HandleEntry {
        THandle handle; // 0 while the slot is free
        union {
            T* ptr;                // while used
            std::size_t nextIndex; // while free: next free slot, or the vector's size
        };
    };

    TbHandleToPtrMapT() : mFirstFreeIndex(0), mGenerationCount(0) {}

    // Issues a handle for ptr; InvalidHandleValue when the slot space is used up.
    THandle AddPointer(T* ptr);
    // The pointer the handle stands for, or null.
    T* LookupPointer(THandle handle) const;
    // Frees the handle's slot; returns what it held, or null for a handle
    // that does not resolve (nothing changes then).
    T* RemovePointerByHandle(THandle handle);
    // Frees every slot that holds ptr; returns how many there were.
    unsigned int RemoveAllPointerInstances(T* ptr);

    THandle HandleFromIndex(std::size_t index) const;
    static std::size_t IndexFromHandle(THandle handle) { return static_cast<std::size_t>(handle & cIndexMask); }
    void UpdateGenerationCount();

    std::size_t SlotCount() const { return mVector.size(); }

private:
    void FreeSlot(std::size_t index);

    std::vector<HandleEntry> mVector;
    std::size_t mFirstFreeIndex;
    unsigned int mGenerationCount;
};

// ---------------------------------------------------------------------------
// Implementation
// ---------------------------------------------------------------------------

template <typename T, typename THandle, unsigned int IndexBits>
THandle TbHandleToPtrMapT<T, THandle, IndexBits>::HandleFromIndex(std::size_t index) const
{
    return static_cast<THandle>(((mGenerationCount & cGenerationCountMask) << IndexBits) |
                                (static_cast<unsigned int>(index) & cIndexMask));
}

template <typename T, typename THandle, unsigned int IndexBits>
void TbHandleToPtrMapT<T, THandle, IndexBits>::UpdateGenerationCount()
{
    // The full counter keeps counting; only its low bits enter handles, and
    // those must never be 0.
    mGenerationCount++;
    if ((mGenerationCount & cGenerationCountMask) == 0)
        mGenerationCount++;
}

template <typename T, typename THandle, unsigned int IndexBits>
T* TbHandleToPtrMapT<T, THandle, IndexBits>::LookupPointer(THandle handle) const
{
    if (handle == InvalidHandleValue)
        return nullptr;
    const std::size_t idx = IndexFromHandle(handle);
    if (idx >= mVector.size())
        return nullptr;
    const HandleEntry& entry = mVector[idx];
    // Index and generation must both match.
    if (entry.handle != handle)
        return nullptr;
    return entry.ptr;
}

template <typename T, typename THandle, unsigned int IndexBits>
THandle TbHandleToPtrMapT<T, THandle, IndexBits>::AddPointer(T* ptr)
{
    if (mVector.size() >= cMaxEntries)
        return InvalidHandleValue;

    UpdateGenerationCount();
    const std::size_t idx = mFirstFreeIndex;
    const THandle handle = HandleFromIndex(idx);
    TB_ASSERT(handle!=0);

    const std::size_t count = mVector.size();
    if (idx >= count) {
        TB_ASSERT(idx==count);
        HandleEntry entry;
        entry.handle = handle;
        entry.ptr = ptr;
        // Growing may throw std::bad_alloc before anything has changed
        // except the generation count.
        mVector.push_back(entry);
        mFirstFreeIndex = mVector.size();
    } else {
        HandleEntry& entry = mVector[idx];
        mFirstFreeIndex = entry.nextIndex;
        entry.handle = handle;
        entry.ptr = ptr;
    }
    return handle;
}

template <typename T, typename THandle, unsigned int IndexBits>
T* TbHandleToPtrMapT<T, THandle, IndexBits>::RemovePointerByHandle(THandle handle)
{
    if (handle == InvalidHandleValue)
        return nullptr;
    const std::size_t idx = IndexFromHandle(handle);
    if (idx >= mVector.size())
        return nullptr;
    HandleEntry& entry = mVector[idx];
    if (entry.handle != handle)
        return nullptr;
    T* ptr = entry.ptr;
    entry.handle = InvalidHandleValue;
    TB_ASSERT(mFirstFreeIndex<=mVector.size());
    entry.nextIndex = mFirstFreeIndex;
    mFirstFreeIndex = idx;
    return ptr;
}

template <typename T, typename THandle, unsigned int IndexBits>
void TbHandleToPtrMapT<T, THandle, IndexBits>::FreeSlot(std::size_t index)
{
    HandleEntry& entry = mVector[index];
    entry.handle = InvalidHandleValue;
    TB_ASSERT(mFirstFreeIndex<=mVector.size());
    entry.nextIndex = mFirstFreeIndex;
    mFirstFreeIndex = index;
}

template <typename T, typename THandle, unsigned int IndexBits>
unsigned int TbHandleToPtrMapT<T, THandle, IndexBits>::RemoveAllPointerInstances(T* ptr)
{
    unsigned int cnt = 0;
    for (std::size_t i = 0; i < mVector.size(); i++) {
        HandleEntry& entry = mVector[i];
        if (entry.handle != InvalidHandleValue && entry.ptr == ptr) {
            FreeSlot(i);
            cnt++;
        }
    }
    return cnt;
}
