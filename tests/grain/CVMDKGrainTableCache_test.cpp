#include "tessel/CVMDKGrainTableCache.h"

#include "Bytes.h"
#include "CFaultFileSystem.h"
#include "CRecordingStream.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"

#include <gmock/gmock.h>

#include <algorithm>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// Directories are only names to the cache.
CVMDKGrainDirectory* fakeDirectory(std::uintptr_t address) {
    return reinterpret_cast<CVMDKGrainDirectory*>(address);
}

CVMDKGrainDirectory* const directoryA = fakeDirectory(0x1000);
CVMDKGrainDirectory* const directoryB = fakeDirectory(0x2000);

/// Tables of one entry; the table of sector n, as long as nothing is written, says that its grain has no
/// slot.
class CVMDKGrainTableCacheTest : public ::testing::Test {
protected:
    CVMDKGrainTableCacheTest() {
        m_stream = new CRecordingStream(m_faults->openFile(m_uri, IIOStream::Access_ReadWrite).get());
        m_stream->setLength(64 * 512);
    }

    P<CVMDKGrainTable> makeTable(int64 sector) {
        P<CVMDKGrainTable> table(
            new CVMDKGrainTable(m_stream.get(), IIOStream::Access_ReadWrite, 8, sector, 0, 0, 1));
        m_stream->takeOperations();
        return table;
    }
    P<CVMDKGrainTable> makeChangedTable(int64 sector, int64 value = 5) {
        P<CVMDKGrainTable> table = makeTable(sector);
        table->setGrainInfo(0, value, 8);
        return table;
    }
    uint32 entryInFile(int64 sector) {
        int64 posSectors = 0;
        int64 slotSizeSectors = 0;
        makeTable(sector)->getGrainInfo(0, posSectors, slotSizeSectors);
        return static_cast<uint32>(posSectors);
    }
    /// Sectors that were written since last asked.
    TArray<int64> takeWrittenSectors() {
        TArray<int64> sectors;
        for (const auto& operation : m_stream->takeOperations())
            if (operation.kind == CRecordingStream::Write)
                sectors.push_back(operation.position / 512);
        return sectors;
    }

    void fill(CVMDKGrainTableCache& cache, CVMDKGrainDirectory* directory, int64 count) {
        for (int64 i = 0; i < count; ++i)
            cache.setCachedTable(directory, i, makeTable(0).get());
    }
    /// The indices, of the first `count`, that are cached. Leaves the order of use as it is.
    static TArray<int64> cachedIndices(const CVMDKGrainTableCache& cache, CVMDKGrainDirectory* directory,
                                       int64 count) {
        TArray<int64> indices;
        for (int64 i = 0; i < count; ++i)
            if (cache.hasCachedTables(directory, i, i + 1))
                indices.push_back(i);
        return indices;
    }

    CURI m_uri{String("memory:/disk/tables.vmdk")};
    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CFaultFileSystem> m_faults{new CFaultFileSystem(m_memory.get())};
    P<CRecordingStream> m_stream;
};

// --- Looking up and storing ---

TEST_F(CVMDKGrainTableCacheTest, FindsWhatWasStoredUnderItsDirectoryAndIndex) {
    CVMDKGrainTableCache cache(8);
    const P<CVMDKGrainTable> first = makeTable(1);
    const P<CVMDKGrainTable> second = makeTable(2);
    cache.setCachedTable(directoryA, 7, first.get());
    cache.setCachedTable(directoryB, 7, second.get());
    EXPECT_EQ(cache.getCachedTable(directoryA, 7), first);
    EXPECT_EQ(cache.getCachedTable(directoryB, 7), second);
    EXPECT_EQ(cache.getCachedTable(directoryA, 8), nullptr);
    EXPECT_EQ(cache.getCachedTableCount(), 2);
}

