// Tables of other lengths than this library makes, as a header may say.

#include "DiskTest.h"
#include "lum/CBufferStream.h"
#include "lum/CDataOutStream.h"
#include "lum/LittleEndian.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKFileReference.h"
#include "tessel/VMDKMarker.h"

#include <algorithm>

using namespace tessel;
using namespace tessel::test;

namespace {

constexpr int64 sector = 512;
constexpr int64 grainSectors = 8;
constexpr int64 smallGrain = grainSectors * sector;
constexpr int64 grainCount = 2500;
constexpr int64 diskSize = grainCount * smallGrain;

struct UTables {
    int entries;
    bool compressed;
};

void PrintTo(const UTables& tables, std::ostream* out) {
    *out << (tables.compressed ? "Compressed" : "Plain") << tables.entries;
}

/// An extent put together by hand, with the places of its tables.
class CVMDKDiskTableSizesTest : public DiskTest, public ::testing::WithParamInterface<UTables> {
protected:
    void SetUp() override {
        const int64 entries = GetParam().entries;
        const int64 tables = divideRoundingUp(grainCount, entries);
        const int64 directorySectors = divideRoundingUp(tables * 4, sector);
        const int64 tableSectors = divideRoundingUp(entries * 4, sector);
        const int64 slotSizeSectors = divideRoundingUp(entries * 2, sector);
        int64 next = 1;
        const auto take = [&next](int64 count) { return std::exchange(next, next + count); };
        const auto store = [this](int64 position, uint32 value) {
            unsigned char bytes[4];
            storeLittleEndian(bytes, value);
            std::copy_n(bytes, 4, m_file.begin() + position);
        };
        m_file.resize(4 * MiB);

        int64 directories[2];
        for (int64& directory : directories) {
            directory = take(directorySectors);
            for (int64 table = 0; table < tables; ++table) {
                const int64 place = take(tableSectors);
                store(directory * sector + table * 4, static_cast<uint32>(place));
                (directory == directories[0] ? m_tables : m_redundantTables).push_back(place * sector);
            }
        }
        if (GetParam().compressed) {
            // The marker stands behind the last table, however long that is.
            const int64 markerPlace = take(1);
            const int64 directory = take(directorySectors);
            TBuffer<unsigned char> marker;
            const P<CBufferStream> stream(new CBufferStream(&marker, 2.0));
            CDataOutStream out(stream.get());
            writeVMDKMarker(out, MarkerSlotSizeDirectory, directorySectors, TBuffer<unsigned char>(sector));
            std::copy_n(marker.getData(), marker.getUsed(), m_file.begin() + markerPlace * sector);
            for (int64 table = 0; table < tables; ++table) {
                const int64 place = take(slotSizeSectors);
                store(directory * sector + table * 4, static_cast<uint32>(place));
                m_slotSizeTables.push_back(place * sector);
            }
        }
        m_overhead = roundUp(next, grainSectors);

        const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
        header->setVersion(1);
        header->setFlags(GetParam().compressed ? 0x30003 : 0x3);
        header->setCapacitySectors(grainCount * grainSectors);
        header->setGrainSizeSectors(grainSectors);
        header->setGrainTableEntryCount(static_cast<unsigned int>(entries));
        header->setGrainDirectoryOffsetSectors(static_cast<uint64>(directories[0]));
        header->setRedundantGrainDirectoryOffsetSectors(static_cast<uint64>(directories[1]));
        header->setOverheadSectors(static_cast<uint64>(m_overhead));
        header->setCompressAlgorithm(GetParam().compressed ? 1 : 0);
        TBuffer<unsigned char> bytes;
        const P<CBufferStream> stream(new CBufferStream(&bytes, 2.0));
        CDataOutStream out(stream.get());
        header->store(out);
        std::copy_n(bytes.getData(), bytes.getUsed(), m_file.begin());
        m_file.resize(static_cast<std::size_t>(m_overhead * sector));
        putFile("a.vmdk", m_file);
        putSplitDescriptor({"RW " + std::to_string(grainCount * grainSectors) + " SPARSE \"a.vmdk\""});
    }

