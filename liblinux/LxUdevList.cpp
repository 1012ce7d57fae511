#include "liblinux/LxUdevList.h"

#include <libudev.h>

LxUdevList::LxUdevList(udev_list_entry* firstEntry) : mFirstListEntry(nullptr), mCurrentListEntry(nullptr)
{
    Init(firstEntry);
}

LxUdevList::~LxUdevList()
{
    Deinit();
}

void LxUdevList::Init(udev_list_entry* firstEntry)
{
    mFirstListEntry = firstEntry;
    Reset();
}

void LxUdevList::Deinit()
{
    mFirstListEntry = nullptr;
    mCurrentListEntry = nullptr;
}

void LxUdevList::Reset()
{
    mCurrentListEntry = mFirstListEntry;
}

const char* LxUdevList::GetNextName()
{
    if (mCurrentListEntry == nullptr)
        return nullptr;
    const char* name = udev_list_entry_get_name(mCurrentListEntry);
    mCurrentListEntry = udev_list_entry_get_next(mCurrentListEntry);
    return name;
}

unsigned int LxUdevList::GetCount()
{
    unsigned int count = 0;
    for (udev_list_entry* e = mFirstListEntry; e != nullptr; e = udev_list_entry_get_next(e))
        ++count;
    return count;
}
