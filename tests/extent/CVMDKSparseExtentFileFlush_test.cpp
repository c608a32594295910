// What reaches the file, and in which order.

#include "ExtentFixture.h"
#include "tessel/VMDKMarker.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;

using Journal = CJournalFileSystem;

class CVMDKSparseExtentFileFlushTest : public ExtentTest, public ::testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        createExtent({.compressed = GetParam()});
        m_updater->setContentIDUpdatesEnabled(false);
        m_tables[0] = int64{loadNumber(int64{loadNumber(Field_Directory)} * 512)} * 512;
        m_tables[1] = int64{loadNumber(int64{loadNumber(Field_RedundantDirectory)} * 512)} * 512;
        // header, marker, directory, marker, table, marker, directory, marker, table, and the marker, the
        // directory, the marker of the slot sizes
        m_slotSizes = m_tables[0] + 2048 + 3 * 512;
        m_overhead = int64{loadNumber(Field_Overhead)} * 512;
    }

    /// What an event of the journal is about, merged where neighbours are about the same.
    TArray<std::string> getOrder() const {
        TArray<std::string> order;
        for (const Journal::Event& event : m_journal->getEvents()) {
            const std::string name = nameOf(event);
            if (order.empty() || order.back() != name)
                order.push_back(name);
        }
        return order;
    }

    static TArray<std::string> getOrderOfNewGrains() {
        return GetParam() ? TArray<std::string>{"data and trail", "slot sizes",      "flush",
                                                "table",          "redundant table", "flush"}
                          : TArray<std::string>{"data", "flush", "table", "redundant table", "flush"};
    }

    int64 slotOf(CVMDKSparseExtentFile& extent, int64 grainIndex) const {
        int64 position = 0;
        int64 size = 0;
        extent.getGrainDirectory().getGrainInfo(grainIndex, position, size);
        return position;
    }

    int64 m_tables[2];
    int64 m_slotSizes;
    int64 m_overhead;

private:
    std::string nameOf(const Journal::Event& event) const {
        if (event.kind == Journal::Flush)
            return "flush";
        if (event.kind == Journal::SetLength)
            return "length";
        if (event.position == m_tables[0] && event.data.getUsed() == 2048)
            return "table";
        if (event.position == m_tables[1] && event.data.getUsed() == 2048)
            return "redundant table";
        if (event.position == m_slotSizes && event.data.getUsed() == 1024)
            return "slot sizes";
        if (event.position < m_overhead)
            return "metadata";
        const bool endsWithTrail =
            event.data.getUsed() >= 1536 &&
            isVMDKMarker(event.data.getData() + event.data.getUsed() - 1536, MarkerFooter, nullptr);
        return !endsWithTrail ? "data" : event.data.getUsed() == 1536 ? "trail" : "data and trail";
    }
};

std::string kindOf(const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Compressed" : "Plain";
}

} // namespace

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKSparseExtentFileFlushTest, ::testing::Bool(), kindOf);

// A grain that gets its first slot needs its slot size before its entry: with the entry alone it could not be
// read.
TEST_P(CVMDKSparseExtentFileFlushTest, DataAndTrailAreDurableBeforeTheTables) {
    const auto extent = openExtent();
    m_journal->start(extentURI);
    writeAt(*extent, 0, randomBytes(3 * grainSize, 1));
    extent->flushChanges();
    EXPECT_EQ(getOrder(), getOrderOfNewGrains());
}

TEST_P(CVMDKSparseExtentFileFlushTest, TheOpenGrainIsWrittenFirst) {
    const auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(grainSize, 1));
    m_journal->start(extentURI);
    EXPECT_EQ(m_journal->getEventCount(), 0U);
    extent->flushChanges();
    ASSERT_GE(m_journal->getEventCount(), 3U);
    const Journal::Event& first = m_journal->getEvents().front();
    EXPECT_EQ(first.position, slotOf(*extent, 0) * 512);
    EXPECT_EQ(first.position, m_overhead);
}