    std::string m_file;
    std::vector<int64> m_tables;
    std::vector<int64> m_redundantTables;
    std::vector<int64> m_slotSizeTables;
    int64 m_overhead = 0;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskTableSizesTest,
                         ::testing::Values(UTables{128, false}, UTables{128, true}, UTables{1024, false},
                                           UTables{1024, true}, UTables{100, false}, UTables{100, true},
                                           UTables{1, false}, UTables{1, true}, UTables{4096, true}),
                         [](const auto& tables) { return ::testing::PrintToString(tables.param); });

TEST_P(CVMDKDiskTableSizesTest, GrainsAreFoundInTheirTablesAndReadBack) {
    const int64 entries = GetParam().entries;
    const int64 grains[] = {0, 1, entries - 1, entries, 2 * entries + 1, 1023, 1024, grainCount - 1};
    Bytes model = zeroBytes(diskSize);
    {
        const P<CVMDKDisk> disk = open();
        ASSERT_EQ(disk->getSizeBytes(), diskSize);
        ASSERT_EQ(disk->getCompressed(), GetParam().compressed);
        unsigned seed = 0;
        for (const int64 grain : grains) {
            if (grain >= grainCount)
                continue;
            // Across the grain's start wherever that is not the disk's.
            const int64 position = std::max<int64>(grain * smallGrain - 100, 0);
            const Bytes data = randomBytes(++seed, 3000);
            writeAt(*disk, position, data);
            std::copy(data.begin(), data.end(), model.begin() + position);
        }
        const Bytes run = randomBytes(99, 300 * smallGrain); // over several tables where they are short
        writeAt(*disk, 1500 * smallGrain, run);
        std::copy(run.begin(), run.end(), model.begin() + 1500 * smallGrain);
        EXPECT_EQ(readAll(*disk), model);
        takeLog(); // that the new file has no trail yet
    }
    EXPECT_EQ(readAll(*openForReading()), model);

    // Both tables and the slot sizes stand where the directories say.
    const std::string file = getFile("a.vmdk");
    const auto number = [&file](int64 position, int width) {
        int64 value = 0;
        for (int i = 0; i < width; ++i)
            value |= int64{static_cast<unsigned char>(file[static_cast<std::size_t>(position + i)])}
                     << (8 * i);
        return value;
    };
    for (int64 grain = 0; grain < grainCount; ++grain) {
        const auto table = static_cast<std::size_t>(grain / entries);
        const int64 entry = number(m_tables[table] + grain % entries * 4, 4);
        const auto start = model.begin() + grain * smallGrain;
        const bool isZero = std::all_of(start, start + smallGrain, [](unsigned char b) { return b == 0; });
        ASSERT_EQ(entry == 0, isZero) << "grain " << grain;
        ASSERT_TRUE(entry == 0 || entry >= m_overhead) << "grain " << grain;
        ASSERT_EQ(number(m_redundantTables[table] + grain % entries * 4, 4), entry) << "grain " << grain;
        if (GetParam().compressed) {
            const int64 size = number(m_slotSizeTables[table] + grain % entries * 2, 2);
            ASSERT_EQ(size == 0, isZero) << "grain " << grain;
        }
    }
}

TEST_P(CVMDKDiskTableSizesTest, DirectoryAndExtentCountByTheirTables) {
    const P<CVMDKSparseExtentFile> extent(new CVMDKSparseExtentFile(
        openVMDKFileStream(m_memory.get(), uri("a.vmdk"), forReading).get(), forReading, 0, -1,
        P<CVMDKGrainTableCache>(new CVMDKGrainTableCache).get(), nullptr, nullptr, nullptr,
        TCryptBuffer<unsigned char>(), TBuffer<unsigned char>()));
    EXPECT_EQ(extent->getGrainDirectory().getEntriesPerTable(), GetParam().entries);
    EXPECT_EQ(extent->getGrainDirectory().getTableCount(), static_cast<int64>(m_tables.size()));
    EXPECT_EQ(extent->getGrainDirectory().getGrainCount(), grainCount);
    EXPECT_EQ(extent->getGrainDirectory().getHaveSlotSizeInfo(), GetParam().compressed);
    bool hasSlot = true;
    EXPECT_EQ(extent->findSlotRun(0, hasSlot), std::min<int64>(GetParam().entries, grainCount))
        << "up to the table's end";
    EXPECT_FALSE(hasSlot);
    takeLog(); // that the new file has no trail yet
}
