// Platform part of TbOSEnv: the memory-typed allocation operators.
#include "libtb/TbOSEnv.h"

#include <new>

void* operator new(std::size_t size, TbMemType) noexcept
{
    return ::operator new(size, std::nothrow);
}

void* operator new[](std::size_t size, TbMemType) noexcept
{
    return ::operator new[](size, std::nothrow);
}

void operator delete(void* ptr, TbMemType) noexcept
{
    ::operator delete(ptr);
}

void operator delete[](void* ptr, TbMemType) noexcept
{
    ::operator delete[](ptr);
}

void* operator new(std::size_t, void* place, TbMemType) noexcept
{
    return place;
}

void* operator new[](std::size_t, void* place, TbMemType) noexcept
{
    return place;
}

void operator delete(void*, void*, TbMemType) noexcept
{
}

void operator delete[](void*, void*, TbMemType) noexcept
{
}
