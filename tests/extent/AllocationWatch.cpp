#include "AllocationWatch.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace tessel::test {
namespace {

thread_local bool watching = false;
thread_local std::size_t largest = 0;

void* allocate(std::size_t size) {
    if (watching)
        largest = std::max(largest, size);
    void* const memory = std::malloc(size != 0 ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

} // namespace

AllocationWatch::AllocationWatch() noexcept {
    largest = 0;
    watching = true;
}

AllocationWatch::~AllocationWatch() {
    watching = false;
}

std::size_t AllocationWatch::getLargest() const noexcept {
    return largest;
}

} // namespace tessel::test

// The whole program allocates through these, the library included. The forms that are not named here end
// in these.

void* operator new(std::size_t size) {
    return tessel::test::allocate(size);
}

void* operator new[](std::size_t size) {
    return tessel::test::allocate(size);
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}

void operator delete[](void* memory) noexcept {
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
