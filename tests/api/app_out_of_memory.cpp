// Out of memory inside an exported function: a status, never an exception,
// and nothing left behind. This binary replaces the global operator new so
// that the Nth allocation made on the armed thread throws std::bad_alloc.
#include "support/api_fixture.h"

#include <cstdlib>
#include <new>

using namespace karvex_test;

// The replacements below pair malloc with free; GCC cannot see that the
// operator new it pairs them with is ours.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {

thread_local long tAllocationsUntilFailure = -1; // -1: never fail
thread_local bool tFailed = false;

} // namespace

void* operator new(std::size_t size)
{
    if (tAllocationsUntilFailure > 0 && --tAllocationsUntilFailure == 0) {
        tAllocationsUntilFailure = -1;
        tFailed = true;
        throw std::bad_alloc();
    }
    if (void* p = std::malloc(size != 0 ? size : 1))
        return p;
    throw std::bad_alloc();
}

// Every other form goes to malloc as well, so that no sanitizer's form meets
// our delete. Only the throwing form fails: the library's nothrow allocations
// have their own null checks, which other tests reach.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size != 0 ? size : 1);
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return std::malloc(size != 0 ? size : 1);
}

void operator delete(void* p) noexcept
{
    std::free(p);
}

void operator delete[](void* p) noexcept
{
    std::free(p);
}

void operator delete[](void* p, std::size_t) noexcept
{
    std::free(p);
}

void operator delete(void* p, const std::nothrow_t&) noexcept
{
    std::free(p);
}

void operator delete[](void* p, const std::nothrow_t&) noexcept
{
    std::free(p);
}

void operator delete(void* p, std::size_t) noexcept
{
    std::free(p);
}

TEST_F(ApiTest, OpenOutOfMemoryReturnsNoMemoryAndLeavesNothing)
{
    auto& a = AddAdapter();
    const std::size_t threads = ktest::Tasks().size();
    // Fail the 1st, 2nd, ... allocation of the open until one succeeds
    // without any failure: every allocation on the path has failed once.
    bool noMemorySeen = false;
    for (long n = 1; n < 200; ++n) {
        KARVEXDeviceHandle h = 0xDEADu;
        TSTATUS st = TSTATUS_PENDING;
        tFailed = false;
        tAllocationsUntilFailure = n;
        try {
            st = KARVEX_OpenDevice(a.device->DevNode().c_str(), &h);
        } catch (...) {
            tAllocationsUntilFailure = -1;
            FAIL() << "an exception left KARVEX_OpenDevice at allocation " << n;
        }
        tAllocationsUntilFailure = -1;
        if (!tFailed) {
            ASSERT_EQ(TSTATUS_SUCCESS, st);
            ASSERT_GT(n, 1) << "the open allocates nothing: the seam is not reached";
            EXPECT_TRUE(noMemorySeen) << "no allocation failure came back as TSTATUS_NO_MEMORY";
            EXPECT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
            return;
        }
        if (st == TSTATUS_SUCCESS) {
            // The failed allocation was not needed for the open.
            ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(h));
            continue;
        }
        // Out of memory in the API object's own bookkeeping is TSTATUS_NO_MEMORY;
        // deeper layers (enumeration) report it as their own failure.
        EXPECT_NE(TSTATUS_PENDING, st);
        noMemorySeen = noMemorySeen || st == TSTATUS_NO_MEMORY;
        EXPECT_EQ(0u, h);
        // Nothing kept: no reader thread, the adapter not held.
        EXPECT_EQ(threads, ktest::Tasks().size()) << "allocation " << n;
        KARVEXDeviceHandle probe = 0;
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_OpenDevice(a.device->DevNode().c_str(), &probe)) << "allocation " << n;
        ASSERT_EQ(TSTATUS_SUCCESS, KARVEX_CloseDevice(probe));
    }
    FAIL() << "the open never succeeded";
}
