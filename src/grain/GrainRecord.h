#pragma once

#include "format/RecordField.h"
#include "lum/LittleEndian.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKDataPreparer.h"

namespace tessel {

// The head of a compressed grain's record. The deflate stream follows it.
constexpr URecordField grainRecordPosition{0, 8};       // first sector of the grain on the disk
constexpr URecordField grainRecordCompressedSize{8, 4}; // bytes of the deflate stream
static_assert(fieldsCover(CVMDKDataPreparer::recordHeadSize, grainRecordPosition, grainRecordCompressedSize));

struct UGrainRecordHead {
    uint64 positionSectors;
    uint32 compressedSize;
};

/// Requires: `record` holds at least a head.
inline UGrainRecordHead loadGrainRecordHead(const unsigned char* record) noexcept {
    return {loadLittleEndian<uint64>(record + grainRecordPosition.offset),
            loadLittleEndian<uint32>(record + grainRecordCompressedSize.offset)};
}

inline void storeGrainRecordHead(unsigned char* record, const UGrainRecordHead& head) noexcept {
    storeLittleEndian(record + grainRecordPosition.offset, head.positionSectors);
    storeLittleEndian(record + grainRecordCompressedSize.offset, head.compressedSize);
}

/// Adds zeros up to a whole number of sectors.
inline void padToSector(TBuffer<unsigned char>& buffer) {
    const int64 used = buffer.getUsed();
    buffer.setUsed(roundUp(used, vmdkSectorSize));
    std::fill(buffer.getData() + used, buffer.getData() + buffer.getUsed(), 0);
}

} // namespace tessel
