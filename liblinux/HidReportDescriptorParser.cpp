#include "liblinux/HidReportDescriptorParser.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "libposix/PxTrace.h"

namespace {

enum ItemType { ItemType_Main = 0, ItemType_Global = 1, ItemType_Local = 2, ItemType_Long = 3 };

enum MainTag {
    MainTag_Input = 8,
    MainTag_Output = 9,
    MainTag_Collection = 10,
    MainTag_Feature = 11,
    MainTag_EndCollection = 12
};

enum GlobalTag {
    GlobalTag_UsagePage = 0,
    GlobalTag_LogicalMinimum = 1,
    GlobalTag_LogicalMaximum = 2,
    GlobalTag_PhysicalMinimum = 3,
    GlobalTag_PhysicalMaximum = 4,
    GlobalTag_UnitExponent = 5,
    GlobalTag_Unit = 6,
    GlobalTag_ReportSize = 7,
    GlobalTag_ReportId = 8,
    GlobalTag_ReportCount = 9,
    GlobalTag_Push = 10,
    GlobalTag_Pop = 11
};

enum LocalTag { LocalTag_Usage = 0, LocalTag_UsageMinimum = 1, LocalTag_UsageMaximum = 2 };

const unsigned cLongItemTag = 15;
const unsigned cMaxReportSize = 32;

} // namespace

HidReportDescriptorParser::HidReportDescriptorParser(T_UINT8* descriptor, unsigned size)
    : mDescriptorBuffer(descriptor),
      mDescriptorBufferLimit(descriptor + size),
      mDescriptorSize(size),
      mLocal(),
      mCurrentGlobal(&mDefaultGlobal),
      mDefaultGlobal(),
      mTopCollection(nullptr, 0),
      mCurrentCollection(&mTopCollection)
{
}

HidReportDescriptorParser::~HidReportDescriptorParser()
{
    Free();
}

void HidReportDescriptorParser::FreeTree()
{
    // Depth first without recursion: a descriptor of 4 KiB can nest a few
    // thousand collections. A sub-collection is unlinked from its parent when
    // we descend into it and deleted once it is empty, then the walk goes on
    // in the parent.
    HidCollection* collection = &mTopCollection;
    while (collection != nullptr) {
        HidTreeItem* item = collection->mSubItemList.RemoveHead();
        if (item == nullptr) {
            if (collection == &mTopCollection)
                break;
            HidCollection* parent = collection->mItem.mParentCollection;
            delete collection;
            collection = parent;
        } else if (item->mType == HidTreeItem_Collection) {
            collection = HidCollection::FromItem(item);
        } else {
            delete HidReportItem::FromItem(item);
        }
    }
}

void HidReportDescriptorParser::Free()
{
    FreeTree();
    for (HidReport* report = mReportList.RemoveHead(); report != nullptr; report = mReportList.RemoveHead())
        delete report;
    for (HidReportDescriptorGlobalListEntry* entry = mGlobalStack.RemoveHead(); entry != nullptr;
         entry = mGlobalStack.RemoveHead())
        delete entry;
    std::memset(&mDefaultGlobal, 0, sizeof(mDefaultGlobal));
    std::memset(&mLocal, 0, sizeof(mLocal));
    mCurrentGlobal = &mDefaultGlobal;
    mTopCollection.mItem.mParentCollection = nullptr;
    mTopCollection.mType = 0;
    mCurrentCollection = &mTopCollection;
}

