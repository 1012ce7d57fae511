// A cursor over a libudev list that someone else owns (an enumerator's scan
// result). Valid only while that owner lives and is not rescanned.
#pragma once

struct udev_list_entry;

class LxUdevList {
public:
    explicit LxUdevList(udev_list_entry* firstEntry = nullptr);
    ~LxUdevList();
    LxUdevList(const LxUdevList&) = delete;
    LxUdevList& operator=(const LxUdevList&) = delete;

    void Init(udev_list_entry* firstEntry);
    void Deinit();
    // Back to the first entry.
    void Reset();
    // The current entry's name, then advance; null at the end.
    const char* GetNextName();
    // Number of entries; does not move the cursor.
    unsigned int GetCount();

private:
    udev_list_entry* mFirstListEntry;
    udev_list_entry* mCurrentListEntry;
};
