#pragma once

#include "lum/CDataOutStream.h"
#include "tessel/types.h"

namespace tessel {

/// Entries of the grain tables that this library makes.
constexpr int64 vmdkGrainTableEntryCount = 512;
/// Sectors of one such grain table (4 bytes an entry), and of its slot size table (2 bytes an entry).
constexpr int64 vmdkGrainTableSectors = 4;
/// Sectors of the slot size table of such a grain table (2 bytes an entry).
constexpr int64 vmdkSlotSizeTableSectors = 2;

/// Sectors of a directory of `tableCount` entries of 4 bytes.
constexpr int64 vmdkDirectorySectors(int64 tableCount) noexcept {
    return (tableCount * 4 + vmdkSectorSize - 1) / vmdkSectorSize;
}

/// Writes a grain directory and its empty grain tables at the stream's position, which is at a sector.
/// With markers, each table stands behind a marker sector of its own. `zeros` holds 512 zero bytes or
/// more.
/// Throws: CError when a piece does not end where it should.
TESSEL_EXPORT void writeEmptyVMDKGrainDirectoryAndTables(CDataOutStream& out, int64 tableCount,
                                                         const TBuffer<unsigned char>& zeros,
                                                         bool withMarkers);

/// Writes the marker of the slot size directory, the directory and its empty tables, each behind its
/// marker. `zeros` as above.
TESSEL_EXPORT void
writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(CDataOutStream& out, int64 tableCount,
                                                              const TBuffer<unsigned char>& zeros);

} // namespace tessel
