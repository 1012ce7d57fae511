// Intrusive doubly linked list. An element carries its own link
// (TbDListEntry<T>) as a member, so inserting and removing never allocate and
// an element knows which list holds it.
//
//   struct Item { TbDListEntry<Item> mLink; int mValue; };
//   TbDListX<Item, &Item::mLink> list;
//
// Misuse (inserting a linked element, removing one that another list holds)
// is reported through the checking assertion. The operation is then refused
// instead of carried out, because going on would tie two lists together and
// turn a reported bug into a corrupted or endless walk later.
#pragma once

#include <cstddef>
#include <type_traits>

#include "libtb/TbDebug.h"

template <class T>
class TbDListImpl;

template <class T>
class TbDListEntry {
public:
    TbDListEntry() { Init(); }
    // An element must be unlinked before it goes away, or its neighbours keep
    // pointing at freed memory.
    ~TbDListEntry() { TB_ASSERT(!IsLinked()); }

    // A link belongs to the one element that contains it.
    TbDListEntry(const TbDListEntry&) = delete;
    TbDListEntry& operator=(const TbDListEntry&) = delete;

    void Init()
    {
        mNext = nullptr;
        mPrev = nullptr;
        mList = nullptr;
    }
    bool IsLinked() const { return mList != nullptr; }

    T* mNext;
    T* mPrev;
    const TbDListImpl<T>* mList;
};

template <class T>
class TbDListImpl {
public:
    typedef TbDListEntry<T> T::*TEntryPtr;

    explicit TbDListImpl(TEntryPtr entryPtr) : mHead(nullptr), mTail(nullptr), mListEntryPtr(entryPtr) {}
    // The owner empties the list first; the elements are not ours to free.
    ~TbDListImpl()
    {
        TB_ASSERT(NULL==mHead);
        TB_ASSERT(NULL==mTail);
    }

    TbDListImpl(const TbDListImpl&) = delete;
    TbDListImpl& operator=(const TbDListImpl&) = delete;

protected:
    TbDListEntry<T>& EntryOf(T* e) const { return e->*mListEntryPtr; }
    const TbDListEntry<T>& EntryOf(const T* e) const { return e->*mListEntryPtr; }

    T* mHead;
    T* mTail;
    TEntryPtr mListEntryPtr;
};

// TEntry names the link type; the link is located through the member pointer
// given to the constructor.
template <class T, class TEntry = TbDListEntry<T>>
class TbDList : public TbDListImpl<T> {
    static_assert(std::is_same<TEntry, TbDListEntry<T>>::value, "the link must be a TbDListEntry<T>");

public:
    typedef typename TbDListImpl<T>::TEntryPtr TEntryPtr;

    explicit TbDList(TEntryPtr entryPtr) : TbDListImpl<T>(entryPtr) {}

    bool IsEmpty() const { return this->mHead == nullptr; }
    bool IsInList(const T* e) const { return e != nullptr && this->EntryOf(e).mList == this; }

    T* Head() const { return this->mHead; }
    T* Tail() const { return this->mTail; }
    // Next(nullptr) is the head and Prev(nullptr) the tail, so a walk may start from null.
    T* Next(const T* e) const { return e == nullptr ? this->mHead : this->EntryOf(e).mNext; }
    T* Prev(const T* e) const { return e == nullptr ? this->mTail : this->EntryOf(e).mPrev; }

    void InsertHead(T* e)
    {
        TEntry* ne = &this->EntryOf(e);
        TB_ASSERT(!ne->IsLinked());
        if (ne->IsLinked())
            return;
        ne->mList = this;
        ne->mPrev = nullptr;
        ne->mNext = this->mHead;
        if (this->mHead == nullptr)
            this->mTail = e;
        else
            this->EntryOf(this->mHead).mPrev = e;
        this->mHead = e;
    }

    void InsertTail(T* e)
    {
        TEntry* ne = &this->EntryOf(e);
        TB_ASSERT(!ne->IsLinked());
        if (ne->IsLinked())
            return;
        ne->mList = this;
        ne->mNext = nullptr;
        ne->mPrev = this->mTail;
        if (this->mHead == nullptr)
            this->mHead = e;
        else
            this->EntryOf(this->mTail).mNext = e;
        this->mTail = e;
    }

