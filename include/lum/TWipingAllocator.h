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
    using value_type = T;

    TWipingAllocator() noexcept = default;
    template <class U>
    TWipingAllocator(const TWipingAllocator<U>&) noexcept {}

    T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
    void deallocate(T* memory, std::size_t n) noexcept {
        wipeMemory(memory, n * sizeof(T));
        std::allocator<T>().deallocate(memory, n);
    }

    friend bool operator==(const TWipingAllocator&, const TWipingAllocator&) noexcept { return true; }
};

} // namespace lum
