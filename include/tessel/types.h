#pragma once

#include "lum/P.h"
#include "lum/String.h"
#include "lum/TBuffer.h"
#include "lum/TConstBufferSlice.h"
#include "lum/export.h"
#include "lum/types.h"

/// Virtual disks in VMware's VMDK format: sparse extents, plain and compressed, with the library's own
/// extensions for encryption, rewritable compressed grains and extent files that are made on first
/// write.
///
/// Words used throughout. Sector: 512 bytes. Grain: the unit of allocation, a whole number of sectors.
/// Slot: the run of whole sectors in an extent file that holds one grain's stored data. Prepared data:
/// a grain in stored form before encryption, which is the compressed record in compressed extents and
/// the plain bytes in others.
///
/// Threads: the library starts none and takes no locks. A disk, with all it owns and the grain table
/// cache it shares, is used by one thread at a time.
namespace tessel {

using namespace lum;

/// Bytes of a sector.
constexpr int64 vmdkSectorSize = 512;

} // namespace tessel
