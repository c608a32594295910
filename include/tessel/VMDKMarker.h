#pragma once

#include "lum/CDataOutStream.h"
#include "tessel/types.h"

namespace tessel {

/// Types of the marker sectors that stand before the metadata of compressed extents, as in VMware's
/// "Virtual Disk Format 5.0" (stream-optimized extents), and two of the library's own.
enum VMDKMarkerID : unsigned int {
    MarkerEndOfStream = 0,                ///< the last sector; value 0
    MarkerGrainTable = 1,                 ///< before a grain table; value: its sectors
    MarkerGrainDirectory = 2,             ///< before a grain directory; value: its sectors
    MarkerFooter = 3,                     ///< before the footer; value 1
    MarkerSlotSizeTable = 0x18349001,     ///< private: before a slot size table; value: its sectors
    MarkerSlotSizeDirectory = 0x18349002, ///< private: before the slot size directory; value: its sectors
};

/// True when the 512 bytes at `sector` are a metadata marker of this type: size 0, the type, and zeros
/// to the end. `value`, which may be null, receives the marker's value, or 0 when it is none.
TESSEL_EXPORT bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID type, int64* value);

/// Writes a marker sector, 512 bytes. `zeros` holds at least 496 zero bytes.
/// Throws: CInvalidArgError when it holds fewer.
TESSEL_EXPORT void writeVMDKMarker(CDataOutStream& out, VMDKMarkerID type, int64 value,
                                   const TBuffer<unsigned char>& zeros);

/// Writes `count` bytes taken from the start of `padding`, again and again where it is shorter. Does
/// nothing for a count below 1.
/// Throws: CInvalidArgError when there is something to write and `padding` is empty.
TESSEL_EXPORT void vmdkWritePadding(IOutStream& out, int count, const TBuffer<unsigned char>& padding);

/// The stream's position in sectors.
/// Throws: CError when it is no whole number of sectors ("uri", "position").
TESSEL_EXPORT int64 getStreamPositionVMDKSectors(IStreamBase& stream);

} // namespace tessel
