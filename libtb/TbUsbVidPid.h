// USB (vendor ID, product ID) pairs and the list of them that selects which
// devices enumeration and hot-plug notification care about.
#pragma once

#include <algorithm>
#include <vector>

#include "libtb/TbTypes.h"

struct TbUsbVidPid {
    T_UINT16 mVid;
    T_UINT16 mPid;
};

// Kept in insertion order; duplicates are allowed and harmless.
class TbUsbVidPidList : public std::vector<TbUsbVidPid> {
public:
    void AddVidPid(T_UINT16 vid, T_UINT16 pid) { push_back(TbUsbVidPid{vid, pid}); }

    bool IsVidPidContained(T_UINT16 vid, T_UINT16 pid) const
    {
        for (const TbUsbVidPid& e : *this) {
            if (e.mVid == vid && e.mPid == pid)
                return true;
        }
        return false;
    }

    // Removes every occurrence of the pair.
    void RemoveVidPid(T_UINT16 vid, T_UINT16 pid)
    {
        erase(std::remove_if(begin(), end(),
                             [vid, pid](const TbUsbVidPid& e) { return e.mVid == vid && e.mPid == pid; }),
              end());
    }
};
