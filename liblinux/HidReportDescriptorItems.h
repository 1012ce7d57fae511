// The records the HID report descriptor parser builds: the global item state
// and its push/pop stack, the local item state, the tree of collections with
// the Input/Output/Feature items as leaves, and the per-(type, report ID)
// report lengths.
#pragma once

#include <type_traits>

#include "libtb/TbDList.h"
#include "libtb/TbTypes.h"

enum HidTreeItemType {
    HidTreeItem_Collection = 0,
    HidTreeItem_Report = 1
};

enum HidReportType {
    HidReportType_Input = 0,
    HidReportType_Output = 1,
    HidReportType_Feature = 2
};

// Global item state (Usage Page ... Report Count), copied on Push.
struct HidReportDescriptorGlobal {
    T_UINT32 mUsagePage;
    T_INT32 mLogicalMinimum;
    T_INT32 mLogicalMaximum;
    T_INT32 mPhysicalMinimum;
    T_INT32 mPhysicalMaximum;
    T_INT32 mUnitExponent;
    T_UINT32 mUnit;
    T_UINT32 mReportId;
    T_UINT32 mReportSize;   // bits per field
    T_UINT32 mReportCount;
};

// One Push.
struct HidReportDescriptorGlobalListEntry {
    TbDListEntry<HidReportDescriptorGlobalListEntry> mListEntry;
    HidReportDescriptorGlobal mGlobal;
};

// Local item state; cleared after every main item.
struct HidReportDescriptorLocal {
    T_UINT32 mUsageIndex;
    T_UINT32 mUsageMinimum;
    T_UINT32 mDelimiterDepth;
    T_UINT32 mDelimiterBranch;
};

struct HidCollection;

// Common head of a collection and of a report item; the type says which one
// contains it.
struct HidTreeItem {
    HidTreeItem(HidTreeItemType type, HidCollection* parent) : mType(type), mParentCollection(parent) {}

    TbDListEntry<HidTreeItem> mListEntry;
    HidTreeItemType mType;
    HidCollection* mParentCollection;  // null for the top collection
};

struct HidCollection {
    HidCollection(HidCollection* parent, T_UINT32 type) : mItem(HidTreeItem_Collection, parent), mType(type) {}

    // The collection whose mItem item is (item->mType == HidTreeItem_Collection).
    static HidCollection* FromItem(HidTreeItem* item) { return reinterpret_cast<HidCollection*>(item); }
    static const HidCollection* FromItem(const HidTreeItem* item)
    {
        return reinterpret_cast<const HidCollection*>(item);
    }

    HidTreeItem mItem;  // must stay the first member (FromItem)
    TbDListX<HidTreeItem, &HidTreeItem::mListEntry> mSubItemList;  // sub-collections and report items, in order
    T_UINT32 mType;     // e.g. 1 application; 0 for the top collection
};

// A leaf: one Input, Output or Feature main item with the global state that
// was current when it was read.
struct HidReportItem {
    HidReportItem(HidCollection* parent, HidReportType reportType, const HidReportDescriptorGlobal& global)
        : mItem(HidTreeItem_Report, parent), mReportType(reportType), mGlobal(global)
    {
    }

    static HidReportItem* FromItem(HidTreeItem* item) { return reinterpret_cast<HidReportItem*>(item); }
    static const HidReportItem* FromItem(const HidTreeItem* item)
    {
        return reinterpret_cast<const HidReportItem*>(item);
    }

    HidTreeItem mItem;  // must stay the first member (FromItem)
    HidReportType mReportType;
    HidReportDescriptorGlobal mGlobal;
};

// The accumulated length of one (type, report ID).
struct HidReport {
    HidReport(HidReportType type, T_UINT32 id) : mType(type), mId(id), mSize(0) {}

    TbDListEntry<HidReport> mListEntry;
    HidReportType mType;
    T_UINT32 mId;    // 0 for unnumbered reports
    T_UINT32 mSize;  // bits, without the report ID byte
};

// FromItem() converts between a struct and its first member.
static_assert(std::is_standard_layout<HidCollection>::value, "HidCollection must be standard-layout");
static_assert(std::is_standard_layout<HidReportItem>::value, "HidReportItem must be standard-layout");