TEST_P(CVMDKSparseExtentFileFlushTest, WithoutChangesOnlyFlushesReachTheFile) {
    const auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(grainSize, 1));
    extent->flushChanges();
    m_journal->start(extentURI);
    extent->flushChanges();
    EXPECT_EQ(getOrder(), TArray<std::string>{"flush"});
    EXPECT_EQ(m_journal->getEventCount(), 2U);
}

TEST_P(CVMDKSparseExtentFileFlushTest, ReadOnlyExtentWritesNothing) {
    {
        const auto extent = openExtent();
        writeAt(*extent, 0, randomBytes(grainSize, 1));
    }
    if (GetParam()) { // a trail that is not the expected one would be appended on a flush
        const int64 end = loadFile().getUsed();
        patchFile<uint32>(end - 512 - 100, 0xFFFFFFFF);
    }
    const Bytes before = loadFile();
    {
        const auto extent = openExtent({.access = IIOStream::Access_Read});
        m_journal->start(extentURI);
        EXPECT_EQ(readAt(*extent, 0, grainSize), randomBytes(grainSize, 1));
        extent->flushChanges();
        extent->gatherSpaceInfo();
    }
    EXPECT_EQ(m_journal->getEventCount(), 0U);
    EXPECT_EQ(loadFile(), before);
    EXPECT_EQ(takeLog().size(), GetParam() ? 1U : 0U);
}

TEST_P(CVMDKSparseExtentFileFlushTest, UnknownTrailIsKeptAndTheRightOneFollowsIt) {
    if (!GetParam()) {
        const int64 end = loadFile().getUsed();
        const auto extent = openExtent();
        extent->flushChanges();
        EXPECT_EQ(loadFile().getUsed(), end); // a plain extent has none
        return;
    }
    const Bytes trail = slice(loadFile(), m_overhead, 1536);
    patchFile<uint32>(m_overhead + 1536 - 512 - 100, 0xFFFFFFFF);
    const Bytes spoiled = loadFile();
    openExtent();
    Bytes expected = spoiled;
    expected.append(trail.getData(), trail.getUsed());
    EXPECT_EQ(loadFile(), expected);
    EXPECT_EQ(takeLog(),
              TArray<std::string>{"warning: VMDK trail data is not what we expected. Assuming that "
                                  "it is not trail data - we won't overwrite it."});
    openExtent();
    EXPECT_EQ(loadFile(), expected);
}

TEST_P(CVMDKSparseExtentFileFlushTest, TrailMovesBehindTheNewestSlot) {
    const Bytes end = GetParam() ? slice(loadFile(), m_overhead, 1536) : Bytes();
    const auto extent = openExtent();
    for (unsigned int grain = 0; grain < 5; ++grain) {
        writeAt(*extent, grain * grainSize, randomBytes(grainSize, grain));
        extent->flushChanges();
        const Bytes file = loadFile();
        const int64 slotEnd = slotOf(*extent, grain) * 512 + (GetParam() ? 9 : 8) * 512;
        ASSERT_EQ(file.getUsed(), slotEnd + end.getUsed());
        EXPECT_EQ(slice(file, slotEnd, end.getUsed()), end);
    }
    for (unsigned int grain = 0; grain < 5; ++grain)
        EXPECT_EQ(readAt(*extent, grain * grainSize, grainSize), randomBytes(grainSize, grain));
}

// A slot size that is larger than the slot would let a later rewrite run over the slots behind.
TEST_P(CVMDKSparseExtentFileFlushTest, MovedGrainsEntryIsDurableBeforeItsSlotSize) {
    if (!GetParam()) {
        const auto extent = openExtent();
        writeAt(*extent, 0, patternBytes(grainSize));
        extent->flushChanges();
        const int64 position = slotOf(*extent, 0);
        writeAt(*extent, 0, randomBytes(grainSize, 1));
        extent->flushChanges();
        EXPECT_EQ(slotOf(*extent, 0), position); // plain grains never move
        return;
    }
    const auto extent = openExtent();
    writeAt(*extent, 0, patternBytes(grainSize));
    extent->flushChanges();
    writeAt(*extent, 0, randomBytes(grainSize, 1));
    m_journal->start(extentURI);
    extent->flushChanges();
    EXPECT_EQ(getOrder(), (TArray<std::string>{"data and trail", "flush", "table", "redundant table", "flush",
                                               "slot sizes", "flush"}));
}

