#pragma once

#include "Bytes.h"
#include "CFaultFileSystem.h"
#include "CRecordingStream.h"
#include "lum/CMemoryFileSystem.h"
#include "lum/LittleEndian.h"
#include "tessel/CVMDKGrainTable.h"

#include <gtest/gtest.h>

namespace tessel::test {

/// A file that holds a table whose entry i is 1000 + i, entry 0 being 0, and whose slot size is i % 7 + 1.
/// The redundant table holds other numbers, which nobody may take for the table.
class CGrainTableFixture : public ::testing::Test {
protected:
    using Operation = CRecordingStream::Operation;
    static constexpr int entryCount = 512;
    static constexpr int64 grainSize = 128;
    static constexpr int64 tableSector = 4;
    static constexpr int64 redundantSector = 12;
    static constexpr int64 slotSizeSector = 20;
    static constexpr int tableBytes = entryCount * 4;
    static constexpr int slotSizeBytes = entryCount * 2;

    static inline const Operation readTable{CRecordingStream::Read, tableSector * 512, tableBytes};
    static inline const Operation readSlotSizes{CRecordingStream::Read, slotSizeSector * 512, slotSizeBytes};
    static inline const Operation writeTable{CRecordingStream::Write, tableSector * 512, tableBytes};
    static inline const Operation writeRedundant{CRecordingStream::Write, redundantSector * 512, tableBytes};
    static inline const Operation writeSlotSizes{CRecordingStream::Write, slotSizeSector * 512,
                                                 slotSizeBytes};
    static inline const Operation flushStream{CRecordingStream::Flush};

    struct Info {
        int64 posSectors;
        int64 slotSizeSectors;

        friend bool operator==(const Info&, const Info&) = default;
    };

    void SetUp() override {
        Bytes bytes(24 * 512);
        for (int i = 0; i < entryCount; ++i) {
            storeLittleEndian<uint32>(&bytes[tableSector * 512 + i * 4], i == 0 ? 0 : 1000 + i);
            storeLittleEndian<uint32>(&bytes[redundantSector * 512 + i * 4], 77);
            storeLittleEndian<uint16>(&bytes[slotSizeSector * 512 + i * 2], static_cast<uint16>(i % 7 + 1));
        }
        openFile()->write(bytes.getData(), static_cast<int>(bytes.getUsed()));
        m_stream = new CRecordingStream(m_faults->openFile(m_uri, IIOStream::Access_ReadWrite).get());
    }

    P<IIOStream> openFile() const { return m_memory->openFile(m_uri, IIOStream::Access_ReadWrite); }
    Bytes file() const { return readAll(*openFile()); }
    uint32 fileEntry(int64 sector, int i) const {
        return loadLittleEndian<uint32>(file().getData() + sector * 512 + i * 4);
    }
    uint16 fileSlotSize(int i) const {
        return loadLittleEndian<uint16>(file().getData() + slotSizeSector * 512 + i * 2);
    }

    P<CVMDKGrainTable> open(bool withSlotSizes, IIOStream::Access access = IIOStream::Access_ReadWrite,
                            int64 redundantPosSectors = redundantSector) {
        return new CVMDKGrainTable(m_stream.get(), access, grainSize, tableSector, redundantPosSectors,
                                   withSlotSizes ? slotSizeSector : 0, entryCount);
    }
    static Info info(CVMDKGrainTable& table, int64 grainIndex) {
        Info info{};
        table.getGrainInfo(grainIndex, info.posSectors, info.slotSizeSectors);
        return info;
    }

    CURI m_uri{String("memory:/disk/table.vmdk")};
    String m_uriText{m_uri.toString(true)};
    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CFaultFileSystem> m_faults{new CFaultFileSystem(m_memory.get())};
    P<CRecordingStream> m_stream;
};

} // namespace tessel::test
