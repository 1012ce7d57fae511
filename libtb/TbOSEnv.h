// Operating-system environment of the toolbox: allocation with a memory type.
// The type is accepted for portability and ignored on this platform. The
// allocating forms never throw: they return null when memory is exhausted,
// and every caller tests for it.
#pragma once

#include <cstddef>

enum TbMemType {
    TbMemTypeDontCare = 0,
    TbMemTypePaged = 1,
    TbMemTypeNonPaged = 2
};

void* operator new(std::size_t size, TbMemType type) noexcept;
void* operator new[](std::size_t size, TbMemType type) noexcept;
// Called only when a constructor throws; ordinary release is delete / delete[].
void operator delete(void* ptr, TbMemType type) noexcept;
void operator delete[](void* ptr, TbMemType type) noexcept;

// Placement forms.
void* operator new(std::size_t size, void* place, TbMemType type) noexcept;
void* operator new[](std::size_t size, void* place, TbMemType type) noexcept;
void operator delete(void* ptr, void* place, TbMemType type) noexcept;
void operator delete[](void* ptr, void* place, TbMemType type) noexcept;