bool HidReportDescriptorParser::Parse()
{
    Free();
    if (mDescriptorBuffer == nullptr || mDescriptorBuffer >= mDescriptorBufferLimit)
        return true;

    // Positions are offsets, so that a length announced by the descriptor
    // never forms a pointer beyond the buffer.
    const size_t size = mDescriptorSize;
    size_t pos = 0;
    for (;;) {
        const T_UINT8 prefix = mDescriptorBuffer[pos];
        const unsigned bSize = prefix & 3;
        const unsigned bType = (prefix >> 2) & 3;
        const unsigned bTag = prefix >> 4;

        if (pos + 1 + bSize > size) {
            PXTRACE_ERROR("%s: invalid item size:%u\n", 1 + bSize);
            return false;
        }

        // A 4-byte item (bSize 3) occupies three data bytes but is decoded
        // from four, so the decoders may look one byte beyond the item. They
        // work on this copy: the bytes that are inside the descriptor, zeros
        // for those past its end.
        T_UINT8 data[4] = {0, 0, 0, 0};
        const size_t available = size - (pos + 1);
        std::memcpy(data, mDescriptorBuffer + pos + 1, available < sizeof(data) ? available : sizeof(data));

        size_t itemLength = 1 + bSize;
        switch (bType) {
        case ItemType_Main:
            PXTRACE_VERBOSE("%s: short item: main (bSize:%u bTag:0x%02x)\n", bSize, bTag);
            if (!ParseMainItem(bTag, bSize, data)) {
                PXTRACE_ERROR("%s: ParseMainItem failed (bTag:0x%02x)\n", bTag);
                return false;
            }
            break;
        case ItemType_Global:
            PXTRACE_VERBOSE("%s: short item: global (bSize:%u bTag:0x%02x)\n", bSize, bTag);
            if (!ParseGlobalItem(bTag, bSize, data)) {
                PXTRACE_ERROR("%s: ParseGlobalItem failed (bTag:0x%02x)\n", bTag);
                return false;
            }
            break;
        case ItemType_Local:
            PXTRACE_VERBOSE("%s: short item: locale (bSize:%u bTag:0x%02x)\n", bSize, bTag);
            if (!ParseLocalItem(bTag, bSize, data)) {
                PXTRACE_ERROR("%s: ParseLocalItem failed (bTag:0x%02x)\n", bTag);
                return false;
            }
            break;
        default: {
            PXTRACE_VERBOSE("%s: long item: main (bSize:%u bTag:0x%02x)\n", bSize, bTag);
            if (bSize != 2) {
                PXTRACE_ERROR("%s: invalid bSize:0x%02x\n", bSize);
                return false;
            }
            if (bTag != cLongItemTag) {
                PXTRACE_ERROR("%s: invalid bTag:0x%02x\n", bTag);
                return false;
            }
            // bSize 2 was checked against the end above: both bytes are real.
            const unsigned bDataSize = data[0];
            const unsigned bLongItemTag = data[1];
            PXTRACE_ERROR("%s: long item: bDataSize:%u bLongItemTag:0x%02x\n", bDataSize, bLongItemTag);
            // No long item is defined; its data is skipped unread, also when
            // it claims more bytes than are left.
            itemLength = 3 + bDataSize;
            break;
        }
        }

        pos += itemLength;
        if (pos >= size)
            return true;
    }
}

T_UINT32 HidReportDescriptorParser::GetUnsignedData(unsigned bSize, const T_UINT8* data)
{
    switch (bSize) {
    case 0:
        return 0;
    case 1:
        return data[0];
    case 2:
        return static_cast<T_UINT32>(data[0]) | (static_cast<T_UINT32>(data[1]) << 8);
    default:
        return static_cast<T_UINT32>(data[0]) | (static_cast<T_UINT32>(data[1]) << 8) |
               (static_cast<T_UINT32>(data[2]) << 16) | (static_cast<T_UINT32>(data[3]) << 24);
    }
}

T_INT32 HidReportDescriptorParser::GetSignedData(unsigned bSize, const T_UINT8* data)
{
    switch (bSize) {
    case 0:
        return 0;
    case 1:
        return data[0];
    case 2:
        return static_cast<T_INT16>(GetUnsignedData(2, data));
    default:
        return static_cast<T_INT32>(GetUnsignedData(3, data));
    }
}

void HidReportDescriptorParser::AddUsage(unsigned usage)
{
    (void)usage;
}

