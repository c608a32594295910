#pragma once

#include "lum/export.h"

#include <cstddef>
#include <memory>

namespace lum {

/// Sets `size` bytes to zero in a way that the compiler does not remove.
TESSEL_EXPORT void wipeMemory(void* memory, std::size_t size) noexcept;

/// Allocates like std::allocator and wipes what it gives back.
template <class T>
class TWipingAllocator {
public:
    /// What is allocated; the name is the standard library's.
    using value_type = T;

    TWipingAllocator() noexcept = default;
    /// An allocator of other elements; there is nothing to copy.
    template <class U>
    TWipingAllocator(const TWipingAllocator<U>&) noexcept {}

    /// Memory for n elements. Throws: std::bad_alloc.
    T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
    /// Wipes what allocate() gave, and gives it back.
    void deallocate(T* memory, std::size_t n) noexcept {
        wipeMemory(memory, n * sizeof(T));
        std::allocator<T>().deallocate(memory, n);
    }

    /// Always true: memory of one may be given back by another.
    friend bool operator==(const TWipingAllocator&, const TWipingAllocator&) noexcept { return true; }
};

} // namespace lum
