// Owns a set of objects and hands out handles for them through a
// TbHandleToPtrMapT. Objects are destroyed by DeleteAllObjects() (and the
// destructor) in ascending address order; RemoveObject() only forgets one.
//
// No locking: the owner serialises every call.
#pragma once

#include <set>

#include "libtb/TbDebug.h"
#include "libtb/TbHandleToPtrMapT.h"

template <typename TObj, typename THandle>
class TbHandleBasedContainerT {
public:
    typedef TbHandleToPtrMapT<TObj, THandle, 16> HandleMap;

    TbHandleBasedContainerT() {}
    ~TbHandleBasedContainerT() { DeleteAllObjects(); }

    // The new handle, or 0 when the map refuses (no slot space left). Out of
    // memory it throws std::bad_alloc and keeps no handle for obj.
    THandle AddObject(TObj* obj);
    // Forgets obj and releases handle; true when obj was owned. Does not
    // destroy it.
    bool RemoveObject(TObj* obj, THandle handle);
    TObj* LookupObjectByHandle(THandle handle) const { return mHandleMap.LookupPointer(handle); }
    // obj when it is owned, else null.
    TObj* LookupObjectPtr(TObj* obj) const;
    bool IsEmpty() const { return mObjSet.empty(); }
    // Forgets the lowest-addressed object and all its handles and returns it
    // (not destroyed); null when empty.
    TObj* RemoveFirstObject();
    // Removes and destroys every owned object.
    void DeleteAllObjects();

    TbHandleBasedContainerT(const TbHandleBasedContainerT&) = delete;
    TbHandleBasedContainerT& operator=(const TbHandleBasedContainerT&) = delete;

private:
    std::set<TObj*> mObjSet;
    HandleMap mHandleMap;
};

// ---------------------------------------------------------------------------
// Implementation
// ---------------------------------------------------------------------------

template <typename TObj, typename THandle>
TObj* TbHandleBasedContainerT<TObj, THandle>::LookupObjectPtr(TObj* obj) const
{
    return (mObjSet.find(obj) != mObjSet.end()) ? obj : nullptr;
}

template <typename TObj, typename THandle>
THandle TbHandleBasedContainerT<TObj, THandle>::AddObject(TObj* obj)
{
    THandle handle = mHandleMap.AddPointer(obj);
    if (handle == HandleMap::InvalidHandleValue)
        return handle;
    bool inserted;
    try {
        inserted = mObjSet.insert(obj).second;
    } catch (...) {
        // Out of memory for the set node: the handle is taken back, so that
        // the caller may destroy the object without leaving a slot behind.
        mHandleMap.RemovePointerByHandle(handle);
        throw;
    }
    if (!inserted) {
        // Already owned: the object now simply has one more handle.
        TB_ASSERT(0);
    }
    return handle;
}

template <typename TObj, typename THandle>
bool TbHandleBasedContainerT<TObj, THandle>::RemoveObject(TObj* obj, THandle handle)
{
    TObj* removed = mHandleMap.RemovePointerByHandle(handle);
    if (removed != obj) {
        TB_ASSERT(0);
    }
    return mObjSet.erase(obj) != 0;
}

template <typename TObj, typename THandle>
TObj* TbHandleBasedContainerT<TObj, THandle>::RemoveFirstObject()
{
    if (mObjSet.empty())
        return nullptr;
    TObj* obj = *mObjSet.begin();
    mObjSet.erase(mObjSet.begin());
    mHandleMap.RemoveAllPointerInstances(obj);
    return obj;
}

template <typename TObj, typename THandle>
void TbHandleBasedContainerT<TObj, THandle>::DeleteAllObjects()
{
    while (!mObjSet.empty()) {
        TObj* ptr = *mObjSet.begin();
        mObjSet.erase(mObjSet.begin());
        unsigned int cnt = mHandleMap.RemoveAllPointerInstances(ptr);
        TB_ASSERT(cnt>0);
        if (ptr == nullptr)
            break;
        delete ptr;
    }
}
