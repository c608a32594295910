#include "CGrainDirectoryFixture.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "tessel/CVMDKGrainDirectory.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Info = CTestExtent::Info;
using Kind = CRecordingStream::Kind;

/// Directories whose tables are read 32 at a time, through caches of any size.
class CVMDKGrainDirectoryBatchTest : public CGrainDirectoryFixture {
protected:
    void makeAndOpen(int64 tableCount, int cacheLimit = CVMDKGrainTableCache::defaultLimit,
                     bool compressed = false) {
        make(compressed, tableCount);
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(cacheLimit));
        m_extent->openDirectory(IIOStream::Access_ReadWrite, cache.get());
        m_extent->recorder().takeOperations();
    }
    CVMDKGrainDirectory& directory() { return m_extent->directory(); }
    CVMDKGrainTableCache& cache() { return m_extent->cache(); }

    /// The tables that are cached; the order of use stays.
    TArray<int64> cachedTables() {
        TArray<int64> tables;
        for (int64 i = 0; i < m_tableCount; ++i)
            if (cache().hasCachedTables(&directory(), i, i + 1))
                tables.push_back(i);
        return tables;
    }
    static TArray<int64> range(int64 first, int64 end) {
        TArray<int64> numbers;
        for (int64 i = first; i < end; ++i)
            numbers.push_back(i);
        return numbers;
    }
    /// The kinds of the operations since last asked, repetitions left out.
    TArray<Kind> takeKinds() {
        TArray<Kind> kinds;
        for (const auto& operation : m_extent->recorder().takeOperations())
            if (kinds.empty() || kinds.back() != operation.kind)
                kinds.push_back(operation.kind);
        return kinds;
    }
    void set(int64 tableIndex, int64 value) { directory().setGrainInfo(tableIndex * 512, value, 8); }
    int64 get(int64 tableIndex) { return m_extent->info(tableIndex * 512).posSectors; }
    uint32 entryInFile(int64 tableIndex) const {
        return m_extent->fileUInt32(m_extent->fileUInt32(directoryByte(tableIndex)) * 512LL);
    }
};

// --- What a batch reads and keeps ---

TEST_F(CVMDKGrainDirectoryBatchTest, MissReadsThe32TablesAroundTheOneAskedFor) {
    makeAndOpen(100);
    directory().getGrainTable(40);
    EXPECT_EQ(cachedTables(), range(32, 64));
    const auto operations = m_extent->recorder().takeOperations();
    ASSERT_EQ(operations.size(), 32u);
    for (int64 i = 0; i < 32; ++i)
        EXPECT_EQ(operations[static_cast<std::size_t>(i)],
                  (CRecordingStream::Operation{CRecordingStream::Read,
                                               m_extent->fileUInt32(directoryByte(32 + i)) * 512LL, 2048}));
}

TEST_F(CVMDKGrainDirectoryBatchTest, LastBatchEndsWithTheDirectory) {
    makeAndOpen(100);
    directory().getGrainTable(97);
    EXPECT_EQ(cachedTables(), range(96, 100));
}

TEST_F(CVMDKGrainDirectoryBatchTest, HitReadsNothing) {
    makeAndOpen(100);
    const P<CVMDKGrainTable> table = directory().getGrainTable(40);
    m_extent->recorder().takeOperations();
    EXPECT_EQ(directory().getGrainTable(40), table);
    EXPECT_TRUE(directory().getGrainTable(63));
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
}

TEST_F(CVMDKGrainDirectoryBatchTest, HitMakesTheTableTheOneUsedLast) {
    makeAndOpen(64, 32);
    directory().getGrainTable(0);
    directory().getGrainTable(0);
    const P<CVMDKGrainTable> other = directory().getGrainTable(1);
    cache().setCachedTable(&directory(), 60, other.get());
    EXPECT_FALSE(cache().hasCachedTables(&directory(), 2, 3)) << "used longest ago";
    EXPECT_TRUE(cache().hasCachedTables(&directory(), 0, 1));
}

