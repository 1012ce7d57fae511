// Owned byte block: allocation, release, attach and detach.
#include <gtest/gtest.h>

#include <cstdint>

#include "libtb/TbBufferBlock.h"
#include "libtb/TbOSEnv.h"

TEST(TbBufferBlockTest, AllocateZeroAndFree)
{
    TbBufferBlock b;
    EXPECT_FALSE(b.IsValid());
    EXPECT_EQ(nullptr, b.Buffer());
    b.ZeroBuffer(); // harmless without storage
    b.FreeBuffer();
    ASSERT_TRUE(b.AllocateBuffer(10));
    EXPECT_TRUE(b.IsValid());
    EXPECT_EQ(10u, b.BufferSize());
    EXPECT_EQ(b.Buffer() + 10, b.BufferLimit());
    for (T_UINT8* p = b.Buffer(); p != b.BufferLimit(); ++p)
        *p = 0xAA;
    b.ZeroBuffer();
    for (T_UINT8* p = b.Buffer(); p != b.BufferLimit(); ++p)
        ASSERT_EQ(0, *p);

    // Reallocation replaces the storage; size 0 leaves the block empty.
    ASSERT_TRUE(b.AllocateBuffer(3));
    EXPECT_EQ(3u, b.BufferSize());
    ASSERT_TRUE(b.AllocateBuffer(0));
    EXPECT_FALSE(b.IsValid());
    EXPECT_EQ(0u, b.BufferSize());
    b.FreeBuffer();
    b.FreeBuffer();
}

TEST(TbBufferBlockTest, AttachAndDetachMoveOwnership)
{
    TbBufferBlock b;
    ASSERT_TRUE(b.AllocateBuffer(4));
    T_UINT8* own = new (TbMemTypeDontCare) T_UINT8[6];
    ASSERT_NE(nullptr, own);
    b.AttachBuffer(own, 6); // the old storage is released
    EXPECT_EQ(own, b.Buffer());
    EXPECT_EQ(6u, b.BufferSize());
    T_UINT8* back = b.DetachBuffer();
    EXPECT_EQ(own, back);
    EXPECT_FALSE(b.IsValid());
    EXPECT_EQ(0u, b.BufferSize());
    b.AttachBuffer(back, 6);
    b.AttachBuffer(back, 5); // same storage: only the size changes
    EXPECT_EQ(back, b.Buffer());
    EXPECT_EQ(5u, b.BufferSize());
    b.AttachBuffer(nullptr, 9);
    EXPECT_EQ(0u, b.BufferSize());
}

// The sanitizers' allocators would report the impossible request below as an
// error of their own instead of failing it as the plain allocator does.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

TEST(TbOSEnvTest, MemoryTypedAllocationReturnsNullInsteadOfThrowing)
{
    const std::size_t impossible = static_cast<std::size_t>(PTRDIFF_MAX);
    for (TbMemType t : {TbMemTypeDontCare, TbMemTypePaged, TbMemTypeNonPaged}) {
        EXPECT_EQ(nullptr, operator new(impossible, t));
        EXPECT_EQ(nullptr, operator new[](impossible, t));
        int* p = new (t) int(42);
        ASSERT_NE(nullptr, p);
        EXPECT_EQ(42, *p);
        delete p;
    }
    alignas(int) unsigned char place[sizeof(int)];
    int* q = new (static_cast<void*>(place), TbMemTypeDontCare) int(7);
    EXPECT_EQ(static_cast<void*>(place), static_cast<void*>(q));
    EXPECT_EQ(7, *q);
}
