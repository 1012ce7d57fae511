// Walks a HID report descriptor and answers what the hidraw device interface
// needs to know: the longest input and output report and whether input
// reports carry a report ID. Usages are traced, not interpreted.
//
// The descriptor comes from the device and is treated as hostile: the parser
// reads no byte outside [descriptor, descriptor + size), its work is bounded
// by the descriptor's length, and freeing the tree does not recurse.
#pragma once

#include "liblinux/HidReportDescriptorItems.h"
#include "libtb/TbDList.h"
#include "libtb/TbTypes.h"

class HidReportDescriptorParser {
public:
    // The bytes are borrowed and must outlive Parse() and the tree.
    HidReportDescriptorParser(T_UINT8* descriptor, unsigned size);
    ~HidReportDescriptorParser();
    HidReportDescriptorParser(const HidReportDescriptorParser&) = delete;
    HidReportDescriptorParser& operator=(const HidReportDescriptorParser&) = delete;

    // Free(), then parse the whole descriptor; false at the first invalid
    // item, with what was built so far kept for the queries.
    bool Parse();
    // Frees tree, reports and stack and resets the state; safe to repeat.
    void Free();

    HidReport* LookupHidReport(HidReportType type, unsigned id);
    // Largest accumulated size in bits over the reports of that type; 0 when none.
    T_UINT32 GetMaxReportSize(HidReportType type);
    // Whole bytes, without the report ID byte.
    T_UINT32 MaxInputReportByteLength();
    T_UINT32 MaxOutputReportByteLength();
    bool IsNumberedInputReport();
    // Sum of Report Size x Report Count over the report items of that type and
    // ID in collection and all collections below it; 0 for a null collection.
    T_UINT32 GetReportLengthInBitForCollection(HidCollection* collection, HidReportType type, unsigned id);

    // Root of the collection tree (it has no Collection item of its own).
    HidCollection* TopCollection() { return &mTopCollection; }
    // The global state items are currently applied to.
    const HidReportDescriptorGlobal& CurrentGlobal() const { return *mCurrentGlobal; }

    static const char* GetUsagePageStr(unsigned page);
    // Little-endian item data; bSize 3 means four bytes.
    static T_UINT32 GetUnsignedData(unsigned bSize, const T_UINT8* data);
    // As GetUnsignedData, but two bytes are sign-extended. One byte is
    // zero-extended on purpose: existing descriptors write a minimum of 0x81
    // meaning 129.
    static T_INT32 GetSignedData(unsigned bSize, const T_UINT8* data);

    // Called for every usage; records nothing (no usage list is kept).
    void AddUsage(unsigned usage);

    // Usage Minimum/Maximum ranges are handed to AddUsage only up to this many
    // usages per Usage Maximum item; see ParseLocalItem.
    static constexpr T_UINT32 cMaxUsagesPerRange = 256;

private:
    // data points at four readable bytes (zero-padded past the descriptor's end).
    bool ParseMainItem(unsigned bTag, unsigned bSize, const T_UINT8* data);
    bool ParseGlobalItem(unsigned bTag, unsigned bSize, const T_UINT8* data);
    bool ParseLocalItem(unsigned bTag, unsigned bSize, const T_UINT8* data);

    bool AddReportItem(HidReportType type);
    void FreeTree();

    T_UINT8* mDescriptorBuffer;
    T_UINT8* mDescriptorBufferLimit;
    T_UINT32 mDescriptorSize;
    HidReportDescriptorLocal mLocal;
    HidReportDescriptorGlobal* mCurrentGlobal;
    HidReportDescriptorGlobal mDefaultGlobal;
    TbDListX<HidReportDescriptorGlobalListEntry, &HidReportDescriptorGlobalListEntry::mListEntry> mGlobalStack;
    HidCollection mTopCollection;
    HidCollection* mCurrentCollection;
    TbDListX<HidReport, &HidReport::mListEntry> mReportList;
};