TEST_F(CVMDKGrainTableCacheTest, KeysAreOrderedByDirectoryThenByIndex) {
    using Key = CVMDKGrainTableCache::CKey;
    CVMDKGrainDirectory* const highest = fakeDirectory(~std::uintptr_t{0} - 0xFFF);
    const TArray<Key> ordered = {
        {directoryA, -1}, {directoryA, 0}, {directoryA, INT64_MAX}, {directoryB, INT64_MIN}, {highest, 0}};
    for (std::size_t i = 0; i < ordered.size(); ++i)
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(ordered[i] < ordered[j], i < j) << i << " " << j;
            EXPECT_EQ(ordered[i] == ordered[j], i == j) << i << " " << j;
        }
}

TEST_F(CVMDKGrainTableCacheTest, HoldsTheTablesUsedLast) {
    CVMDKGrainTableCache cache;
    fill(cache, directoryA, 1024);
    EXPECT_EQ(cache.getCachedTableCount(), 1024);
    EXPECT_TRUE(cache.getCachedTable(directoryA, 0));
    cache.setCachedTable(directoryA, 1024, makeTable(0).get());
    EXPECT_EQ(cache.getCachedTableCount(), 1024);
    EXPECT_TRUE(cache.hasCachedTables(directoryA, 0, 1)) << "looked up since";
    EXPECT_FALSE(cache.hasCachedTables(directoryA, 1, 2)) << "used longest ago";
    EXPECT_TRUE(cache.hasCachedTables(directoryA, 1024, 1025));
}

TEST_F(CVMDKGrainTableCacheTest, ReplacingATableEvictsNothing) {
    CVMDKGrainTableCache cache(2);
    fill(cache, directoryA, 2);
    const P<CVMDKGrainTable> table = makeTable(3);
    cache.setCachedTable(directoryA, 0, table.get());
    EXPECT_EQ(cachedIndices(cache, directoryA, 3), (TArray<int64>{0, 1}));
    EXPECT_EQ(cache.getCachedTable(directoryA, 0), table);
}

TEST_F(CVMDKGrainTableCacheTest, ReplacingATableMakesItTheOneUsedLast) {
    CVMDKGrainTableCache cache(2);
    fill(cache, directoryA, 2);
    cache.setCachedTable(directoryA, 0, makeTable(3).get());
    cache.setCachedTable(directoryA, 2, makeTable(4).get());
    EXPECT_EQ(cachedIndices(cache, directoryA, 3), (TArray<int64>{0, 2}));
}

TEST_F(CVMDKGrainTableCacheTest, ReplacedTableWritesItsChangesWhenItsLastHolderLetsGo) {
    CVMDKGrainTableCache cache(2);
    cache.setCachedTable(directoryA, 0, makeChangedTable(9, 55).get());
    cache.setCachedTable(directoryA, 0, makeTable(0).get());
    EXPECT_EQ(entryInFile(9), 55u);
}

TEST_F(CVMDKGrainTableCacheTest, LimitOfZeroOrLessKeepsNothing) {
    for (const int limit : {0, -1, INT_MIN}) {
        CVMDKGrainTableCache cache(limit);
        fill(cache, directoryA, 2);
        EXPECT_EQ(cache.getCachedTableCount(), 0) << limit;
    }
}

// --- The limit ---

TEST_F(CVMDKGrainTableCacheTest, GrowsWithoutBoundWhileTheLimitIsNotEnforced) {
    CVMDKGrainTableCache cache;
    cache.setAutoEnforceLimit(false);
    fill(cache, directoryA, 2000);
    EXPECT_EQ(cache.getCachedTableCount(), 2000);
    EXPECT_TRUE(cache.getCachedTable(directoryA, 3));
    EXPECT_EQ(cache.getCachedTableCount(), 2000);

    cache.setAutoEnforceLimit(true);
    TArray<int64> expected{3};
    for (int64 i = 2000 - 1023; i < 2000; ++i)
        expected.push_back(i);
    EXPECT_EQ(cachedIndices(cache, directoryA, 2000), expected);
    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(cachedIndices(cache, directoryA, 2000), expected);
}