TEST_F(CVMDKGrainDirectoryBatchTest, RequestedTableIsReturnedHoweverSmallTheCache) {
    for (const int limit : {0, 1, 5, 31, 32}) {
        makeAndOpen(40, limit);
        m_extent->patchUInt32(m_extent->fileUInt32(directoryByte(3)) * 512LL, 4711);
        EXPECT_EQ(get(3), 4711) << limit;
        EXPECT_EQ(cachedTables(), range(32 - limit, 32)) << limit;
    }
}

TEST_F(CVMDKGrainDirectoryBatchTest, TablesThatCannotBeHadAreLeftOutOfABatch) {
    makeAndOpen(40);
    m_extent->patchUInt32(directoryByte(2), 0);
    m_extent->patchUInt32(directoryByte(4), 0x7FFFFFFF);
    m_extent->patchUInt32(redundantDirectoryByte(6), 0x7FFFFFFF);
    m_extent->openDirectory();
    EXPECT_EQ(get(0), 0);
    EXPECT_EQ(m_extent->cache().getCachedTableCount(), 29);
    EXPECT_FALSE(cache().hasCachedTables(&directory(), 2, 3));
    EXPECT_FALSE(cache().hasCachedTables(&directory(), 4, 5));
    EXPECT_FALSE(cache().hasCachedTables(&directory(), 6, 7));
}

TEST_F(CVMDKGrainDirectoryBatchTest, AllTablesAreReadBeforeAnyEntersTheCache) {
    for (const bool compressed : {false, true}) {
        makeAndOpen(64, 64, compressed);
        set(40, 99); // another batch, to stay as it is
        const TArray<int64> before = cachedTables();
        const int readsOfABatch = compressed ? 64 : 32;
        for (int nth = 1; nth <= readsOfABatch; ++nth) {
            m_extent->faults().addRule({.operation = FaultRule::Read, .nth = nth});
            const int hits = m_extent->faults().getHits();
            EXPECT_THROW(directory().getGrainTable(5), CIOError) << nth;
            EXPECT_EQ(m_extent->faults().getHits(), hits + 1);
            m_extent->faults().clearRules();
            EXPECT_EQ(cachedTables(), before) << nth;
        }
        m_extent->faults().addRule({.operation = FaultRule::Read, .nth = readsOfABatch + 1});
        EXPECT_TRUE(directory().getGrainTable(5));
        m_extent->faults().clearRules();
        EXPECT_EQ(get(40), 99);
    }
}

// --- Changed tables ---

TEST_F(CVMDKGrainDirectoryBatchTest, ChangedTablesAreWrittenBehindTheirDataBeforeTheyLeaveTheCache) {
    makeAndOpen(64, 40);
    set(5, 1005);
    takeKinds();
    get(32); // 24 tables must go
    EXPECT_THAT(takeKinds(),
                ElementsAre(CRecordingStream::Flush, CRecordingStream::Write, CRecordingStream::Read));
    EXPECT_EQ(entryInFile(5), 1005u);
    EXPECT_TRUE(cache().hasCachedTables(&directory(), 5, 6)) << "it was used last, so it may stay";
    EXPECT_FALSE(cache().hasUnflushedTables(&directory()));
}

TEST_F(CVMDKGrainDirectoryBatchTest, ChangedTablesAreWrittenBeforeTheirBatchIsReadAgain) {
    makeAndOpen(64, 40);
    set(5, 1005);
    get(32);
    set(5, 2005);
    cache().setAutoEnforceLimit(false); // nothing need leave, but table 5 is about to be replaced
    const P<CVMDKGrainTable> replaced = directory().getGrainTable(5);
    takeKinds();
    get(0);
    EXPECT_THAT(takeKinds(),
                ElementsAre(CRecordingStream::Flush, CRecordingStream::Write, CRecordingStream::Read));
    EXPECT_NE(directory().getGrainTable(5), replaced);
    EXPECT_EQ(get(5), 2005);
    EXPECT_FALSE(replaced->hasUnflushedChanges());
}

TEST_F(CVMDKGrainDirectoryBatchTest, NothingIsWrittenForABatchThatTouchesNoChangedTable) {
    makeAndOpen(64);
    set(5, 1005);
    takeKinds();
    get(32);
    EXPECT_THAT(takeKinds(), ElementsAre(CRecordingStream::Read));
    EXPECT_TRUE(cache().hasUnflushedTables(&directory()));
}