bool HidReportDescriptorParser::AddReportItem(HidReportType type)
{
    HidReport* report = LookupHidReport(type, mCurrentGlobal->mReportId);
    if (report == nullptr) {
        report = new (std::nothrow) HidReport(type, mCurrentGlobal->mReportId);
        if (report == nullptr)
            return false;
        mReportList.InsertTail(report);
    }
    HidReportItem* item = new (std::nothrow) HidReportItem(mCurrentCollection, type, *mCurrentGlobal);
    if (item == nullptr)
        return false;
    // Lengths wrap modulo 2^32 for absurd counts; the device object refuses
    // such report lengths.
    report->mSize += mCurrentGlobal->mReportCount * mCurrentGlobal->mReportSize;
    mCurrentCollection->mSubItemList.InsertTail(&item->mItem);
    return true;
}

bool HidReportDescriptorParser::ParseMainItem(unsigned bTag, unsigned bSize, const T_UINT8* data)
{
    const HidReportDescriptorGlobal& g = *mCurrentGlobal;
    switch (bTag) {
    case MainTag_Input:
        PXTRACE_VERBOSE("%s: new input report (id:%u size:%u count:%u)\n", g.mReportId, g.mReportSize,
                        g.mReportCount);
        if (!AddReportItem(HidReportType_Input))
            return false;
        break;
    case MainTag_Output:
        PXTRACE_VERBOSE("%s: new output report (id:%u size:%u count:%u)\n", g.mReportId, g.mReportSize,
                        g.mReportCount);
        if (!AddReportItem(HidReportType_Output))
            return false;
        break;
    case MainTag_Feature:
        PXTRACE_VERBOSE("%s: new feature report (id:%u size:%u count:%u)\n", g.mReportId, g.mReportSize,
                        g.mReportCount);
        if (!AddReportItem(HidReportType_Feature))
            return false;
        break;
    case MainTag_Collection: {
        const T_UINT32 type = bSize > 0 ? data[0] : 0;
        HidCollection* collection = new (std::nothrow) HidCollection(mCurrentCollection, type);
        if (collection == nullptr)
            return false;
        mCurrentCollection->mSubItemList.InsertTail(&collection->mItem);
        mCurrentCollection = collection;
        break;
    }
    case MainTag_EndCollection:
        if (mCurrentCollection->mItem.mParentCollection == nullptr) {
            PXTRACE_ERROR("%s: collection underflow\n");
            return false;
        }
        mCurrentCollection = mCurrentCollection->mItem.mParentCollection;
        break;
    default:
        break;
    }
    std::memset(&mLocal, 0, sizeof(mLocal));
    return true;
}

