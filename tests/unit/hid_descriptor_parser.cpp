// HID report descriptor parser: report lengths and numbering, the item walk
// and its failures, item data decoding, push/pop, the collection tree, and
// descriptors built to hurt (huge usage ranges, items cut at the very end of
// the buffer, thousands of pushes and nested collections).
//
// Every descriptor is parsed from a heap buffer of exactly its size, so an
// ASan build reports any read beyond the descriptor.
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "liblinux/HidReportDescriptorParser.h"
#include "support/test_support.h"

using ktest::CaptureTrace;
using ktest::CountOf;
using ktest::TraceMaskGuard;

namespace {

typedef std::vector<T_UINT8> Bytes;

const std::string kParse = "bool HidReportDescriptorParser::Parse()";
const std::string kMain = "bool HidReportDescriptorParser::ParseMainItem(unsigned int, unsigned int, const T_UINT8*)";
const std::string kGlobal =
    "bool HidReportDescriptorParser::ParseGlobalItem(unsigned int, unsigned int, const T_UINT8*)";
const std::string kLocal = "bool HidReportDescriptorParser::ParseLocalItem(unsigned int, unsigned int, const T_UINT8*)";

// A descriptor in its own exactly sized heap block, and a parser over it.
class Descriptor {
public:
    explicit Descriptor(const Bytes& bytes)
        : mBytes(new T_UINT8[bytes.size()]), mSize(static_cast<unsigned>(bytes.size())), mParser(mBytes.get(), mSize)
    {
        std::copy(bytes.begin(), bytes.end(), mBytes.get());
    }
    HidReportDescriptorParser& operator*() { return mParser; }
    HidReportDescriptorParser* operator->() { return &mParser; }

private:
    std::unique_ptr<T_UINT8[]> mBytes;
    unsigned mSize;
    HidReportDescriptorParser mParser;
};

Bytes Cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Short items.
Bytes ReportSize(T_UINT8 bits) { return {0x75, bits}; }
Bytes ReportCount(T_UINT8 n) { return {0x95, n}; }
Bytes ReportId(T_UINT8 id) { return {0x85, id}; }
Bytes Input() { return {0x81, 0x02}; }
Bytes Output() { return {0x91, 0x02}; }
Bytes Feature() { return {0xB1, 0x02}; }
Bytes Collection(T_UINT8 type) { return {0xA1, type}; }
Bytes EndCollection() { return {0xC0}; }
Bytes Push() { return {0xA4}; }
Bytes Pop() { return {0xB4}; }

// Fields of bits each, count of them, as one Input item.
Bytes InputBits(T_UINT8 bits, T_UINT8 count) { return Cat({ReportSize(bits), ReportCount(count), Input()}); }

// The items directly inside c, in order.
std::vector<HidTreeItem*> Children(HidCollection* c)
{
    std::vector<HidTreeItem*> items;
    for (HidTreeItem* i = c->mSubItemList.Head(); i != nullptr; i = c->mSubItemList.Next(i))
        items.push_back(i);
    return items;
}

// Their kinds: 'C' collection, 'R' report.
std::string Kinds(HidCollection* c)
{
    std::string kinds;
    for (HidTreeItem* i : Children(c))
        kinds += i->mType == HidTreeItem_Collection ? 'C' : i->mType == HidTreeItem_Report ? 'R' : '?';
    return kinds;
}

class ParserTest : public ::testing::Test {
protected:
    // Quiet by default; tests that check trace lines capture with their own mask.
    TraceMaskGuard mMask{0};
};

} // namespace

// ---- Report lengths and numbering --------------------------------------

TEST_F(ParserTest, EmptyDescriptorParsesWithNoReports)
{
    Descriptor d(Bytes{});
    EXPECT_TRUE(d->Parse());
    EXPECT_EQ(0u, d->MaxInputReportByteLength());
    EXPECT_EQ(0u, d->MaxOutputReportByteLength());
    EXPECT_EQ(0u, d->GetMaxReportSize(HidReportType_Feature));
    EXPECT_FALSE(d->IsNumberedInputReport());
    EXPECT_EQ(nullptr, d->LookupHidReport(HidReportType_Input, 0));

    HidReportDescriptorParser nullParser(nullptr, 0);
    EXPECT_TRUE(nullParser.Parse());
    EXPECT_EQ(0u, nullParser.MaxInputReportByteLength());
}

