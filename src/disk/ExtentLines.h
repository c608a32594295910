#pragma once

#include "lum/CProps.h"
#include "lum/CURI.h"
#include "tessel/CVMDKDescriptor.h"

#include <functional>

namespace tessel {

// What a descriptor must be for its disk to be used. `props` (with "uri") go into every error.

/// An extent that takes a place in the disk.
struct UExtentLine {
    CURI uri;
    int64 startSector; ///< in the disk
    int64 sizeSectors; ///< at least 1
};

/// Throws: CIOError 5 for a kind of disk that is not supported.
void verifyCreateType(const CVMDKDescriptor& descriptor, const CProps& props);

/// Throws: CIOError 5 for an extent line of a kind that is not understood.
void verifyNoUnknownExtentLines(const CVMDKDescriptor& descriptor, const CProps& props);

/// Disks of more extents are refused. A disk of 62 TiB, the largest that there is, has half of it where its
/// extents are of 2 GiB.
constexpr std::size_t maxExtentCount = 65536;

/// Tells `visit` where the extents of a disk are, in order, without those of no size. `folder` holds the
/// descriptor.
/// Throws: CIOError 5 for too many extents, a type or size that cannot be, or when nothing is left; as
/// vmdkFileReferenceToURI and `visit`.
void placeExtents(const TArray<P<CVMDKExtentInfo>>& extents, const CURI& folder, const CProps& props,
                  const std::function<void(UExtentLine&&)>& visit);

} // namespace tessel