TEST_F(CVMDKGrainDirectoryBatchTest, FailureToMakeRoomReachesTheCallerAndLosesNothing) {
    for (const FaultRule::Operation operation : {FaultRule::Flush, FaultRule::Write}) {
        makeAndOpen(64, 32);
        set(5, 1005);
        set(6, 1006);
        m_extent->faults().addRule({.operation = operation, .always = true});
        EXPECT_THROW(get(40), CIOError);
        EXPECT_THROW(set(40, 1040), CIOError);
        m_extent->endFaults();
        EXPECT_EQ(cachedTables(), range(0, 32));
        EXPECT_EQ(get(5), 1005);
        set(40, 1040);
        EXPECT_EQ(entryInFile(5), 1005u);
        EXPECT_EQ(entryInFile(6), 1006u);
        EXPECT_EQ(get(40), 1040);
    }
}

TEST_F(CVMDKGrainDirectoryBatchTest, SmallCacheKeepsTheTableThatWasChanged) {
    for (const int limit : {1, 5, 31}) {
        makeAndOpen(64, limit);
        set(5, 1005); // the batch that holds it does not fit
        EXPECT_TRUE(cache().hasCachedTables(&directory(), 5, 6));
        EXPECT_EQ(cache().getCachedTableCount(), limit);
        m_extent->faults().addRule({.operation = FaultRule::Write, .always = true});
        CLogRecorder log;
        EXPECT_THROW(set(40, 1040), CIOError);
        EXPECT_THAT(log.takeEntries(), IsEmpty()) << "the caller was told, no destructor had to";
        m_extent->endFaults();
        EXPECT_EQ(get(5), 1005);
    }
}

TEST_F(CVMDKGrainDirectoryBatchTest, WithoutACacheEveryChangeIsWrittenAtOnceOrReported) {
    makeAndOpen(64, 0);
    set(5, 1005);
    EXPECT_EQ(entryInFile(5), 1005u);
    m_extent->faults().addRule({.operation = FaultRule::Write});
    CLogRecorder log;
    set(5, 2005);
    const auto entries = log.takeEntries();
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].message,
              "Exception ignored in the destructor of tessel::CVMDKGrainTable; data may be lost");
    EXPECT_EQ(entries[0].error, "Cannot write to file: Injected fault");
    EXPECT_EQ(get(5), 2005) << "another attempt succeeds";

    m_extent->faults().addRule({.operation = FaultRule::Write, .always = true});
    set(5, 3005);
    EXPECT_EQ(log.takeEntries().size(), 1u);
    EXPECT_EQ(get(5), 2005);
}

// --- Flush and destruction ---

TEST_F(CVMDKGrainDirectoryBatchTest, FlushWritesTheChangedTablesAndLeavesTheStreamUnflushed) {
    makeAndOpen(64);
    set(5, 1005);
    set(40, 1040);
    takeKinds();
    directory().flushChangesToStream();
    EXPECT_THAT(takeKinds(), ElementsAre(CRecordingStream::Write));
    EXPECT_EQ(entryInFile(5), 1005u);
    EXPECT_EQ(entryInFile(40), 1040u);
    directory().flushChangesToStream();
    EXPECT_THAT(takeKinds(), IsEmpty());
}

TEST_F(CVMDKGrainDirectoryBatchTest, FlushInOrderMakesDurableWhatTheNextStepRestsOn) {
    makeAndOpen(64);
    set(5, 1005);
    set(40, 1040);
    takeKinds();
    directory().flushChangesInOrder();
    EXPECT_THAT(takeKinds(), ElementsAre(CRecordingStream::Flush, CRecordingStream::Write));
    EXPECT_EQ(entryInFile(40), 1040u);
    directory().flushChangesInOrder();
    EXPECT_THAT(takeKinds(), ElementsAre(CRecordingStream::Flush)) << "the data, whatever they are";

    makeAndOpen(64, CVMDKGrainTableCache::defaultLimit, true);
    set(5, 1005); // new grains: their slot sizes go with the data
    set(40, 1040);
    takeKinds();
    directory().flushChangesInOrder();
    EXPECT_THAT(takeKinds(),
                ElementsAre(CRecordingStream::Write, CRecordingStream::Flush, CRecordingStream::Write));
    directory().setGrainInfo(5 * 512, 2005, 20); // moves: its slot size comes behind the entry
    set(41, 1041);
    takeKinds();
    directory().flushChangesInOrder();
    EXPECT_THAT(takeKinds(),
                ElementsAre(CRecordingStream::Write, CRecordingStream::Flush, CRecordingStream::Write,
                            CRecordingStream::Flush, CRecordingStream::Write));
    EXPECT_FALSE(cache().hasUnflushedTables(&directory()));
    m_extent->openDirectory(IIOStream::Access_Read);
    EXPECT_EQ(m_extent->info(5 * 512), (Info{2005, 20}));
    EXPECT_EQ(m_extent->info(40 * 512), (Info{1040, 8}));
    EXPECT_EQ(m_extent->info(41 * 512), (Info{1041, 8}));
}