TEST_F(ParserTest, ByteLengthsAndNumbering)
{
    struct {
        Bytes bytes;
        unsigned in, out;
        bool numbered;
    } const cases[] = {
        {InputBits(8, 64), 64, 0, false},
        {Cat({ReportId(1), InputBits(8, 63)}), 63, 0, true}, // the ID byte is not counted
        {Cat({InputBits(12, 3), ReportSize(1), ReportCount(9), Output()}), 5, 2, false}, // bits round up
        // A numbered output report leaves input unnumbered.
        {Cat({InputBits(8, 4), ReportId(7), ReportSize(8), ReportCount(4), Output()}), 4, 4, false},
        {InputBits(32, 2), 8, 0, false},                                   // the widest field there is
        {Cat({Collection(1), Collection(2), InputBits(8, 3)}), 3, 0, false}, // no End Collection: accepted
    };
    for (const auto& c : cases) {
        Descriptor d(c.bytes);
        ASSERT_TRUE(d->Parse());
        EXPECT_EQ(c.in, d->MaxInputReportByteLength()) << c.in;
        EXPECT_EQ(c.out, d->MaxOutputReportByteLength()) << c.in;
        EXPECT_EQ(c.numbered, d->IsNumberedInputReport()) << c.in;
        EXPECT_EQ(c.numbered, d->LookupHidReport(HidReportType_Input, 0) == nullptr) << c.in;
    }
    Descriptor d(InputBits(12, 3));
    ASSERT_TRUE(d->Parse());
    EXPECT_EQ(36u, d->GetMaxReportSize(HidReportType_Input));
    EXPECT_EQ(36u, d->LookupHidReport(HidReportType_Input, 0)->mSize);
}

TEST_F(ParserTest, ReportsAreKeptPerTypeAndId)
{
    Descriptor d(Cat({ReportId(1), InputBits(8, 10), InputBits(8, 5),  // 15 bytes in report 1
                      ReportId(2), InputBits(8, 20), Output(),          // 20 in, 20 out in report 2
                      ReportId(1), InputBits(8, 4),                     // report 1 comes back: 19
                      ReportId(3), InputBits(8, 100), Feature()}));     // feature never counts as input
    ASSERT_TRUE(d->Parse());
    HidReport* in1 = d->LookupHidReport(HidReportType_Input, 1);
    HidReport* in2 = d->LookupHidReport(HidReportType_Input, 2);
    HidReport* out2 = d->LookupHidReport(HidReportType_Output, 2);
    HidReport* feat3 = d->LookupHidReport(HidReportType_Feature, 3);
    ASSERT_TRUE(in1 && in2 && out2 && feat3);
    EXPECT_EQ(19u * 8, in1->mSize);
    EXPECT_EQ(20u * 8, in2->mSize);
    EXPECT_EQ(20u * 8, out2->mSize);
    EXPECT_EQ(100u * 8, feat3->mSize);
    EXPECT_EQ(100u, d->LookupHidReport(HidReportType_Input, 3)->mSize / 8);
    EXPECT_EQ(100u, d->MaxInputReportByteLength());
    EXPECT_EQ(20u, d->MaxOutputReportByteLength());
    EXPECT_EQ(nullptr, d->LookupHidReport(HidReportType_Output, 1));
    EXPECT_TRUE(d->IsNumberedInputReport());
}

