#include "AllocationHook.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <new>

namespace {

// Plain thread-local data, which need neither memory nor construction of their own.
thread_local const void* t_watchedBlock = nullptr;
thread_local std::size_t t_watchedSize = 0;
thread_local bool t_wasFreed = false;
thread_local std::array<unsigned char, 256> t_contents;
thread_local int t_allocationsUntilFailure = 0; // 0 = none fails

void lookAtFreedBlock(const void* block) noexcept {
    if (!block || block != t_watchedBlock)
        return;
    std::copy_n(static_cast<const unsigned char*>(block), t_watchedSize, t_contents.begin());
    t_wasFreed = true;
    t_watchedBlock = nullptr;
}

} // namespace

// These replace the global ones of the whole test program.

void* operator new(std::size_t size) {
    if (t_allocationsUntilFailure > 0 && --t_allocationsUntilFailure == 0)
        throw std::bad_alloc();
    if (void* const block = std::malloc(std::max<std::size_t>(size, 1)))
        return block;
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept {
    lookAtFreedBlock(block);
    std::free(block);
}

void operator delete(void* block, std::size_t) noexcept {
    lookAtFreedBlock(block);
    std::free(block);
}

namespace tessel::test {

CFreedMemoryProbe::CFreedMemoryProbe(const void* block, std::size_t size) {
    t_watchedBlock = block;
    t_watchedSize = std::min(size, t_contents.size());
    t_wasFreed = false;
}

CFreedMemoryProbe::~CFreedMemoryProbe() {
    t_watchedBlock = nullptr;
}

bool CFreedMemoryProbe::wasFreed() const {
    return t_wasFreed;
}

std::vector<unsigned char> CFreedMemoryProbe::getContents() const {
    if (!t_wasFreed)
        return {};
    return {t_contents.begin(), t_contents.begin() + static_cast<std::ptrdiff_t>(t_watchedSize)};
}

CFailingAllocation::CFailingAllocation(int n) {
    t_allocationsUntilFailure = n;
}

CFailingAllocation::~CFailingAllocation() {
    t_allocationsUntilFailure = 0;
}

} // namespace tessel::test
