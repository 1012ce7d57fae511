// Handle map and handle-based container: handle format, reuse with a new
// generation, stale handles, the slot limit and ownership.
#include <gtest/gtest.h>

#include <stdio.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "libposix/PxTrace.h"
#include "libtb/TbHandleBasedContainerT.h"
#include "libtb/TbHandleToPtrMapT.h"

#include "support/test_support.h"

using ktest::CaptureTrace;

namespace {

struct Item {
    int id;
};

typedef TbHandleToPtrMapT<Item, unsigned int, 16> ItemMap;

// Records its destruction so that tests can see order and count.
struct Tracked {
    explicit Tracked(std::vector<const Tracked*>* log) : mLog(log) {}
    ~Tracked() { mLog->push_back(this); }
    std::vector<const Tracked*>* mLog;
};

typedef TbHandleBasedContainerT<Tracked, unsigned int> TrackedContainer;

bool IsContainerAssertion(const std::string& out, const char* expression)
{
    std::string pattern = std::string("\nASSERTION FAILED: \\(") + expression +
                          "\\)\n  libtb/TbHandleBasedContainerT\\.h\\([0-9]+\\)\n";
    return std::regex_match(out, std::regex(pattern));
}

class HandleTableTest : public ::testing::Test {
protected:
    void SetUp() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR); }
    void TearDown() override { TPosixSetTraceMask(KARVEX_TRACE_ERROR | KARVEX_TRACE_WARNING); }
    Tracked* New() { return new Tracked(&mLog); }

    std::vector<const Tracked*> mLog; // destroyed objects, in order
};

} // namespace

TEST_F(HandleTableTest, FreshContainerIssuesSequentialHandles)
{
    TrackedContainer c;
    EXPECT_TRUE(c.IsEmpty());
    Tracked* a = New();
    Tracked* b = New();
    Tracked* d = New();
    EXPECT_EQ(0x00010000u, c.AddObject(a));
    EXPECT_EQ(0x00020001u, c.AddObject(b));
    EXPECT_EQ(0x00030002u, c.AddObject(d));
    EXPECT_FALSE(c.IsEmpty());
    EXPECT_EQ(a, c.LookupObjectByHandle(0x00010000u));
    EXPECT_EQ(b, c.LookupObjectByHandle(0x00020001u));
    EXPECT_EQ(d, c.LookupObjectByHandle(0x00030002u));
    EXPECT_EQ(b, c.LookupObjectPtr(b));

    // Freed slot 1 is reused with a new generation; the old handle is stale.
    EXPECT_TRUE(c.RemoveObject(b, 0x00020001u));
    EXPECT_EQ(nullptr, c.LookupObjectByHandle(0x00020001u));
    EXPECT_EQ(nullptr, c.LookupObjectPtr(b));
    Tracked* e = New();
    EXPECT_EQ(0x00040001u, c.AddObject(e));
    EXPECT_EQ(e, c.LookupObjectByHandle(0x00040001u));
    EXPECT_EQ(nullptr, c.LookupObjectByHandle(0x00020001u));
    EXPECT_TRUE(mLog.empty()); // RemoveObject does not destroy
    delete b;
}

TEST_F(HandleTableTest, UnresolvableHandles)
{
    ItemMap map;
    Item items[2];
    unsigned int h0 = map.AddPointer(&items[0]);
    unsigned int h1 = map.AddPointer(&items[1]);
    ASSERT_EQ(0x00010000u, h0);
    ASSERT_EQ(0x00020001u, h1);
    // Invalid; right index, wrong generation; generation of another slot;
    // index beyond the vector. Releasing by them changes nothing.
    for (unsigned int h : {0u, 0x00030001u, 0x00010001u, 0x00020002u, 0x0002FFFFu, 0x00020005u}) {
        EXPECT_EQ(nullptr, map.LookupPointer(h)) << std::hex << h;
        EXPECT_EQ(nullptr, map.RemovePointerByHandle(h)) << std::hex << h;
    }
    EXPECT_EQ(&items[0], map.LookupPointer(h0));
    EXPECT_EQ(&items[1], map.LookupPointer(h1));
    // Releasing twice: the second time the slot is free.
    EXPECT_EQ(&items[1], map.RemovePointerByHandle(h1));
    EXPECT_EQ(nullptr, map.RemovePointerByHandle(h1));
    EXPECT_EQ(nullptr, map.LookupPointer(h1));
    // The free slot's link does not pass for a handle.
    EXPECT_EQ(nullptr, map.LookupPointer(0x00000001u));
}