// A failing item is named in the trace; what was built before it is still
// answered from, and the global state keeps what the item stored.
TEST_F(ParserTest, FailuresNameTheItemAndKeepWhatWasBuilt)
{
    const std::string idZero =
        kGlobal + ": invalid report id:0\n" + kParse + ": ParseGlobalItem failed (bTag:0x08)\n";
    const std::string cut = kParse + ": invalid item size:";
    struct {
        Bytes bytes;
        std::string trace;
        unsigned maxInput, reportSize;
    } const cases[] = {
        {Cat({InputBits(8, 2), Bytes{0x84}, InputBits(8, 3)}), idZero, 2, 8}, // report id 0 in every width
        {Cat({InputBits(8, 2), Bytes{0x85, 0x00}, InputBits(8, 3)}), idZero, 2, 8},
        {Cat({InputBits(8, 2), Bytes{0x86, 0x00, 0x00}, InputBits(8, 3)}), idZero, 2, 8},
        {Cat({InputBits(8, 1), ReportSize(33), Input()}),
         kGlobal + ": invalid report size:33\n" + kParse + ": ParseGlobalItem failed (bTag:0x07)\n", 1, 33},
        {{0x75}, cut + "2\n", 0, 0},                       // only the prefix of a 1-byte item
        {{0x95, 0x01, 0x76, 0x08}, cut + "3\n", 0, 0},     // 2-byte item, one byte left
        {Cat({InputBits(8, 8), Bytes{0x81}}), cut + "2\n", 8, 8},
        {{0x97, 0xAA, 0xBB}, cut + "4\n", 0, 0},           // 4-byte item one byte short
        {{0xFF, 0x00}, cut + "4\n", 0, 0},                 // long item prefix: the size check comes first
        {{0xFD, 0x00}, kParse + ": invalid bSize:0x01\n", 0, 0},  // long item tag with bSize 1
        {{0xEE, 0x00, 0x00}, kParse + ": invalid bTag:0x0e\n", 0, 0}, // type 3 with tag 14
        {Cat({InputBits(8, 3), Push(), Pop(), Pop(), InputBits(8, 9)}),
         kGlobal + ": stack underflow\n" + kParse + ": ParseGlobalItem failed (bTag:0x0b)\n", 3, 8},
        {Cat({Collection(1), EndCollection(), EndCollection()}),
         kMain + ": collection underflow\n" + kParse + ": ParseMainItem failed (bTag:0x0c)\n", 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "row " << (&c - cases) << ": " << c.trace);
        Descriptor d(c.bytes);
        EXPECT_EQ(c.trace, CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_FALSE(d->Parse()); }));
        EXPECT_EQ(c.maxInput, d->MaxInputReportByteLength());
        EXPECT_EQ(c.reportSize, d->CurrentGlobal().mReportSize);
    }
}

TEST_F(ParserTest, HugeCountsWrapModulo32BitsWithoutFailing)
{
    // 32 x 0xFFFFFFFF bits; the sum is kept in 32 bits and the device object
    // refuses what comes out.
    Descriptor d(Cat({ReportSize(32), Bytes{0x97, 0xFF, 0xFF, 0xFF}, Bytes{0x80}}));
    // Report Count bSize 3 decodes the following prefix byte (0x80, an Input
    // item without data) as its top byte.
    ASSERT_TRUE(d->Parse());
    const T_UINT32 count = 0x80FFFFFFu;
    const T_UINT32 bits = count * 32u;
    EXPECT_EQ(count, d->CurrentGlobal().mReportCount);
    EXPECT_EQ(bits, d->GetMaxReportSize(HidReportType_Input));
    EXPECT_EQ(static_cast<T_UINT32>(bits + 7u) / 8u, d->MaxInputReportByteLength());
}

// ---- Item data decoding -------------------------------------------------

TEST(ParserData, DecodersByItemSize)
{
    const T_UINT8 b[4] = {0xFE, 0xFF, 0x34, 0x92};
    EXPECT_EQ(0u, HidReportDescriptorParser::GetUnsignedData(0, b));
    EXPECT_EQ(0xFEu, HidReportDescriptorParser::GetUnsignedData(1, b));
    EXPECT_EQ(0xFFFEu, HidReportDescriptorParser::GetUnsignedData(2, b));
    EXPECT_EQ(0x9234FFFEu, HidReportDescriptorParser::GetUnsignedData(3, b));
    EXPECT_EQ(0, HidReportDescriptorParser::GetSignedData(0, b));
    EXPECT_EQ(254, HidReportDescriptorParser::GetSignedData(1, b)); // one byte is never negative
    EXPECT_EQ(-2, HidReportDescriptorParser::GetSignedData(2, b));
    EXPECT_EQ(static_cast<T_INT32>(0x9234FFFEu), HidReportDescriptorParser::GetSignedData(3, b));
    const T_UINT8 p[4] = {0x00, 0x7F, 0, 0};
    EXPECT_EQ(0x7F00, HidReportDescriptorParser::GetSignedData(2, p));
}

