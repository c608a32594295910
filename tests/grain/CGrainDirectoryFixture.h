#pragma once

#include "CTestExtent.h"
#include "lum/LittleEndian.h"
#include "tessel/CVMDKGrainDirectory.h"
#include "tessel/VMDKMarker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace tessel::test {

/// An extent whose tables cover 512 grains each, with the places of its directories in the file.
class CGrainDirectoryFixture : public ::testing::Test {
protected:
    static constexpr int64 tableBytes = 2048;
    static constexpr int64 slotSizeTableBytes = 1024;

    void make(bool compressed, int64 tableCount, int64 grainSizeSectors = 8) {
        m_extent = std::make_unique<CTestExtent>(CTestExtent::Settings{
            .compressed = compressed, .grainCount = tableCount * 512, .grainSizeSectors = grainSizeSectors});
        m_tableCount = tableCount;
    }

    int64 directoryByte(int64 tableIndex) const {
        return static_cast<int64>(m_extent->header().getGrainDirectoryOffsetSectors()) * 512 + tableIndex * 4;
    }
    int64 redundantDirectoryByte(int64 tableIndex) const {
        return static_cast<int64>(m_extent->header().getRedundantGrainDirectoryOffsetSectors()) * 512 +
               tableIndex * 4;
    }
    /// Behind the last table of both directories.
    int64 markerSector() const {
        return std::max(m_extent->fileUInt32(directoryByte(m_tableCount - 1)),
                        m_extent->fileUInt32(redundantDirectoryByte(m_tableCount - 1))) +
               tableBytes / 512;
    }
    int64 slotSizeDirectoryByte(int64 tableIndex) const {
        return (markerSector() + 1) * 512 + tableIndex * 4;
    }

    Bytes marker(int64 value) const {
        Bytes sector(512);
        storeLittleEndian(sector.getData(), static_cast<uint64>(value));
        storeLittleEndian<uint32>(sector.getData() + 12, MarkerSlotSizeDirectory);
        return sector;
    }

    /// The directory with other numbers than the file's header gives.
    P<CVMDKGrainDirectory> makeDirectory(bool compressed, int64 overheadSectors = -1) {
        const CVMDKSparseExtentHeader& header = m_extent->header();
        return makeDirectory(static_cast<int64>(header.getGrainDirectoryOffsetSectors()),
                             static_cast<int64>(header.getRedundantGrainDirectoryOffsetSectors()),
                             static_cast<int64>(header.getCapacitySectors()),
                             m_extent->settings().grainSizeSectors, 512, compressed, overheadSectors);
    }
    P<CVMDKGrainDirectory> makeDirectory(int64 posSectors, int64 redundantPosSectors, int64 capacitySectors,
                                         int64 grainSizeSectors, int entriesPerTable, bool compressed = false,
                                         int64 overheadSectors = -1) {
        m_recorder =
            new CRecordingStream(m_extent->faults().openFile(m_extent->uri(), IIOStream::Access_Read).get());
        return new CVMDKGrainDirectory(m_recorder.get(), IIOStream::Access_Read, posSectors,
                                       redundantPosSectors, capacitySectors, grainSizeSectors,
                                       entriesPerTable, compressed, m_cache.get(), overheadSectors);
    }

    std::unique_ptr<CTestExtent> m_extent;
    int64 m_tableCount = 0;
    P<CVMDKGrainTableCache> m_cache{new CVMDKGrainTableCache};
    P<CRecordingStream> m_recorder;
};

} // namespace tessel::test