TEST_F(CVMDKGrainTableCacheTest, EnforcesTheLimitWhenAsked) {
    CVMDKGrainTableCache cache(2);
    cache.setAutoEnforceLimit(false);
    fill(cache, directoryA, 4);
    EXPECT_TRUE(cache.getCachedTable(directoryA, 1));
    cache.enforceLimit();
    EXPECT_EQ(cachedIndices(cache, directoryA, 4), (TArray<int64>{1, 3}));
    cache.enforceLimit();
    EXPECT_EQ(cache.getCachedTableCount(), 2);
}

TEST_F(CVMDKGrainTableCacheTest, EvictedTableWritesItsChangesWhenItsLastHolderLetsGo) {
    CVMDKGrainTableCache cache(1);
    P<CVMDKGrainTable> table = makeChangedTable(4, 66);
    cache.setCachedTable(directoryA, 0, table.get());
    cache.setCachedTable(directoryA, 1, makeTable(0).get());
    EXPECT_THAT(takeWrittenSectors(), IsEmpty()) << "somebody holds it still";
    table = nullptr;
    EXPECT_THAT(takeWrittenSectors(), ElementsAre(4));
    EXPECT_EQ(entryInFile(4), 66u);
}

TEST_F(CVMDKGrainTableCacheTest, KnowsWhetherNewTablesWouldEvict) {
    CVMDKGrainTableCache cache(10);
    fill(cache, directoryA, 4);
    EXPECT_FALSE(cache.wouldEvict(6));
    EXPECT_TRUE(cache.wouldEvict(7));
    cache.setAutoEnforceLimit(false);
    EXPECT_FALSE(cache.wouldEvict(7));
}

// --- What belongs to a directory ---

TEST_F(CVMDKGrainTableCacheTest, FlushWritesTheTablesOfTheDirectoryInOrder) {
    CVMDKGrainTableCache cache(8);
    for (const int64 index : {5, 1, 3})
        cache.setCachedTable(directoryA, index, makeChangedTable(10 + index).get());
    cache.setCachedTable(directoryA, 2, makeTable(12).get());
    cache.setCachedTable(directoryB, 4, makeChangedTable(30).get());
    m_stream->takeOperations();
    cache.flushCachedTablesFromDirectoryToStream(directoryA);
    EXPECT_THAT(takeWrittenSectors(), ElementsAre(11, 13, 15));
    EXPECT_FALSE(cache.hasUnflushedTables(directoryA));
    EXPECT_TRUE(cache.hasUnflushedTables(directoryB));
    cache.flushCachedTablesFromDirectoryToStream(directoryA);
    EXPECT_THAT(takeWrittenSectors(), IsEmpty());
}

TEST_F(CVMDKGrainTableCacheTest, FlushLeavesTheOrderOfUse) {
    CVMDKGrainTableCache cache(3);
    for (const int64 index : {2, 0, 1})
        cache.setCachedTable(directoryA, index, makeChangedTable(10 + index).get());
    cache.flushCachedTablesFromDirectoryToStream(directoryA);
    cache.setCachedTable(directoryA, 9, makeTable(0).get());
    EXPECT_EQ(cachedIndices(cache, directoryA, 10), (TArray<int64>{0, 1, 9}));
}

TEST_F(CVMDKGrainTableCacheTest, FlushStopsAtTheFirstFailureAndCanBeRepeated) {
    CVMDKGrainTableCache cache(8);
    for (const int64 index : {1, 2, 3})
        cache.setCachedTable(directoryA, index, makeChangedTable(10 + index).get());
    m_faults->addRule({.operation = FaultRule::Write, .nth = 2});
    EXPECT_LUM_ERROR(
        cache.flushCachedTablesFromDirectoryToStream(directoryA), CIOError, 2,
        "Cannot write to file: Injected fault",
        {{"uri", m_uri.toString(true)}, {"position", toDecimal(12 * 512)}, {"bytesToWrite", "4"}});
    EXPECT_THAT(takeWrittenSectors(), ElementsAre(11, 12));
    cache.flushCachedTablesFromDirectoryToStream(directoryA);
    EXPECT_THAT(takeWrittenSectors(), ElementsAre(12, 13));
}