// The whole global state after each descriptor, and the input bits it built.
TEST_F(ParserTest, GlobalItemsDecodeBySizeAndSign)
{
    auto fields = [](const HidReportDescriptorGlobal& g) {
        return std::vector<long long>{g.mUsagePage,      g.mLogicalMinimum, g.mLogicalMaximum, g.mPhysicalMinimum,
                                      g.mPhysicalMaximum, g.mUnitExponent,   g.mUnit,           g.mReportId,
                                      g.mReportSize,      g.mReportCount};
    };
    struct {
        const char* what;
        Bytes bytes;
        std::vector<long long> global; // page, logical min/max, physical min/max, exponent, unit, id, size, count
        T_UINT32 inputBits;
    } const cases[] = {
        {"one-byte values are unsigned", {0x15, 0xFF, 0x25, 0x10, 0x35, 0x81, 0x55, 0xFE},
         {0, 255, 16, 129, 0, 254, 0, 0, 0, 0}, 0},
        // Logical maximum 0x8000 is signed after a negative minimum; physical, after minimum 0, is not.
        {"maximum signed after a negative minimum",
         {0x16, 0x01, 0x80, 0x26, 0x00, 0x80, 0x36, 0x00, 0x00, 0x46, 0x00, 0x80},
         {0, -32767, -32768, 0, 32768, 0, 0, 0, 0, 0}, 0},
        {"two-byte values", {0x36, 0xFF, 0xFF, 0x46, 0xFE, 0xFF, 0x65, 0x11, 0x06, 0x34, 0x12},
         {0x1234, 0, 0, -1, -2, 0, 0x11, 0, 0, 0}, 0},
        // bSize 3 advances three bytes but decodes four: the fourth is the
        // next item's prefix (0x75), which is then parsed as an item of its own.
        {"four-byte item", {0x97, 0x02, 0x00, 0x00, 0x75, 0x08, 0x81, 0x02},
         {0, 0, 0, 0, 0, 0, 0, 0, 8, 0x75000002}, 0x75000002u * 8u},
        // At the very end the missing fourth byte reads as zero, nothing beyond the descriptor.
        {"four-byte item at the end", Cat({InputBits(8, 4), Bytes{0x07, 0x01, 0x02, 0x03}}),
         {0x00030201, 0, 0, 0, 0, 0, 0, 0, 8, 4}, 32},
        {"four-byte item is the whole descriptor", {0x97, 0xAA, 0xBB, 0xCC},
         {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00CCBBAA}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        Descriptor d(c.bytes);
        ASSERT_TRUE(d->Parse());
        EXPECT_EQ(c.global, fields(d->CurrentGlobal()));
        EXPECT_EQ(c.inputBits, d->GetMaxReportSize(HidReportType_Input));
    }
}

// ---- The item walk and its failures ----------------------------------------

TEST_F(ParserTest, LongItemIsSkippedAndParsingGoesOn)
{
    Descriptor d(Cat({Bytes{0xFE, 0x03, 0x10, 0xAA, 0xBB, 0xCC}, InputBits(8, 3)}));
    std::string out = CaptureTrace(KARVEX_TRACE_ERROR | KARVEX_TRACE_VERBOSE, [&] { EXPECT_TRUE(d->Parse()); });
    EXPECT_EQ(0u, out.find(kParse + ": long item: main (bSize:2 bTag:0x0f)\n" + kParse +
                           ": long item: bDataSize:3 bLongItemTag:0x10\n"))
        << out;
    EXPECT_EQ(3u, d->MaxInputReportByteLength());

    // The data-size line belongs to the error class.
    Descriptor e(Bytes{0xFE, 0x00, 0x22});
    out = CaptureTrace(KARVEX_TRACE_ERROR, [&] { EXPECT_TRUE(e->Parse()); });
    EXPECT_EQ(kParse + ": long item: bDataSize:0 bLongItemTag:0x22\n", out);

    // More data announced than is left ends the descriptor, also with no data at all.
    Descriptor more(Cat({InputBits(8, 2), Bytes{0xFE, 0xFF, 0x01, 0x00, 0x00}}));
    EXPECT_TRUE(more->Parse());
    EXPECT_EQ(2u, more->MaxInputReportByteLength());
    Descriptor h(Bytes{0xFE, 0x10, 0x01});
    EXPECT_TRUE(h->Parse());
}

TEST_F(ParserTest, UnknownTagsAreAcceptedWithoutEffect)
{
    // Main tag 13, global tags 12 and 15, local tag 5 (designator index).
    Descriptor d(Cat({InputBits(8, 2), Bytes{0xD0, 0xC5, 0x01, 0xF4, 0x59, 0x03}, Input()}));
    ASSERT_TRUE(d->Parse());
    EXPECT_EQ(4u, d->MaxInputReportByteLength());
}

TEST_F(ParserTest, VerboseTraceOfEachItem)
{
    Descriptor d(Bytes{0x05, 0x01, 0x09, 0x02, 0x15, 0xFF, 0x85, 0x03, 0x75, 0x08, 0x95, 0x02, 0x81, 0x02,
                       0x19, 0x01, 0x29, 0x03, 0xA4, 0xB4, 0x91, 0x00, 0xB1, 0x00});
    std::string out = CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { EXPECT_TRUE(d->Parse()); });
    const std::string expected =
        kParse + ": short item: global (bSize:1 bTag:0x00)\n" +
        kGlobal + ": usage page:1 'Generic Desktop'\n" +
        kParse + ": short item: locale (bSize:1 bTag:0x00)\n" +
        kLocal + ": page:1 usage:2\n" +
        kParse + ": short item: global (bSize:1 bTag:0x01)\n" +
        kGlobal + ": logical minimum:255\n" +
        kParse + ": short item: global (bSize:1 bTag:0x08)\n" +
        kGlobal + ": report id:3\n" +
        kParse + ": short item: global (bSize:1 bTag:0x07)\n" +
        kGlobal + ": report size:8\n" +
        kParse + ": short item: global (bSize:1 bTag:0x09)\n" +
        kGlobal + ": report count:2\n" +
        kParse + ": short item: main (bSize:1 bTag:0x08)\n" +
        kMain + ": new input report (id:3 size:8 count:2)\n" +
        kParse + ": short item: locale (bSize:1 bTag:0x01)\n" +
        kLocal + ": page:1 usage minimum:1\n" +
        kParse + ": short item: locale (bSize:1 bTag:0x02)\n" +
        kLocal + ": page:1 usage maximum:3\n" +
        kParse + ": short item: global (bSize:0 bTag:0x0a)\n" +
        kGlobal + ": push\n" +
        kParse + ": short item: global (bSize:0 bTag:0x0b)\n" +
        kGlobal + ": pop\n" +
        kParse + ": short item: main (bSize:1 bTag:0x09)\n" +
        kMain + ": new output report (id:3 size:8 count:2)\n" +
        kParse + ": short item: main (bSize:1 bTag:0x0b)\n" +
        kMain + ": new feature report (id:3 size:8 count:2)\n";
    EXPECT_EQ(expected, out);

    // The remaining global traces, and usage ranges with their page; a 4-byte
    // usage is traced raw: 01 00 09 and the next prefix 00.
    Descriptor g(Bytes{0x25, 0x7F, 0x35, 0x02, 0x45, 0x09, 0x55, 0x0E, 0x65, 0x13, 0x05, 0x09, 0x19, 0x01, 0x2A,
                       0x00, 0x01, 0x0B, 0x01, 0x00, 0x09, 0x00});
    out = CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { EXPECT_TRUE(g->Parse()); });
    for (const std::string& line :
         {kGlobal + ": logical maximum:127\n", kGlobal + ": physical minimum:2\n", kGlobal + ": physical maximum:9\n",
          kGlobal + ": unit exponent:14\n", kGlobal + ": unit:19\n", kLocal + ": page:9 usage minimum:1\n",
          kLocal + ": page:9 usage maximum:256\n", kLocal + ": page:9 usage:589825\n"})
        EXPECT_NE(std::string::npos, out.find(line)) << line;
}

