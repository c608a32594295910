#pragma once

#include "disk/CCheckedExtent.h"
#include "disk/DiskKeys.h"
#include "tessel/CVMDKCompressor.h"

namespace tessel {

/// Looks at what the slots of an extent hold.
class CGrainRecordChecker {
public:
    /// `extent` is borrowed, and `keys`, which are null where no encrypted contents are looked at.
    CGrainRecordChecker(CCheckedExtent& extent, bool isEncrypted, const UDiskKeys* keys);

    /// The slot size that a compressed grain's record can need at most, in sectors.
    int64 getLargestRecordSectors() const noexcept { return m_largestRecordSectors; }

    /// Whether the record at a sector begins as one of this grain.
    bool isRecordOf(int64 posSectors, int64 grainIndex);
    /// How many sectors the record at a sector takes by what it says itself; 1 when that cannot be.
    int64 measureRecord(int64 posSectors);
    /// Whether there is the beginning of a record of some grain of this extent, behind all slots.
    bool isAnyRecord(int64 posSectors);

    /// Finds what is wrong with the contents of a slot, which lies in the file.
    void check(int64 grainIndex, int64 posSectors, int64 slotSectors);

private:
    struct UHead {
        uint64 posSectors;
        int64 compressedSize;
    };

    uint64 calcRecordPosition(int64 grainIndex) const noexcept;
    bool tryReadHead(int64 posSectors, UHead& head);
    int64 calcPayloadBytes(int64 compressedSize) const noexcept;
    int64 calcRecordSectors(int64 compressedSize) const noexcept;
    int64 calcLeastGrainBytes(int64 grainIndex) const noexcept;
    void checkPlain(int64 grainIndex, int64 posSectors);
    void checkRecord(int64 grainIndex, int64 posSectors, int64 slotSectors);
    void checkData(int64 grainIndex, int64 posSectors, int64 compressedSize);
    UVMDKCheckFinding makeFinding(UVMDKCheckFinding::Kind kind, int64 grainIndex, int64 posSectors,
                                  const String& message) const;

    CCheckedExtent* m_extent;
    const UDiskKeys* m_keys;
    /// What is stored of a record's data is a multiple of this.
    int64 m_blockBytes;
    CVMDKCompressor m_compressor;
    int64 m_largestRecordSectors;
    TBuffer<unsigned char> m_record;
    TBuffer<unsigned char> m_decrypted;
    TBuffer<unsigned char> m_grain;
    TBuffer<unsigned char> m_iv;
};

} // namespace tessel