    // Inserts e after pos; a null pos inserts at the head.
    void InsertAfter(T* pos, T* e)
    {
        if (pos == nullptr) {
            InsertHead(e);
            return;
        }
        TEntry* ne = &this->EntryOf(e);
        TB_ASSERT(!ne->IsLinked());
        TB_ASSERT(IsInList(pos));
        if (ne->IsLinked() || !IsInList(pos))
            return;
        TEntry* pe = &this->EntryOf(pos);
        ne->mList = this;
        ne->mPrev = pos;
        ne->mNext = pe->mNext;
        if (pe->mNext == nullptr)
            this->mTail = e;
        else
            this->EntryOf(pe->mNext).mPrev = e;
        pe->mNext = e;
    }

    // Inserts e before pos; a null pos inserts at the tail.
    void InsertBefore(T* pos, T* e)
    {
        if (pos == nullptr) {
            InsertTail(e);
            return;
        }
        TEntry* ne = &this->EntryOf(e);
        TB_ASSERT(!ne->IsLinked());
        TB_ASSERT(IsInList(pos));
        if (ne->IsLinked() || !IsInList(pos))
            return;
        TEntry* pe = &this->EntryOf(pos);
        ne->mList = this;
        ne->mNext = pos;
        ne->mPrev = pe->mPrev;
        if (pe->mPrev == nullptr)
            this->mHead = e;
        else
            this->EntryOf(pe->mPrev).mNext = e;
        pe->mPrev = e;
    }

    // Unlinks and returns the head; null when the list is empty.
    T* RemoveHead()
    {
        T* e = this->mHead;
        if (e == nullptr)
            return nullptr;
        TEntry* ne = &this->EntryOf(e);
        this->mHead = ne->mNext;
        if (this->mHead == nullptr)
            this->mTail = nullptr;
        else
            this->EntryOf(this->mHead).mPrev = nullptr;
        ne->Init();
        return e;
    }

    // Unlinks and returns the tail; null when the list is empty.
    T* RemoveTail()
    {
        T* e = this->mTail;
        if (e == nullptr)
            return nullptr;
        TEntry* ne = &this->EntryOf(e);
        this->mTail = ne->mPrev;
        if (this->mTail == nullptr)
            this->mHead = nullptr;
        else
            this->EntryOf(this->mTail).mNext = nullptr;
        ne->Init();
        return e;
    }

    // Unlinks e, which must be in this list; returns e, or null when it is not.
    T* Remove(T* e)
    {
        TB_ASSERT(IsInList(e));
        if (!IsInList(e))
            return nullptr;
        TEntry* ne = &this->EntryOf(e);
        if (ne->mPrev == nullptr)
            this->mHead = ne->mNext;
        else
            this->EntryOf(ne->mPrev).mNext = ne->mNext;
        if (ne->mNext == nullptr)
            this->mTail = ne->mPrev;
        else
            this->EntryOf(ne->mNext).mPrev = ne->mPrev;
        ne->Init();
        return e;
    }

    // Moves every element of other to the end of this list, keeping their
    // order; other is empty afterwards.
    void AppendList(TbDList& other)
    {
        TB_ASSERT(&other != this);
        if (&other == this || other.mHead == nullptr)
            return;
        for (T* e = other.mHead; e != nullptr; e = this->EntryOf(e).mNext)
            this->EntryOf(e).mList = this;
        if (this->mHead == nullptr) {
            this->mHead = other.mHead;
        } else {
            this->EntryOf(this->mTail).mNext = other.mHead;
            this->EntryOf(other.mHead).mPrev = this->mTail;
        }
        this->mTail = other.mTail;
        other.mHead = nullptr;
        other.mTail = nullptr;
    }
};

// The list with its entry member fixed at compile time:
//   TbDListX<LxHidRawDeviceEnumeratorInfo, &LxHidRawDeviceEnumeratorInfo::mListEntry>
template <class T, TbDListEntry<T> T::*TMember>
class TbDListX : public TbDList<T> {
public:
    TbDListX() : TbDList<T>(TMember) {}
};