TEST_F(ParserTest, ReparseStartsFromScratch)
{
    Descriptor d(Cat({Push(), ReportId(2), InputBits(8, 6), Collection(1)}));
    ASSERT_TRUE(d->Parse());
    ASSERT_TRUE(d->Parse());
    EXPECT_EQ(6u, d->MaxInputReportByteLength());
    EXPECT_EQ(48u, d->LookupHidReport(HidReportType_Input, 2)->mSize);
    EXPECT_EQ(2u, Children(d->TopCollection()).size());
    d->Free();
    d->Free();
    EXPECT_EQ(0u, d->MaxInputReportByteLength());
    EXPECT_TRUE(d->TopCollection()->mSubItemList.IsEmpty());
    EXPECT_EQ(0u, d->CurrentGlobal().mReportId);
}

// ---- Push and Pop -------------------------------------------------------

TEST_F(ParserTest, PopRestoresTheStateBeforePush)
{
    Descriptor d(Cat({ReportId(1), ReportSize(8), ReportCount(4), Push(), ReportId(2), ReportSize(16),
                      ReportCount(10), Input(), Pop(), Input()}));
    ASSERT_TRUE(d->Parse());
    EXPECT_EQ(160u, d->LookupHidReport(HidReportType_Input, 2)->mSize);
    EXPECT_EQ(32u, d->LookupHidReport(HidReportType_Input, 1)->mSize);
    EXPECT_EQ(1u, d->CurrentGlobal().mReportId);
    EXPECT_EQ(8u, d->CurrentGlobal().mReportSize);
    EXPECT_EQ(4u, d->CurrentGlobal().mReportCount);

    // Nested pushes come back level by level.
    Descriptor one(Cat({ReportSize(1), Push(), ReportSize(2), Push(), ReportSize(3), Pop()}));
    ASSERT_TRUE(one->Parse());
    EXPECT_EQ(2u, one->CurrentGlobal().mReportSize);
    Descriptor two(Cat({ReportSize(1), Push(), ReportSize(2), Push(), ReportSize(3), Pop(), Pop()}));
    ASSERT_TRUE(two->Parse());
    EXPECT_EQ(1u, two->CurrentGlobal().mReportSize);
}