// A size next to an entry of 0 was left by a loss of power. Next to the entry of a new, smaller slot it would
// claim what lies behind that.
TEST_P(CVMDKSparseExtentFileFlushTest, SizeWithoutASlotIsGoneBeforeASlotIsNamed) {
    if (!GetParam())
        return; // a plain extent has no slot sizes
    patchFile<uint16>(m_slotSizes + 2 * 2, 200);
    patchFile<uint16>(m_slotSizes + 3 * 2, 200);
    const auto extent = openExtent();
    m_journal->start(extentURI);
    writeAt(*extent, 2 * grainSize, patternBytes(grainSize));
    writeAt(*extent, 4 * grainSize, patternBytes(grainSize));
    extent->flushChanges();
    int64 position = 0;
    int64 size = 0;
    extent->getGrainDirectory().getGrainInfo(2, position, size);
    ASSERT_LT(size, 9);

    const auto& events = m_journal->getEvents();
    const auto isFlush = [](const Journal::Event& event) { return event.kind == Journal::Flush; };
    const auto firstFlush = std::find_if(events.begin(), events.end(), isFlush);
    const Bytes durable = m_journal->replay(static_cast<std::size_t>(firstFlush - events.begin()) + 1);
    EXPECT_EQ(slice(durable, m_tables[0], 2048), Bytes(2048)); // no entry yet
    EXPECT_EQ(durable[m_slotSizes + 2 * 2], size);
    EXPECT_EQ(durable[m_slotSizes + 2 * 2 + 1], 0);
    EXPECT_EQ(durable[m_slotSizes + 3 * 2], 200); // that of a grain that is not written may stay
}

// --- Destruction ---

TEST_P(CVMDKSparseExtentFileFlushTest, DestructionFlushes) {
    {
        const auto extent = openExtent();
        writeAt(*extent, 5000, randomBytes(2 * grainSize, 1));
        m_journal->start(extentURI);
    }
    EXPECT_EQ(getOrder(), getOrderOfNewGrains());
    EXPECT_EQ(readAt(*openExtent(), 5000, 2 * grainSize), randomBytes(2 * grainSize, 1));
}

TEST_P(CVMDKSparseExtentFileFlushTest, DestructorReportsWhatItCannotWrite) {
    {
        const auto extent = openExtent();
        writeAt(*extent, 0, randomBytes(grainSize, 1));
        m_faults->addRule({.operation = FaultRule::Write, .kind = FaultRule::FullDisk, .always = true});
    }
    m_faults->clearRules();
    const TArray<std::string> log = takeLog();
    ASSERT_GE(log.size(), 1U);
    EXPECT_EQ(log[0], "error: Exception ignored in the destructor of tessel::CVMDKSparseExtentFile; data may "
                      "be lost");
    EXPECT_EQ(readAt(*openExtent(), 0, grainSize), Bytes(grainSize));
    takeLog();
}

TEST_P(CVMDKSparseExtentFileFlushTest, TransientFailureInTheDestructorIsMadeGood) {
    {
        const auto extent = openExtent();
        writeAt(*extent, 0, randomBytes(grainSize, 1));
        m_faults->addRule({.operation = FaultRule::Flush, .nth = 1});
    }
    EXPECT_EQ(takeLog(), TArray<std::string>{"error: Exception ignored in the destructor of "
                                             "tessel::CVMDKSparseExtentFile; data may be lost"});
    EXPECT_EQ(readAt(*openExtent(), 0, grainSize), randomBytes(grainSize, 1));
}

TEST_P(CVMDKSparseExtentFileFlushTest, FailedFlushIsTriedAgain) {
    const auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(grainSize, 1));
    m_faults->addRule({.operation = FaultRule::Flush, .nth = 1});
    EXPECT_LUM_ERROR(extent->flushChanges(), CIOError, 2, "Cannot flush file: Injected fault",
                     {{"uri", extentName}});
    extent->flushChanges();
    EXPECT_EQ(readAt(*openExtent({.access = IIOStream::Access_Read}), 0, grainSize),
              randomBytes(grainSize, 1));
}

} // namespace tessel::test
