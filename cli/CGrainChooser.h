#pragma once

#include "tessel/CVMDKDisk.h"

namespace tessel::cli {

/// Tells which grains a new disk stores, as CDiskWriter does for one: not those of zeros, and of a child not
/// those that are the parent's, but zeros over its data.
class CGrainChooser {
public:
    /// `parent` is borrowed, and null for a disk without one.
    CGrainChooser(CVMDKDisk* parent, int64 grainSizeBytes);

    bool hasParent() const noexcept { return m_parent != nullptr; }
    /// Whether the grain from `position` on is stored that holds these bytes and then zeros; `bytes` may be
    /// null. Throws: what the library throws.
    bool isStored(int64 position, const unsigned char* bytes, int64 count);
    /// From a grain's start on, at most up to `end`: the end of the grains of which the parent holds nothing,
    /// or of those of which it may. Throws: what the library throws.
    int64 findRunEnd(int64 position, int64 end, bool& isHeld);

private:
    bool isHeldByParent(int64 start);

    CVMDKDisk* m_parent;
    int64 m_grainSize;
    TBuffer<unsigned char> m_old;
    TBuffer<unsigned char> m_new;
};

} // namespace tessel::cli