TEST_F(CVMDKGrainTableCacheTest, RemovesTheTablesOfOneDirectoryOnly) {
    CVMDKGrainTableCache cache(4);
    cache.setCachedTable(directoryB, 0, makeTable(0).get());
    cache.setCachedTable(directoryA, 0, makeChangedTable(20, 77).get());
    cache.setCachedTable(directoryB, 1, makeTable(0).get());
    cache.setCachedTable(directoryA, 1, makeTable(0).get());
    EXPECT_TRUE(cache.getCachedTable(directoryB, 0));

    cache.removeCachedTablesFromDirectory(directoryA);
    EXPECT_EQ(entryInFile(20), 77u) << "a changed table writes itself as it goes";
    EXPECT_THAT(cachedIndices(cache, directoryA, 2), IsEmpty());
    EXPECT_EQ(cache.getCachedTableCount(), 2);

    fill(cache, directoryA, 3); // one more than there is room for
    EXPECT_TRUE(cache.hasCachedTables(directoryB, 0, 1));
    EXPECT_FALSE(cache.hasCachedTables(directoryB, 1, 2)) << "used longest ago";
}

TEST_F(CVMDKGrainTableCacheTest, ClearLetsGoOfEveryTable) {
    CVMDKGrainTableCache cache(4);
    cache.setCachedTable(directoryA, 0, makeChangedTable(21, 88).get());
    cache.setCachedTable(directoryB, 0, makeTable(0).get());
    cache.clear();
    EXPECT_EQ(cache.getCachedTableCount(), 0);
    EXPECT_EQ(cache.getCachedTable(directoryA, 0), nullptr);
    EXPECT_EQ(entryInFile(21), 88u);
    cache.setCachedTable(directoryA, 0, makeTable(0).get());
    EXPECT_EQ(cache.getCachedTableCount(), 1);
}

TEST_F(CVMDKGrainTableCacheTest, KnowsWhichTablesOfARangeItHolds) {
    CVMDKGrainTableCache cache(4);
    cache.setCachedTable(directoryA, 5, makeTable(0).get());
    EXPECT_TRUE(cache.hasCachedTables(directoryA, 0, 6));
    EXPECT_TRUE(cache.hasCachedTables(directoryA, 5, 6));
    EXPECT_FALSE(cache.hasCachedTables(directoryA, 0, 5));
    EXPECT_FALSE(cache.hasCachedTables(directoryA, 6, 32));
    EXPECT_FALSE(cache.hasCachedTables(directoryB, 0, 32));
}

TEST_F(CVMDKGrainTableCacheTest, NoTableIsNoTableToKeep) {
    const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(4));
    const P<CVMDKGrainTable> table = makeTable(1);
    cache->setCachedTable(directoryA, 3, table.get());
    EXPECT_INVALID_ARG_ERROR(cache->setCachedTable(directoryA, 3, nullptr),
                             "CVMDKGrainTableCache::setCachedTable", "The table must not be null.",
                             {{"tableIndex", "3"}});
    EXPECT_EQ(cache->getCachedTable(directoryA, 3), table);
}

TEST_F(CVMDKGrainTableCacheTest, OnlyTheTablesOfTheDirectoryAreRemoved) {
    const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(100));
    CVMDKGrainDirectory* const directoryBefore = fakeDirectory(0x800);
    for (CVMDKGrainDirectory* directory : {directoryBefore, directoryA, directoryB})
        fill(*cache, directory, 5);
    cache->removeCachedTablesFromDirectory(directoryA);
    EXPECT_THAT(cachedIndices(*cache, directoryA, 5), IsEmpty());
    EXPECT_THAT(cachedIndices(*cache, directoryBefore, 5), ElementsAre(0, 1, 2, 3, 4));
    EXPECT_THAT(cachedIndices(*cache, directoryB, 5), ElementsAre(0, 1, 2, 3, 4));
}

} // namespace
} // namespace tessel::test