TEST_F(HandleTableTest, FreeSlotsAreReusedLastFreedFirst)
{
    ItemMap map;
    Item items[6];
    unsigned int h[3];
    for (int i = 0; i < 3; i++)
        h[i] = map.AddPointer(&items[i]);
    EXPECT_EQ(&items[0], map.RemovePointerByHandle(h[0]));
    EXPECT_EQ(&items[2], map.RemovePointerByHandle(h[2]));
    unsigned int a = map.AddPointer(&items[3]);
    unsigned int b = map.AddPointer(&items[4]);
    unsigned int c = map.AddPointer(&items[5]);
    EXPECT_EQ(0x00040002u, a);
    EXPECT_EQ(0x00050000u, b);
    EXPECT_EQ(0x00060003u, c);
    EXPECT_EQ(4u, map.SlotCount());
    EXPECT_EQ(&items[1], map.LookupPointer(h[1]));
}

TEST_F(HandleTableTest, GenerationSkipsZeroWhenItWraps)
{
    ItemMap map;
    Item item;
    // Generations 1 .. 0xFFFE, all on slot 0.
    for (unsigned int g = 1; g <= 0xFFFEu; g++) {
        unsigned int h = map.AddPointer(&item);
        ASSERT_EQ(g << 16, h);
        ASSERT_EQ(&item, map.RemovePointerByHandle(h));
    }
    unsigned int last = map.AddPointer(&item);
    EXPECT_EQ(0xFFFF0000u, last);
    ASSERT_EQ(&item, map.RemovePointerByHandle(last));
    unsigned int wrapped = map.AddPointer(&item);
    EXPECT_EQ(0x00010000u, wrapped);
    // The very first handle of this slot resolves again: the documented
    // limit of stale-handle detection.
    EXPECT_EQ(&item, map.LookupPointer(0x00010000u));
    EXPECT_EQ(nullptr, map.LookupPointer(0xFFFF0000u));
    unsigned int next = map.AddPointer(&item);
    EXPECT_EQ(0x00020001u, next);
}

// The limit is the same code for every index width: a 4-bit map (16 slots)
// shows it as the library's 16-bit one (65,536 slots) would.
TEST_F(HandleTableTest, SlotLimitRefusesEvenWithFreeSlots)
{
    typedef TbHandleToPtrMapT<Item, unsigned int, 4> SmallMap;
    SmallMap map;
    std::vector<Item> items(17);
    std::vector<unsigned int> handles;
    for (unsigned int i = 0; i < 16; i++) {
        unsigned int h = map.AddPointer(&items[i]);
        ASSERT_NE(0u, h) << i;
        ASSERT_EQ(i, SmallMap::IndexFromHandle(h));
        handles.push_back(h);
    }
    EXPECT_EQ(16u, map.SlotCount());
    EXPECT_EQ(&items[15], map.LookupPointer(handles.back()));
    EXPECT_EQ(0u, map.AddPointer(&items[16]));

    // A free slot does not help: the limit is on the vector's size.
    EXPECT_EQ(&items[7], map.RemovePointerByHandle(handles[7]));
    EXPECT_EQ(0u, map.AddPointer(&items[16]));
    EXPECT_EQ(16u, map.SlotCount());
    EXPECT_EQ(&items[8], map.LookupPointer(handles[8]));
    EXPECT_EQ(0xFFFFu, ItemMap::IndexFromHandle(0x1234FFFFu)); // the library's map: 16 index bits
}

TEST_F(HandleTableTest, RemoveAllPointerInstancesFreesEverySlotOfThePointer)
{
    ItemMap map;
    Item p;
    Item q;
    unsigned int h0 = map.AddPointer(&p);
    unsigned int h1 = map.AddPointer(&q);
    unsigned int h2 = map.AddPointer(&p);
    EXPECT_EQ(2u, map.RemoveAllPointerInstances(&p));
    EXPECT_EQ(0u, map.RemoveAllPointerInstances(&p));
    EXPECT_EQ(nullptr, map.LookupPointer(h0));
    EXPECT_EQ(nullptr, map.LookupPointer(h2));
    EXPECT_EQ(&q, map.LookupPointer(h1));
    // Freed in ascending order, so slot 2 is on top of the free stack.
    EXPECT_EQ(2u, ItemMap::IndexFromHandle(map.AddPointer(&q)));
    EXPECT_EQ(0u, ItemMap::IndexFromHandle(map.AddPointer(&q)));
    EXPECT_EQ(3u, map.SlotCount());
}