TEST_F(ParserTest, ThousandsOfPushesAreFreedWithoutTrouble)
{
    Bytes bytes = ReportSize(8);
    bytes.insert(bytes.end(), 4000, 0xA4);
    Bytes tail = Cat({ReportCount(7), Input()});
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    bytes.insert(bytes.end(), 60, 0xB4);
    {
        Descriptor d(bytes);
        ASSERT_TRUE(d->Parse());
        EXPECT_EQ(7u, d->MaxInputReportByteLength());
        EXPECT_EQ(8u, d->CurrentGlobal().mReportSize);
        ASSERT_TRUE(d->Parse()); // frees the first stack
    } // and the destructor the second
}

// ---- Collections --------------------------------------------------------

TEST_F(ParserTest, CollectionTreeFollowsTheDescriptor)
{
    // Application { in 16; Logical { in 24; out 32 } in 8 } ; feature 8 at top level
    Descriptor d(Cat({Collection(1), InputBits(8, 2), Collection(2), InputBits(8, 3), ReportCount(4), Output(),
                      EndCollection(), InputBits(8, 1), EndCollection(), Feature()}));
    ASSERT_TRUE(d->Parse());
    HidCollection* top = d->TopCollection();
    EXPECT_EQ(nullptr, top->mItem.mParentCollection);
    EXPECT_EQ(0u, top->mType);

    ASSERT_EQ("CR", Kinds(top));
    HidCollection* app = HidCollection::FromItem(Children(top)[0]);
    EXPECT_EQ(1u, app->mType);
    EXPECT_EQ(top, app->mItem.mParentCollection);
    EXPECT_EQ(HidReportType_Feature, HidReportItem::FromItem(Children(top)[1])->mReportType);

    // Inside the application collection: report, collection, report.
    ASSERT_EQ("RCR", Kinds(app));
    HidCollection* logical = HidCollection::FromItem(Children(app)[1]);
    EXPECT_EQ(2u, logical->mType);
    EXPECT_EQ(app, logical->mItem.mParentCollection);
    // The report item keeps the global state of its time.
    HidTreeItem* a0 = Children(app)[0];
    EXPECT_EQ(2u, HidReportItem::FromItem(a0)->mGlobal.mReportCount);
    EXPECT_EQ(app, a0->mParentCollection);

    EXPECT_EQ(48u, d->GetReportLengthInBitForCollection(top, HidReportType_Input, 0));
    EXPECT_EQ(48u, d->GetReportLengthInBitForCollection(app, HidReportType_Input, 0));
    EXPECT_EQ(24u, d->GetReportLengthInBitForCollection(logical, HidReportType_Input, 0));
    EXPECT_EQ(32u, d->GetReportLengthInBitForCollection(top, HidReportType_Output, 0));
    EXPECT_EQ(8u, d->GetReportLengthInBitForCollection(top, HidReportType_Feature, 0));
    EXPECT_EQ(0u, d->GetReportLengthInBitForCollection(app, HidReportType_Feature, 0));
    EXPECT_EQ(0u, d->GetReportLengthInBitForCollection(top, HidReportType_Input, 1));
    EXPECT_EQ(0u, d->GetReportLengthInBitForCollection(nullptr, HidReportType_Input, 0));
}

