// Files with uncommon slots: what others, accidents and large disks leave behind.

#include "ExtentFixture.h"
#include "lum/CBufferStream.h"
#include "lum/CDataOutStream.h"
#include "tessel/VMDKMarker.h"

#include <map>
#include <random>

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;

class CVMDKSparseExtentFileSlotsTest : public ExtentTest {
protected:
    int64 getTable() const { return int64{loadNumber(int64{loadNumber(Field_Directory)} * 512)} * 512; }
    /// Of a compressed extent of one table.
    int64 getSlotSizeTable() const { return getTable() + 2048 + 3 * 512; }

    static void getSlot(CVMDKSparseExtentFile& extent, int64 grainIndex, int64& position, int64& size) {
        extent.getGrainDirectory().getGrainInfo(grainIndex, position, size);
    }
};

/// A sector that looks like the announcement of a slot size directory of one sector.
Bytes makeSlotSizeMarker() {
    Bytes sector;
    const P<CBufferStream> stream(new CBufferStream(&sector, 2.0));
    CDataOutStream out(stream.get());
    writeVMDKMarker(out, MarkerSlotSizeDirectory, 1, Bytes(512));
    return sector;
}

} // namespace

TEST_F(CVMDKSparseExtentFileSlotsTest, SeekWhoseOpenFailsLeavesPositionAndGrainRight) {
    // A plain extent with slot sizes, of which one is smaller than a grain.
    createExtent({.compressed = true});
    patchFile<uint32>(Field_Flags, 0x3);
    patchFile<uint32>(getTable() + 3 * 4, loadNumber(Field_Overhead));
    patchFile<uint16>(getSlotSizeTable() + 3 * 2, 7);
    patchFile<uint32>(getTable() + 7 * 4, loadNumber(Field_Overhead));
    patchFile<uint16>(getSlotSizeTable() + 7 * 2, 8);
    storeFile([this] {
        Bytes file = loadFile();
        file.append(Bytes(grainSize).getData(), grainSize);
        return file;
    }());

    const auto extent = openExtent();
    writeAt(*extent, 100, patternBytes(50));
    extent->seek(100);
    const String message("Slot size for allocated uncompressed grain is smaller than the grain size (slot "
                         "size: 7 sectors, grain size: 8 sectors");
    EXPECT_INVALID_ARG_ERROR(extent->seek(3 * grainSize + 5), "CVMDKGrain::open", message);
    EXPECT_EQ(extent->getPosition(), 100);
    Bytes data(50);
    extent->read(data.getData(), 50); // the change was not lost with the grain that was left for it
    EXPECT_EQ(data, patternBytes(50));

    EXPECT_INVALID_ARG_ERROR(extent->seek(3 * grainSize), "CVMDKGrain::open", message);
    extent->write(data.getData(), 50);
    EXPECT_EQ(extent->getPosition(), 200);
    EXPECT_EQ(readAt(*extent, 150, 50), patternBytes(50));
    EXPECT_EQ(readAt(*extent, 7 * grainSize + 1536, 100), Bytes(100)); // the other one opens
    EXPECT_INVALID_ARG_ERROR(extent->makeGrainIndependentOfParent(3), "CVMDKGrain::open", message);
    EXPECT_EQ(readAt(*extent, 100, 50), patternBytes(50));
    extent->flushChanges();
}

TEST_F(CVMDKSparseExtentFileSlotsTest, RewriteOfACompressedGrainStaysWhereItFits) {
    createExtent({.compressed = true});
    auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(1500, 1));
    extent->flushChanges();
    int64 position = 0;
    int64 size = 0;
    getSlot(*extent, 0, position, size);
    EXPECT_EQ(position, loadNumber(Field_Overhead));
    EXPECT_LE(size, 4);

    writeAt(*extent, 0, Bytes(grainSize)); // shrinks
    extent->flushChanges();
    int64 newPosition = 0;
    int64 newSize = 0;
    getSlot(*extent, 0, newPosition, newSize);
    EXPECT_EQ(newPosition, position);
    EXPECT_EQ(newSize, size);

    writeAt(*extent, 0, randomBytes(grainSize, 1)); // grows beyond the slot
    extent->flushChanges();
    getSlot(*extent, 0, newPosition, newSize);
    EXPECT_EQ(newPosition, position + size);
    EXPECT_EQ(newSize, extent->createDataPreparer()->getWorstCaseGrainSizeSectors());
    extent = nullptr;
    EXPECT_EQ(readAt(*openExtent(), 0, grainSize), randomBytes(grainSize, 1));
}