TEST_F(HandleTableTest, DeleteAllObjectsDestroysInAddressOrderAndFreesHandles)
{
    TrackedContainer c;
    std::vector<Tracked*> objs;
    std::vector<unsigned int> handles;
    for (int i = 0; i < 5; i++) {
        objs.push_back(New());
        handles.push_back(c.AddObject(objs.back()));
    }
    std::string out = CaptureTrace([&] { c.DeleteAllObjects(); });
    EXPECT_EQ("", out);
    ASSERT_EQ(5u, mLog.size());
    for (size_t i = 1; i < mLog.size(); i++)
        EXPECT_LT(mLog[i - 1], mLog[i]);
    EXPECT_TRUE(c.IsEmpty());
    for (unsigned int h : handles)
        EXPECT_EQ(nullptr, c.LookupObjectByHandle(h));

    // Empty container: nothing happens.
    c.DeleteAllObjects();
    EXPECT_EQ(5u, mLog.size());
    // Freed slots are reused last freed first: the slot of the object with
    // the highest address.
    size_t highest = 0;
    for (size_t i = 1; i < objs.size(); i++)
        if (objs[i] > objs[highest])
            highest = i;
    Tracked* again = New();
    EXPECT_EQ(ItemMap::IndexFromHandle(handles[highest]), ItemMap::IndexFromHandle(c.AddObject(again)));
}

TEST_F(HandleTableTest, ObjectAddedTwiceAssertsButGetsASecondHandle)
{
    TrackedContainer c;
    Tracked* a = New();
    unsigned int h1 = c.AddObject(a);
    unsigned int h2 = 0;
    std::string out = CaptureTrace([&] { h2 = c.AddObject(a); });
    EXPECT_TRUE(IsContainerAssertion(out, "0")) << out;
    EXPECT_EQ(0x00020001u, h2);
    EXPECT_EQ(a, c.LookupObjectByHandle(h1));
    EXPECT_EQ(a, c.LookupObjectByHandle(h2));
    // Destroyed once, and both handles released.
    out = CaptureTrace([&] { c.DeleteAllObjects(); });
    EXPECT_EQ("", out);
    EXPECT_EQ(1u, mLog.size());
    EXPECT_EQ(nullptr, c.LookupObjectByHandle(h1));
    EXPECT_EQ(nullptr, c.LookupObjectByHandle(h2));
}

TEST_F(HandleTableTest, RemoveObjectWithMismatchingHandle)
{
    TrackedContainer c;
    Tracked* a = New();
    Tracked* b = New();
    unsigned int ha = c.AddObject(a);
    unsigned int hb = c.AddObject(b);

    // Unknown handle: asserts, but the object is forgotten all the same.
    bool result = false;
    std::string out = CaptureTrace([&] { result = c.RemoveObject(a, 0x00070000u); });
    EXPECT_TRUE(IsContainerAssertion(out, "0")) << out;
    EXPECT_TRUE(result);
    EXPECT_EQ(nullptr, c.LookupObjectPtr(a));
    EXPECT_EQ(a, c.LookupObjectByHandle(ha)); // its slot is still taken

    // Object not owned: asserts (the handle belongs to b) and returns false.
    out = CaptureTrace([&] { result = c.RemoveObject(a, hb); });
    EXPECT_TRUE(IsContainerAssertion(out, "0")) << out;
    EXPECT_FALSE(result);
    // b's handle was released by that call though b stays owned.
    EXPECT_EQ(nullptr, c.LookupObjectByHandle(hb));
    EXPECT_EQ(b, c.LookupObjectPtr(b));

    // An owned object without any handle asserts "cnt>0" and is still destroyed.
    out = CaptureTrace([&] { c.DeleteAllObjects(); });
    EXPECT_TRUE(IsContainerAssertion(out, "cnt>0")) << out;
    ASSERT_EQ(1u, mLog.size());
    EXPECT_EQ(b, mLog[0]);
    delete a;
}

TEST_F(HandleTableTest, NullObjectStopsDeleteAllObjects)
{
    TrackedContainer c;
    unsigned int hn = c.AddObject(nullptr);
    EXPECT_NE(0u, hn);
    c.AddObject(New());
    c.AddObject(New());
    std::string out = CaptureTrace([&] { c.DeleteAllObjects(); });
    EXPECT_EQ("", out);
    // The null entry was removed, the loop stopped behind it.
    EXPECT_TRUE(mLog.empty());
    EXPECT_FALSE(c.IsEmpty());
    EXPECT_EQ(nullptr, c.LookupObjectByHandle(hn));
    c.DeleteAllObjects();
    EXPECT_EQ(2u, mLog.size());
    EXPECT_TRUE(c.IsEmpty());
}

TEST_F(HandleTableTest, RemoveFirstObjectHandsBackTheLowestAndTheDestructorDeletesTheRest)
{
    Tracked* first = nullptr;
    {
        TrackedContainer c;
        EXPECT_EQ(nullptr, c.RemoveFirstObject());
        Tracked* x = New();
        Tracked* y = New();
        unsigned int hx = c.AddObject(x);
        unsigned int hy = c.AddObject(y);
        first = c.RemoveFirstObject();
        EXPECT_EQ(std::min(x, y), first);
        EXPECT_EQ(nullptr, c.LookupObjectByHandle(first == x ? hx : hy));
        EXPECT_TRUE(mLog.empty());
    }
    ASSERT_EQ(1u, mLog.size());
    EXPECT_NE(first, mLog[0]);
    delete first;
}