bool HidReportDescriptorParser::ParseGlobalItem(unsigned bTag, unsigned bSize, const T_UINT8* data)
{
    HidReportDescriptorGlobal& g = *mCurrentGlobal;
    switch (bTag) {
    case GlobalTag_UsagePage:
        g.mUsagePage = GetUnsignedData(bSize, data);
        PXTRACE_VERBOSE("%s: usage page:%u '%s'\n", g.mUsagePage, GetUsagePageStr(g.mUsagePage));
        break;
    case GlobalTag_LogicalMinimum:
        g.mLogicalMinimum = GetSignedData(bSize, data);
        PXTRACE_VERBOSE("%s: logical minimum:%d\n", g.mLogicalMinimum);
        break;
    case GlobalTag_LogicalMaximum:
        g.mLogicalMaximum = g.mLogicalMinimum < 0 ? GetSignedData(bSize, data)
                                                  : static_cast<T_INT32>(GetUnsignedData(bSize, data));
        PXTRACE_VERBOSE("%s: logical maximum:%d\n", g.mLogicalMaximum);
        break;
    case GlobalTag_PhysicalMinimum:
        g.mPhysicalMinimum = GetSignedData(bSize, data);
        PXTRACE_VERBOSE("%s: physical minimum:%d\n", g.mPhysicalMinimum);
        break;
    case GlobalTag_PhysicalMaximum:
        g.mPhysicalMaximum = g.mPhysicalMinimum < 0 ? GetSignedData(bSize, data)
                                                    : static_cast<T_INT32>(GetUnsignedData(bSize, data));
        PXTRACE_VERBOSE("%s: physical maximum:%d\n", g.mPhysicalMaximum);
        break;
    case GlobalTag_UnitExponent:
        g.mUnitExponent = GetSignedData(bSize, data);
        PXTRACE_VERBOSE("%s: unit exponent:%d\n", g.mUnitExponent);
        break;
    case GlobalTag_Unit:
        g.mUnit = GetUnsignedData(bSize, data);
        PXTRACE_VERBOSE("%s: unit:%u\n", g.mUnit);
        break;
    case GlobalTag_ReportSize:
        g.mReportSize = GetUnsignedData(bSize, data);
        PXTRACE_VERBOSE("%s: report size:%u\n", g.mReportSize);
        if (g.mReportSize > cMaxReportSize) {
            PXTRACE_ERROR("%s: invalid report size:%u\n", g.mReportSize);
            return false;
        }
        break;
    case GlobalTag_ReportId: {
        const T_UINT32 id = GetUnsignedData(bSize, data);
        PXTRACE_VERBOSE("%s: report id:%u\n", id);
        if (id == 0) {
            PXTRACE_ERROR("%s: invalid report id:0\n");
            return false;
        }
        g.mReportId = id;
        break;
    }
    case GlobalTag_ReportCount:
        g.mReportCount = GetUnsignedData(bSize, data);
        PXTRACE_VERBOSE("%s: report count:%u\n", g.mReportCount);
        break;
    case GlobalTag_Push: {
        PXTRACE_VERBOSE("%s: push\n");
        // No depth limit: each Push costs one item byte and one small node.
        HidReportDescriptorGlobalListEntry* entry = new (std::nothrow) HidReportDescriptorGlobalListEntry;
        if (entry == nullptr)
            return false;
        entry->mGlobal = *mCurrentGlobal;
        mGlobalStack.InsertTail(entry);
        mCurrentGlobal = &entry->mGlobal;
        break;
    }
    case GlobalTag_Pop: {
        PXTRACE_VERBOSE("%s: pop\n");
        HidReportDescriptorGlobalListEntry* entry = mGlobalStack.RemoveTail();
        if (entry == nullptr) {
            PXTRACE_ERROR("%s: stack underflow\n");
            return false;
        }
        delete entry;
        HidReportDescriptorGlobalListEntry* top = mGlobalStack.Tail();
        mCurrentGlobal = top != nullptr ? &top->mGlobal : &mDefaultGlobal;
        break;
    }
    default:
        break;
    }
    return true;
}

bool HidReportDescriptorParser::ParseLocalItem(unsigned bTag, unsigned bSize, const T_UINT8* data)
{
    const T_UINT32 raw = GetUnsignedData(bSize, data);
    // A 4-byte usage carries its own page in the upper half.
    const T_UINT32 usage = bSize == 3 ? raw : ((mCurrentGlobal->mUsagePage << 16) | raw);
    switch (bTag) {
    case LocalTag_Usage:
        PXTRACE_VERBOSE("%s: page:%u usage:%u\n", mCurrentGlobal->mUsagePage, raw);
        AddUsage(usage);
        break;
    case LocalTag_UsageMinimum:
        PXTRACE_VERBOSE("%s: page:%u usage minimum:%u\n", mCurrentGlobal->mUsagePage, raw);
        mLocal.mUsageMinimum = usage;
        break;
    case LocalTag_UsageMaximum: {
        PXTRACE_VERBOSE("%s: page:%u usage maximum:%u\n", mCurrentGlobal->mUsagePage, raw);
        // Every usage from the minimum up to (not including) the maximum goes
        // to AddUsage. A range may span 2^32 usages, the minimum stays in
        // force until the next main item, and a 4 KiB descriptor holds
        // about two thousand Usage Maximum items: walking whole ranges would
        // let a device stall the open for hours. AddUsage records nothing, so
        // how many of its calls are made cannot be observed; the walk is
        // capped to keep the parse linear in the descriptor's length. Should
        // AddUsage ever record usages, keep the range as a pair instead of
        // widening this loop.
        T_UINT32 count = usage > mLocal.mUsageMinimum ? usage - mLocal.mUsageMinimum : 0;
        if (count > cMaxUsagesPerRange)
            count = cMaxUsagesPerRange;
        for (T_UINT32 i = 0; i < count; ++i)
            AddUsage(mLocal.mUsageMinimum + i);
        break;
    }
    default:
        break;
    }
    return true;
}

