#pragma once

#include "CProgress.h"
#include "ISource.h"

#include <functional>

namespace tessel::cli {

/// Differences are told in whole units of so many bytes, a sector, but for the end of an image.
constexpr int comparedUnit = 512;

/// A range of bytes in which each unit holds a difference.
struct UDifference {
    int64 position;
    int64 sizeBytes;
};

struct UComparison {
    /// The first byte that differs; -1 when none does.
    int64 firstDifference = -1;
    int64 rangeCount = 0;
    /// Bytes of all ranges.
    int64 differingBytes = 0;

    bool isSame() const noexcept { return firstDifference < 0; }
};

/// Compares two images of known sizes from the start to the end; behind the shorter one's end are zeros.
/// Calls `tell` with each range, in order, as long as it returns true. What both say that they do not hold is
/// not read, and what one does not hold only from the other. Throws: what the sources throw; CInterrupted.
UComparison compareSources(ISource& a, ISource& b, CProgress& progress,
                           const std::function<bool(const UDifference&)>& tell);

} // namespace tessel::cli
