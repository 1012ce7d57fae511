// Counts heap allocations of the whole benchmark process. The binary defines
// malloc, calloc, realloc and the aligned forms itself (operator new ends in
// malloc), counts each call and hands it to glibc's own allocator, so every
// allocation of libkarvex, its threads and the C++ runtime is seen.
#pragma once

#include <cstdint>

namespace kbench {

class BenchAllocCounter {
public:
    // Allocations (malloc, calloc, realloc, aligned forms) since start-up, all threads.
    static std::uint64_t Count();
};

} // namespace kbench