HidReport* HidReportDescriptorParser::LookupHidReport(HidReportType type, unsigned id)
{
    for (HidReport* report = mReportList.Head(); report != nullptr; report = mReportList.Next(report)) {
        if (report->mType == type && report->mId == id)
            return report;
    }
    return nullptr;
}

T_UINT32 HidReportDescriptorParser::GetMaxReportSize(HidReportType type)
{
    T_UINT32 maxSize = 0;
    for (HidReport* report = mReportList.Head(); report != nullptr; report = mReportList.Next(report)) {
        if (report->mType == type && report->mSize > maxSize)
            maxSize = report->mSize;
    }
    return maxSize;
}

T_UINT32 HidReportDescriptorParser::MaxInputReportByteLength()
{
    return (GetMaxReportSize(HidReportType_Input) + 7) / 8;
}

T_UINT32 HidReportDescriptorParser::MaxOutputReportByteLength()
{
    return (GetMaxReportSize(HidReportType_Output) + 7) / 8;
}

bool HidReportDescriptorParser::IsNumberedInputReport()
{
    for (HidReport* report = mReportList.Head(); report != nullptr; report = mReportList.Next(report)) {
        if (report->mType == HidReportType_Input && report->mId != 0)
            return true;
    }
    return false;
}

T_UINT32 HidReportDescriptorParser::GetReportLengthInBitForCollection(HidCollection* collection, HidReportType type,
                                                                       unsigned id)
{
    if (collection == nullptr)
        return 0;
    // Pre-order walk of the subtree with the parent links instead of
    // recursion (collections may nest thousands deep).
    T_UINT32 bits = 0;
    HidCollection* current = collection;
    HidTreeItem* item = current->mSubItemList.Head();
    for (;;) {
        while (item == nullptr) {
            if (current == collection)
                return bits;
            HidCollection* parent = current->mItem.mParentCollection;
            item = parent->mSubItemList.Next(&current->mItem);
            current = parent;
        }
        if (item->mType == HidTreeItem_Collection) {
            current = HidCollection::FromItem(item);
            item = current->mSubItemList.Head();
            continue;
        }
        const HidReportItem* report = HidReportItem::FromItem(item);
        if (report->mReportType == type && report->mGlobal.mReportId == id)
            bits += report->mGlobal.mReportSize * report->mGlobal.mReportCount;
        item = current->mSubItemList.Next(item);
    }
}

const char* HidReportDescriptorParser::GetUsagePageStr(unsigned page)
{
    switch (page) {
    case 0x00: return "Undefined";
    case 0x01: return "Generic Desktop";
    case 0x02: return "Simulation";
    case 0x03: return "VR";
    case 0x04: return "Sport";
    case 0x05: return "Game";
    case 0x06: return "Generic Device";
    case 0x07: return "Keyboard";
    case 0x08: return "LED";
    case 0x09: return "Button";
    case 0x0A: return "Ordinal";
    case 0x0B: return "Telephony";
    case 0x0C: return "Consumer";
    case 0x0D: return "Digitizer";
    case 0x0F: return "PID";
    case 0x10: return "Unicode";
    case 0x14: return "Alphanumeric Display";
    case 0x40: return "Medical Instruments";
    case 0x80: case 0x81: case 0x82: case 0x83: return "Monitor";
    case 0x84: case 0x85: case 0x86: case 0x87: return "Power";
    case 0x8C: return "Bar Code Scanner";
    case 0x8D: return "Scale";
    case 0x8E: return "Magnetic Stripe Reading (MSR)";
    case 0x8F: return "Reserved Point of Sale";
    case 0x90: return "Camera Control";
    case 0x91: return "Arcade";
    default: break;
    }
    if (page >= 0x10000)
        return "invalid";
    if (page >= 0xFF00)
        return "vendor specific";
    return "reserved";
}
