#pragma once

#include <cstddef>
#include <vector>

namespace tessel::test {

/// Looks at a block of memory in the moment in which it is given back, while the bytes still stand. One
/// at a time, for the thread that made it.
class CFreedMemoryProbe {
public:
    /// Watches for the block that begins at `block`, of which the first `size` bytes (256 at most) count.
    CFreedMemoryProbe(const void* block, std::size_t size);
    ~CFreedMemoryProbe();
    CFreedMemoryProbe(const CFreedMemoryProbe&) = delete;
    CFreedMemoryProbe& operator=(const CFreedMemoryProbe&) = delete;

    bool wasFreed() const;
    /// What the block held when it was given back; empty when it was not.
    std::vector<unsigned char> getContents() const;
};

/// Lets the nth allocation (1 = the next) of this thread fail with std::bad_alloc, once.
class CFailingAllocation {
public:
    explicit CFailingAllocation(int n);
    ~CFailingAllocation();
    CFailingAllocation(const CFailingAllocation&) = delete;
    CFailingAllocation& operator=(const CFailingAllocation&) = delete;
};

} // namespace tessel::test