TEST_F(ParserTest, CollectionLengthsArePerReportId)
{
    Descriptor d(Cat({Collection(1), ReportId(1), InputBits(8, 2), Collection(0), ReportId(2), InputBits(8, 5),
                      ReportId(1), InputBits(4, 2), EndCollection(), EndCollection()}));
    ASSERT_TRUE(d->Parse());
    EXPECT_EQ(24u, d->GetReportLengthInBitForCollection(d->TopCollection(), HidReportType_Input, 1));
    EXPECT_EQ(40u, d->GetReportLengthInBitForCollection(d->TopCollection(), HidReportType_Input, 2));
    EXPECT_EQ(0u, d->GetReportLengthInBitForCollection(d->TopCollection(), HidReportType_Input, 0));
}

TEST_F(ParserTest, CollectionTypeComesFromTheFirstDataByte)
{
    Descriptor d(Bytes{0xA0, 0xC0, 0xA2, 0x05, 0x01, 0xC0});
    ASSERT_TRUE(d->Parse());
    ASSERT_EQ("CC", Kinds(d->TopCollection()));
    EXPECT_EQ(0u, HidCollection::FromItem(Children(d->TopCollection())[0])->mType);
    EXPECT_EQ(5u, HidCollection::FromItem(Children(d->TopCollection())[1])->mType);
}

TEST_F(ParserTest, DeeplyNestedCollectionsAreWalkedAndFreedIteratively)
{
    // 4000 nested one-byte Collection items and an Input at the bottom.
    Bytes bytes(4000, 0xA0);
    Bytes tail = InputBits(8, 2);
    bytes.insert(bytes.end(), tail.begin(), tail.end());
    {
        Descriptor d(bytes);
        ASSERT_TRUE(d->Parse());
        EXPECT_EQ(16u, d->GetReportLengthInBitForCollection(d->TopCollection(), HidReportType_Input, 0));
        // Depth check: follow the first child 4000 times.
        HidCollection* c = d->TopCollection();
        unsigned depth = 0;
        while (c->mSubItemList.Head() && c->mSubItemList.Head()->mType == HidTreeItem_Collection) {
            c = HidCollection::FromItem(c->mSubItemList.Head());
            ++depth;
        }
        EXPECT_EQ(4000u, depth);
        EXPECT_EQ(16u, d->GetReportLengthInBitForCollection(c, HidReportType_Input, 0));
    }

    // Balanced deep nesting with reports on every level and the way back up.
    Bytes balanced;
    for (int i = 0; i < 600; ++i) {
        Bytes b = Cat({Collection(1), Bytes{0x81, 0x00}});
        balanced.insert(balanced.end(), b.begin(), b.end());
    }
    balanced.insert(balanced.begin(), {0x75, 0x01, 0x95, 0x01});
    balanced.insert(balanced.end(), 600, 0xC0);
    Descriptor b(balanced);
    ASSERT_TRUE(b->Parse());
    EXPECT_EQ(600u, b->GetReportLengthInBitForCollection(b->TopCollection(), HidReportType_Input, 0));
    EXPECT_EQ(75u, b->MaxInputReportByteLength());
}

