#pragma once

#include <cstddef>

namespace tessel::test {

/// Knows the largest piece of memory that this thread asked for since it was made. One at a time.
class AllocationWatch {
public:
    AllocationWatch() noexcept;
    ~AllocationWatch();
    AllocationWatch(const AllocationWatch&) = delete;
    AllocationWatch& operator=(const AllocationWatch&) = delete;

    std::size_t getLargest() const noexcept;
};

} // namespace tessel::test