TEST_F(CVMDKGrainDirectoryBatchTest, DestructorWritesBehindTheDataAndEmptiesTheCache) {
    make(false, 64);
    const P<CVMDKGrainTableCache> shared(new CVMDKGrainTableCache);
    m_extent->openDirectory(IIOStream::Access_ReadWrite, shared.get());
    set(5, 1005);
    CTestExtent other({.grainCount = 512});
    other.openDirectory(IIOStream::Access_ReadWrite, shared.get());
    other.directory().setGrainInfo(0, 77, 8);
    const P<CRecordingStream> recorder(&m_extent->recorder());
    recorder->takeOperations();

    m_extent->close();
    const auto operations = recorder->takeOperations();
    ASSERT_EQ(operations.size(), 3u);
    EXPECT_EQ(operations[0].kind, CRecordingStream::Flush);
    EXPECT_EQ(operations[1].kind, CRecordingStream::Write);
    EXPECT_EQ(operations[2].kind, CRecordingStream::Write);
    EXPECT_EQ(entryInFile(5), 1005u);
    EXPECT_EQ(shared->getCachedTableCount(), 1) << "the other directory's table";
    EXPECT_EQ(other.info(0), (Info{77, 8}));
}

TEST_F(CVMDKGrainDirectoryBatchTest, DestructorOfAnUnchangedDirectoryWritesNothing) {
    makeAndOpen(64);
    get(5);
    const P<CRecordingStream> recorder(&m_extent->recorder());
    recorder->takeOperations();
    m_extent->close();
    EXPECT_THAT(recorder->takeOperations(), IsEmpty());
}

TEST_F(CVMDKGrainDirectoryBatchTest, DestructorThatCannotWriteEmptiesTheCacheAllTheSame) {
    for (const FaultRule::Operation operation : {FaultRule::Flush, FaultRule::Write}) {
        make(false, 64);
        const P<CVMDKGrainTableCache> shared(new CVMDKGrainTableCache);
        m_extent->openDirectory(IIOStream::Access_ReadWrite, shared.get());
        set(5, 1005);
        set(40, 1040);
        m_extent->faults().addRule({.operation = operation, .always = true});
        CLogRecorder log;
        m_extent->close();
        EXPECT_EQ(shared->getCachedTableCount(), 0);

        const String error = operation == FaultRule::Flush ? "Cannot flush file: Injected fault"
                                                           : "Cannot write to file: Injected fault";
        const auto report = [&](const char* className) {
            return CLogRecorder::Entry{ILogSink::Level_Error,
                                       String("Exception ignored in the destructor of ") + className +
                                           "; data may be lost",
                                       error, String()};
        };
        EXPECT_THAT(log.takeEntries(),
                    ElementsAre(report("tessel::CVMDKGrainDirectory"), report("tessel::CVMDKGrainTable"),
                                report("tessel::CVMDKGrainTable")));
    }
}

TEST_F(CVMDKGrainDirectoryBatchTest, FailureThatPassesIsMadeGoodByTheTablesThemselves) {
    makeAndOpen(64);
    set(5, 1005);
    set(40, 1040);
    m_extent->faults().addRule({.operation = FaultRule::Flush});
    CLogRecorder log;
    m_extent->close();
    EXPECT_EQ(log.takeEntries().size(), 1u) << "the directory's report";
    EXPECT_EQ(entryInFile(5), 1005u);
    EXPECT_EQ(entryInFile(40), 1040u);
}

} // namespace
} // namespace tessel::test