// ---- Usages ---------------------------------------------------------------

TEST_F(ParserTest, DescriptorsFullOfHugeUsageRangesParse)
{
    // Usage Page 0xFFFF makes a 2-byte Usage Maximum FFFF -> usage 0xFFFFFFFF.
    // 1) One minimum of 0 that stays in force, then a 4 KiB run of maxima.
    Bytes single = {0x06, 0xFF, 0xFF, 0x1B, 0x00, 0x00, 0x00}; // min (bSize 3) = next prefix << 24 = 0x2A000000
    while (single.size() + 3 <= 4095 - 6)
        single.insert(single.end(), {0x2A, 0xFF, 0xFF});
    Bytes in = InputBits(8, 1);
    single.insert(single.end(), in.begin(), in.end());
    while (single.size() < 4095)
        single.push_back(0xA4); // Push: one byte each
    ASSERT_EQ(4095u, single.size());
    Descriptor d(single);
    ASSERT_TRUE(d->Parse());
    EXPECT_EQ(1u, d->MaxInputReportByteLength());

    // 2) Minimum/maximum pairs: minimum 0 on page 0, maximum 0xFFFF on page
    //    0xFFFF; the last bytes are local items with an unused tag.
    Bytes pairs;
    while (pairs.size() + 10 <= 4095)
        pairs.insert(pairs.end(), {0x05, 0x00, 0x19, 0x00, 0x06, 0xFF, 0xFF, 0x2A, 0xFF, 0xFF});
    while (pairs.size() < 4095)
        pairs.push_back(0x58);
    Descriptor p(pairs);
    EXPECT_TRUE(p->Parse());
    EXPECT_EQ(0xFFFFu, p->CurrentGlobal().mUsagePage);

    // 3) The same with verbose tracing on (every item traced, still bounded).
    std::string out = CaptureTrace(KARVEX_TRACE_VERBOSE, [&] { EXPECT_TRUE(p->Parse()); });
    EXPECT_EQ(4095u / 10, CountOf(out, ": page:65535 usage maximum:65535\n"));
}

TEST(ParserUsagePages, Names)
{
    struct {
        unsigned page;
        const char* name;
    } const cases[] = {
        {0x00, "Undefined"}, {0x01, "Generic Desktop"}, {0x02, "Simulation"}, {0x03, "VR"}, {0x04, "Sport"},
        {0x05, "Game"}, {0x06, "Generic Device"}, {0x07, "Keyboard"}, {0x08, "LED"}, {0x09, "Button"},
        {0x0A, "Ordinal"}, {0x0B, "Telephony"}, {0x0C, "Consumer"}, {0x0D, "Digitizer"}, {0x0E, "reserved"},
        {0x0F, "PID"}, {0x10, "Unicode"}, {0x11, "reserved"}, {0x13, "reserved"},
        {0x14, "Alphanumeric Display"}, {0x15, "reserved"}, {0x3F, "reserved"}, {0x40, "Medical Instruments"},
        {0x41, "reserved"}, {0x7F, "reserved"}, {0x80, "Monitor"}, {0x83, "Monitor"}, {0x84, "Power"},
        {0x87, "Power"}, {0x88, "reserved"}, {0x8B, "reserved"}, {0x8C, "Bar Code Scanner"}, {0x8D, "Scale"},
        {0x8E, "Magnetic Stripe Reading (MSR)"}, {0x8F, "Reserved Point of Sale"}, {0x90, "Camera Control"},
        {0x91, "Arcade"}, {0x92, "reserved"}, {0xFEFF, "reserved"}, {0xFF00, "vendor specific"},
        {0xFFFF, "vendor specific"}, {0x10000, "invalid"}, {0xFFFFFFFF, "invalid"},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(c.name, HidReportDescriptorParser::GetUsagePageStr(c.page)) << std::hex << c.page;
}
