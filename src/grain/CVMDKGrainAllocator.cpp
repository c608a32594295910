#include "tessel/CVMDKGrainAllocator.h"

#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"
#include "lum/Logging.h"
#include "lum/Numbers.h"

#include <algorithm>

namespace tessel {

namespace {

/// Grain table entries are 32 bits, slot size table entries 16.
constexpr int64 maxFileSectors = int64{1} << 32;
constexpr int64 maxRecordedSlotSize = 0xFFFF;

} // namespace

CVMDKGrainAllocator::CVMDKGrainAllocator(IIOStream* stream, IIOStream::Access access, int64 grainSizeSectors,
                                         int64 slotAlignmentSectors, CVMDKGrainDirectory* directory,
                                         const TBuffer<unsigned char>& expectedTrailData,
                                         int64 metadataEndSectors)
    : m_stream(stream),
      m_access(access),
      m_directory(directory),
      m_grainSizeBytes(grainSizeSectors * vmdkSectorSize),
      m_slotAlignmentBytes(slotAlignmentSectors * vmdkSectorSize),
      m_trail(expectedTrailData),
      m_metadataEnd(metadataEndSectors * vmdkSectorSize) {
    const int64 size = stream->getLength();
    m_dataEnd = size;
    if (m_trail.isEmpty())
        return;
    if (fileEndsWith(m_trail, size)) {
        m_dataEnd = size - m_trail.getUsed();
        return;
    }
    logWarning("VMDK trail data is not what we expected. Assuming that it is not trail data - we won't "
               "overwrite it.");
    m_trailDirty = access != IIOStream::Access_Read && !endsWithinMetadata();
}

CVMDKGrainAllocator::~CVMDKGrainAllocator() {
    try {
        CVMDKGrainAllocator::flushChangesToStream();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("tessel::CVMDKGrainAllocator", error, true);
    }
}

bool CVMDKGrainAllocator::fileEndsWith(const TBuffer<unsigned char>& trail, int64 size) {
    if (size < trail.getUsed())
        return false;
    const int64 oldPosition = m_stream->getPosition();
    TBuffer<unsigned char> end(trail.getUsed());
    m_stream->seek(size - end.getUsed());
    m_stream->read(end.getData(), static_cast<int>(end.getUsed()));
    m_stream->seek(oldPosition);
    return end == trail;
}

int64 CVMDKGrainAllocator::allocNewGrain(int64 grainIndex, const void* data, int dataSize,
                                         int slotSizeSectors) {
    return allocNewGrainImpl(grainIndex, data, dataSize, nullptr, slotSizeSectors);
}

int64 CVMDKGrainAllocator::allocNewGrainKeepBuffer(int64 grainIndex,
                                                   const TConstBufferSlice<unsigned char>& data,
                                                   int slotSizeSectors) {
    return allocNewGrainImpl(grainIndex, data.getData(), data.getLength(), &data, slotSizeSectors);
}

void CVMDKGrainAllocator::verifyCanAllocate(int64 grainIndex, int64 slotPosition, int slotSizeSectors) {
    const int64 slotSector = slotPosition / vmdkSectorSize;
    const bool positionFits = slotSector + slotSizeSectors <= maxFileSectors;
    const bool sizeFits = !m_directory->getHaveSlotSizeInfo() || slotSizeSectors <= maxRecordedSlotSize;
    if (!positionFits || !sizeFits) {
        const String problem = positionFits
                                   ? "its slot is larger than " + toDecimal(maxRecordedSlotSize) + " sectors"
                                   : String("the extent file would grow beyond 2 TiB");
        throw CIOError(CIOError::Code_WriteBeyondEnd,
                       "VMDK grain cannot be stored: " + problem + " (position: " + toDecimal(slotPosition) +
                           ", slot size: " + toDecimal(slotSizeSectors) + " sectors).",
                       CProps()
                           .add("uri", m_stream->getURI().toString(true))
                           .add("position", slotPosition)
                           .add("slotSize", slotSizeSectors));
    }
    // A table that cannot be had is met before the slot is written, not behind it.
    int64 oldPosSectors = 0;
    int64 oldSlotSizeSectors = 0;
    const int entriesPerTable = m_directory->getEntriesPerTable();
    m_directory->getGrainTable(grainIndex / entriesPerTable)
        ->getGrainInfo(grainIndex % entriesPerTable, oldPosSectors, oldSlotSizeSectors);
}

void CVMDKGrainAllocator::writeZeros(int64 count) {
    if (m_zeros.isEmpty())
        m_zeros.setUsed(std::max(2 * m_grainSizeBytes, m_slotAlignmentBytes));
    while (count > 0) {
        const int64 piece = std::min(count, m_zeros.getUsed());
        m_stream->write(m_zeros.getData(), static_cast<int>(piece), nullptr);
        m_dataEnd += piece;
        count -= piece;
    }
}

void CVMDKGrainAllocator::verifyMayAllocate() const {
    if (m_access == IIOStream::Access_Read)
        throw CError("Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator "
                     "was not opened for writing.");
    if (endsWithinMetadata())
        throw CIOError(CIOError::Code_BadFormat,
                       "VMDK grain cannot be stored: the extent file ends within its metadata (file size: " +
                           toDecimal(m_dataEnd) + " bytes, metadata: " + toDecimal(m_metadataEnd) +
                           " bytes).",
                       CProps()
                           .add("uri", m_stream->getURI().toString(true))
                           .add("fileSize", m_dataEnd)
                           .add("metadataSize", m_metadataEnd));
}

int64 CVMDKGrainAllocator::findSlotPosition() const noexcept {
    return roundUp(m_dataEnd, m_slotAlignmentBytes);
}

// What is written from here on lies where the trail was.
void CVMDKGrainAllocator::beginSlot(int64 slotPosition) {
    m_stream->seek(m_dataEnd);
    m_trailDirty = true;
    writeZeros(slotPosition - m_dataEnd);
}

int64 CVMDKGrainAllocator::allocNewGrainImpl(int64 grainIndex, const void* data, int64 dataSize,
                                             const TConstBufferSlice<unsigned char>* slice,
                                             int slotSizeSectors) {
    const int64 slotBytes = slotSizeSectors * vmdkSectorSize;
    if (slotBytes < dataSize)
        throw CInvalidArgError(
            "CVMDKGrainAllocator::allocNewGrain",
            "Slot size is smaller than grain data size (slot size: " + toDecimal(slotBytes) +
                " bytes, grain data size: " + toDecimal(dataSize) + " bytes)");
    verifyMayAllocate();
    const int64 slotPosition = findSlotPosition();
    verifyCanAllocate(grainIndex, slotPosition, slotSizeSectors);
    beginSlot(slotPosition);
    if (slice)
        m_stream->writeKeepBuffer(*slice, nullptr);
    else
        m_stream->write(data, static_cast<int>(dataSize), nullptr);
    m_dataEnd = slotPosition + dataSize;
    writeZeros(slotBytes - dataSize);
    m_directory->setGrainInfo(grainIndex, slotPosition / vmdkSectorSize, slotSizeSectors);
    return slotPosition / vmdkSectorSize;
}

int64 CVMDKGrainAllocator::allocNewGrainRun(int64 firstGrainIndex, const void* data, int count) {
    verifyMayAllocate();
    const int64 slotPosition = findSlotPosition();
    const int64 grainSizeSectors = m_grainSizeBytes / vmdkSectorSize;
    for (int i = 0; i < count; ++i)
        verifyCanAllocate(firstGrainIndex + i, slotPosition + i * m_grainSizeBytes,
                          static_cast<int>(grainSizeSectors));
    beginSlot(slotPosition);
    m_stream->write(data, static_cast<int>(count * m_grainSizeBytes), nullptr);
    m_dataEnd = slotPosition + count * m_grainSizeBytes;
    const int64 firstSector = slotPosition / vmdkSectorSize;
    for (int i = 0; i < count; ++i)
        m_directory->setGrainInfo(firstGrainIndex + i, firstSector + i * grainSizeSectors, grainSizeSectors);
    return firstSector;
}

void CVMDKGrainAllocator::flushChangesToStream() {
    if (!m_trailDirty || m_trail.isEmpty())
        return;
    m_stream->seek(m_dataEnd);
    m_stream->write(m_trail.getData(), static_cast<int>(m_trail.getUsed()), nullptr);
    m_trailDirty = false;
}

} // namespace tessel