// Where the tables end exactly at the overhead, the sector behind them is the guest's.
TEST_F(CVMDKSparseExtentFileSlotsTest, GuestDataAreNotTakenForMetadata) {
    createExtent({.grainCount = 20, .grainSizeSectors = 1});
    ASSERT_EQ(loadNumber(Field_Overhead) * 512, getTable() + 2048);
    {
        const auto extent = openExtent();
        writeAt(*extent, 0, makeSlotSizeMarker());
        writeAt(*extent, 512, randomBytes(512, 1));
        extent->flushChanges();
        int64 position = 0;
        int64 size = 0;
        getSlot(*extent, 0, position, size);
        ASSERT_EQ(position, loadNumber(Field_Overhead)); // right behind the tables
    }
    const auto extent = openExtent();
    EXPECT_FALSE(extent->getGrainDirectory().getHaveSlotSizeInfo());
    EXPECT_EQ(readAt(*extent, 0, 512), makeSlotSizeMarker());
    EXPECT_EQ(readAt(*extent, 512, 512), randomBytes(512, 1));
    writeAt(*extent, 1024, randomBytes(1024, 2));
    extent->flushChanges();
    EXPECT_EQ(readAt(*extent, 1024, 1024), randomBytes(1024, 2));
}

TEST_F(CVMDKSparseExtentFileSlotsTest, FileGrowsNoFurtherThanItsTablesCanName) {
    createExtent({});
    const int64 limit = (int64{1} << 32) * 512; // sector 2^32
    {
        // All but the last slot below the limit is taken.
        m_memory->openFile(extentURI, IIOStream::Access_ReadWrite)->setLength(limit - grainSize);
    }
    auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(grainSize, 1));
    extent->flushChanges();
    // The grain as a whole, and a part of it, which is kept until the flush.
    for (const int64 size : {grainSize, grainSize - 1})
        EXPECT_LUM_ERROR(
            {
                writeAt(*extent, grainSize, randomBytes(size, 2));
                extent->flushChanges();
            },
            CIOError, 3,
            "VMDK grain cannot be stored: the extent file would grow beyond 2 TiB (position: 2199023255552, "
            "slot size: 8 sectors).",
            {{"uri", extentName}, {"position", "2199023255552"}, {"slotSize", "8"}});
    EXPECT_EQ(extent->getStream()->getLength(), limit);
    extent = nullptr; // the grain that cannot be stored is reported
    EXPECT_GE(takeLog().size(), 1U);
    extent = openExtent();
    EXPECT_EQ(readAt(*extent, 0, grainSize), randomBytes(grainSize, 1));
    EXPECT_EQ(readAt(*extent, grainSize, grainSize), Bytes(grainSize));
    int64 position = 0;
    int64 size = 0;
    getSlot(*extent, 0, position, size);
    EXPECT_EQ(position, (int64{1} << 32) - 8);
}

TEST_F(CVMDKSparseExtentFileSlotsTest, RunsOfSlotsAreFoundTableByTable) {
    createExtent({.grainCount = 1030, .grainSizeSectors = 1});
    const auto extent = openExtent();
    writeAt(*extent, 3 * 512, patternBytes(4 * 512));
    writeAt(*extent, 511 * 512, patternBytes(2 * 512));
    bool hasSlot = true;
    const auto runAt = [&](int64 grainIndex) { return extent->findSlotRun(grainIndex, hasSlot); };
    EXPECT_EQ(runAt(0), 3);
    EXPECT_FALSE(hasSlot);
    EXPECT_EQ(runAt(3), 4);
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(runAt(5), 2);
    EXPECT_EQ(runAt(511), 1); // to the table's end
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(runAt(512), 1);
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(runAt(513), 511);
    EXPECT_FALSE(hasSlot);
    EXPECT_EQ(runAt(1024), 6);
}

// Tables come and go 32 at a time; what only the cache knew must not be lost to the copy in the file.
TEST_F(CVMDKSparseExtentFileSlotsTest, NoEntryIsLostWhateverTheCacheHolds) {
    constexpr int64 tableCount = 70;
    constexpr int64 sectorCount = tableCount * 512;
    for (const bool compressed : {false, true})
        for (const int limit : {0, 1, 31, 32, 33}) {
            SCOPED_TRACE(::testing::Message() << (compressed ? "compressed, " : "plain, ") << limit);
            createExtent({.compressed = compressed, .grainCount = sectorCount, .grainSizeSectors = 1});
            m_cache = new CVMDKGrainTableCache(limit);
            std::map<int64, unsigned int> model; // seed by sector
            auto extent = openExtent();
            std::mt19937 twister(static_cast<unsigned int>(limit));
            const auto contentsOf = [&](int64 sector) {
                const auto found = model.find(sector);
                return found == model.end() ? Bytes(512) : randomBytes(512, found->second);
            };
            for (unsigned int i = 1; i <= 400; ++i) {
                const int64 sector = (twister() % 200) * 179 % sectorCount;
                ASSERT_EQ(readAt(*extent, sector * 512, 512), contentsOf(sector)) << i;
                writeAt(*extent, sector * 512, randomBytes(512, i));
                model[sector] = i;
                if (i % 97 == 0)
                    extent->flushChanges();
            }
            extent = nullptr;
            m_cache = new CVMDKGrainTableCache;
            extent = openExtent({.access = IIOStream::Access_Read});
            for (const auto& [sector, seed] : model)
                ASSERT_EQ(readAt(*extent, sector * 512, 512), randomBytes(512, seed)) << sector;
            EXPECT_EQ(extent->gatherSpaceInfo()->getPayloadSize(), static_cast<int64>(model.size()) * 512);
        }
}

} // namespace tessel::test
