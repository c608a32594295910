#pragma once

#include "tessel/types.h"

#include <array>
#include <map>

namespace tessel {

/// A set of numbers from 0 on, to which runs are added. It takes about one bit for each number near one that
/// is in the set, however large the numbers are.
class CSectorSet {
public:
    /// Adds the numbers from `first` on. Those that are in the set already stay.
    void add(int64 first, int64 count);
    /// True when one of these numbers, or more, is in the set.
    bool containsAny(int64 first, int64 count) const;
    bool contains(int64 number) const { return containsAny(number, 1); }
    /// How many numbers are in the set.
    int64 getCount() const noexcept { return m_count; }

private:
    static constexpr int64 chunkBits = 4096;
    using Chunk = std::array<uint64, chunkBits / 64>;

    std::map<int64, Chunk> m_chunks;
    int64 m_count = 0;
};

} // namespace tessel
