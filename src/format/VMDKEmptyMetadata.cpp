#include "tessel/VMDKEmptyMetadata.h"

#include "tessel/VMDKMarker.h"

#include <algorithm>

namespace tessel {

namespace {

constexpr int markerSectors = 1;

void padToSector(CDataOutStream& out, const TBuffer<unsigned char>& zeros) {
    const auto excess = static_cast<int>(out.getPosition() % vmdkSectorSize);
    if (excess != 0)
        vmdkWritePadding(out.getStream(), static_cast<int>(vmdkSectorSize) - excess, zeros);
}

/// Zeros at the stream's position. Beyond the end they are a hole: they take no time and, where the file
/// system can do that, no room.
void writeZeros(CDataOutStream& out, int64 count, const TBuffer<unsigned char>& zeros) {
    const int64 position = out.getPosition();
    if (position == out.getLength()) {
        out.getStream().setLength(position + count);
        out.seek(position + count);
        return;
    }
    for (int64 left = count; left > 0; left -= std::min<int64>(left, INT32_MAX))
        vmdkWritePadding(out.getStream(), static_cast<int>(std::min<int64>(left, INT32_MAX)), zeros);
}

/// A directory whose tables follow it, each `tableStride` sectors behind the one before and
/// `tableOffset` sectors into its stride.
void writeDirectory(CDataOutStream& out, int64 tableCount, int64 tableStride, int64 tableOffset,
                    const TBuffer<unsigned char>& zeros) {
    const int64 firstTable = getStreamPositionVMDKSectors(out.getStream()) + vmdkDirectorySectors(tableCount);
    for (int64 i = 0; i < tableCount; ++i)
        out.writeUInt32(static_cast<uint32>(firstTable + tableStride * i + tableOffset));
    padToSector(out, zeros);
    const int64 actual = getStreamPositionVMDKSectors(out.getStream());
    if (actual != firstTable)
        throw CError("Internal error. Stream position after writing VMDK grain directories is not the "
                     "expected on (expected: " +
                     toDecimal(firstTable) + " sectors, actual: " + toDecimal(actual) + " sectors)");
}

} // namespace

// directory | table 0 | table 1 | …            without markers
// directory | marker | table 0 | marker | …    with markers; entries point past the markers
void writeEmptyVMDKGrainDirectoryAndTables(CDataOutStream& out, int64 tableCount,
                                           const TBuffer<unsigned char>& zeros, bool withMarkers) {
    const int64 tableOffset = withMarkers ? markerSectors : 0;
    writeDirectory(out, tableCount, tableOffset + vmdkGrainTableSectors, tableOffset, zeros);
    constexpr int64 tableBytes = vmdkGrainTableSectors * vmdkSectorSize;
    if (!withMarkers) {
        writeZeros(out, tableCount * tableBytes, zeros);
        return;
    }
    for (int64 i = 0; i < tableCount; ++i) {
        writeVMDKMarker(out, MarkerGrainTable, vmdkGrainTableSectors, zeros);
        vmdkWritePadding(out.getStream(), static_cast<int>(tableBytes), zeros);
    }
}

// marker | directory | marker | table 0 | marker | table 1 | …
void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(CDataOutStream& out, int64 tableCount,
                                                                   const TBuffer<unsigned char>& zeros) {
    writeVMDKMarker(out, MarkerSlotSizeDirectory, vmdkDirectorySectors(tableCount), zeros);
    writeDirectory(out, tableCount, markerSectors + vmdkSlotSizeTableSectors, markerSectors, zeros);
    for (int64 i = 0; i < tableCount; ++i) {
        writeVMDKMarker(out, MarkerSlotSizeTable, vmdkSlotSizeTableSectors, zeros);
        vmdkWritePadding(out.getStream(), static_cast<int>(vmdkSlotSizeTableSectors * vmdkSectorSize), zeros);
    }
}

} // namespace tessel
