#include "BenchAllocCounter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* ptr);
}

namespace {

std::atomic<std::uint64_t> gAllocations{0};

inline void Counted()
{
    gAllocations.fetch_add(1, std::memory_order_relaxed);
}

} // namespace

std::uint64_t kbench::BenchAllocCounter::Count()
{
    return gAllocations.load(std::memory_order_relaxed);
}

extern "C" {

void* malloc(size_t size) noexcept
{
    Counted();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) noexcept
{
    Counted();
    return __libc_calloc(count, size);
}

void* realloc(void* ptr, size_t size) noexcept
{
    Counted();
    return __libc_realloc(ptr, size);
}

void free(void* ptr) noexcept
{
    __libc_free(ptr);
}

void* memalign(size_t alignment, size_t size) noexcept
{
    Counted();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) noexcept
{
    Counted();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, size_t alignment, size_t size) noexcept
{
    if (alignment < sizeof(void*) || (alignment & (alignment - 1)) != 0)
        return EINVAL;
    Counted();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr)
        return ENOMEM;
    *out = p;
    return 0;
}

} // extern "C"
