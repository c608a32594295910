#pragma once

#include "lum/IIOStream.h"
#include "tessel/CVMDKGrainDirectory.h"
#include "tessel/IVMDKGrainAllocator.h"

namespace tessel {

/// Appends slots at the end of an extent file's data and keeps the trail (the footer records of a
/// compressed extent) behind the newest one. Slots are never moved or used again.
class TESSEL_EXPORT CVMDKGrainAllocator : public CBase, public IVMDKGrainAllocator {
public:
    /// Slots begin at multiples of `slotAlignmentSectors`. When the file ends with
    /// `expectedTrailData`, new slots take its place; any other end is kept, with a warning, and the
    /// trail is written behind it. A file that ends within its metadata, which end at
    /// `metadataEndSectors`, takes neither slots nor a trail: both would come to lie where tables belong.
    CVMDKGrainAllocator(IIOStream* stream, IIOStream::Access access, int64 grainSizeSectors,
                        int64 slotAlignmentSectors, CVMDKGrainDirectory* directory,
                        const TBuffer<unsigned char>& expectedTrailData, int64 metadataEndSectors = 0);
    /// Flushes; a failure goes to onExceptionInDestructorIgnored.
    ~CVMDKGrainAllocator() override;
    CVMDKGrainAllocator(const CVMDKGrainAllocator&) = delete;
    CVMDKGrainAllocator& operator=(const CVMDKGrainAllocator&) = delete;

    /// Writes the slot, zeros up to its whole size, then sets the directory's entry: a failure leaves
    /// the grain as it was.
    /// Throws: CInvalidArgError when the slot is smaller than the data; CError without write access;
    /// CIOError 3 ("uri", "position", "slotSize") when the slot would end behind sector 2^32 or its
    /// size cannot be recorded, before anything is written; CIOError 5 ("uri", "fileSize", "metadataSize")
    /// when the file ends within its metadata, and as CVMDKGrainDirectory when the grain has no table; the
    /// stream's errors.
    int64 allocNewGrain(int64 grainIndex, const void* data, int dataSize, int slotSizeSectors) override;
    int64 allocNewGrainKeepBuffer(int64 grainIndex, const TConstBufferSlice<unsigned char>& data,
                                  int slotSizeSectors) override;

    /// The same for `count` neighbouring whole grains of an uncompressed extent, in neighbouring slots and
    /// one write; returns the first sector of the first.
    int64 allocNewGrainRun(int64 firstGrainIndex, const void* data, int count);

    /// Where the next slot is looked for: the end of the last one, or the start of the trail.
    int64 getDataEnd() const noexcept { return m_dataEnd; }
    /// Forgets that the trail is to be written, in a file that was opened but turned out to be another's.
    void leaveFileAlone() noexcept { m_trailDirty = false; }

    /// Writes the trail behind the data end if it is not there.
    void flushChangesToStream() override;

private:
    int64 allocNewGrainImpl(int64 grainIndex, const void* data, int64 dataSize,
                            const TConstBufferSlice<unsigned char>* slice, int slotSizeSectors);
    bool fileEndsWith(const TBuffer<unsigned char>& trail, int64 size);
    int64 findSlotPosition() const noexcept;
    void verifyMayAllocate() const;
    bool endsWithinMetadata() const noexcept { return m_dataEnd < m_metadataEnd; }
    void verifyCanAllocate(int64 grainIndex, int64 slotPosition, int slotSizeSectors);
    void beginSlot(int64 slotPosition);
    void writeZeros(int64 count);

    P<IIOStream> m_stream;
    IIOStream::Access m_access;
    P<CVMDKGrainDirectory> m_directory;
    int64 m_grainSizeBytes;
    int64 m_slotAlignmentBytes;
    TBuffer<unsigned char> m_zeros;
    bool m_trailDirty = false;
    TBuffer<unsigned char> m_trail;
    int64 m_dataEnd = 0;
    int64 m_metadataEnd;
};

} // namespace tessel
