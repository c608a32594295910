#include "CGrainTableFixture.h"
#include "CLogRecorder.h"
#include "lum/CIOError.h"
#include "tessel/CVMDKGrainTable.h"

#include <gmock/gmock.h>

#include <random>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The order in which entries and slot sizes reach the file: whenever the writing ends, no grain has a
/// slot without a size, and none a size larger than its slot.
class CVMDKGrainTableOrderTest : public CGrainTableFixture {
protected:
    /// The next slot of a file that only grows, for the table and for what is known of all slots.
    void giveSlot(CVMDKGrainTable& table, int64 grainIndex, int64 slotSizeSectors) {
        table.setGrainInfo(grainIndex, m_nextSector, slotSizeSectors);
        m_slots[m_nextSector] = slotSizeSectors;
        m_nextSector += slotSizeSectors;
    }
    void expectAgreement(const std::string& moment) {
        const Bytes bytes = file();
        for (int i = 0; i < entryCount; ++i) {
            const int64 posSectors = loadLittleEndian<uint32>(bytes.getData() + tableSector * 512 + i * 4);
            const int64 size = loadLittleEndian<uint16>(bytes.getData() + slotSizeSector * 512 + i * 2);
            if (posSectors == 0)
                continue;
            const int64 largest = m_slots.contains(posSectors) ? m_slots[posSectors] : i % 7 + 1;
            ASSERT_GE(size, 1) << moment << ", grain " << i;
            ASSERT_LE(size, largest) << moment << ", grain " << i;
        }
    }

    TMap<int64, int64> m_slots;
    int64 m_nextSector = 100000;
};

TEST_F(CVMDKGrainTableOrderTest, NewGrainsHaveTheirSizesWrittenFirstAndMovedGrainsLast) {
    const P<CVMDKGrainTable> table = open(true);
    table->setGrainInfo(0, 8000, 50); // a first slot
    table->setGrainInfo(1, 9000, 60); // a larger one; it has 2 sectors
    m_stream->takeOperations();

    table->writeSlotSizesOfNewGrains();
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeSlotSizes));
    EXPECT_EQ(fileSlotSize(0), 50);
    EXPECT_EQ(fileSlotSize(1), 2);
    EXPECT_EQ(fileEntry(tableSector, 0), 0u);

    table->writeChangedEntries();
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeTable, writeRedundant));
    EXPECT_EQ(fileEntry(tableSector, 0), 8000u);
    EXPECT_EQ(fileEntry(tableSector, 1), 9000u);
    EXPECT_EQ(fileSlotSize(1), 2);
    EXPECT_TRUE(table->hasUnflushedChanges());

    table->flushChangesToStream();
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeSlotSizes));
    EXPECT_EQ(fileSlotSize(1), 60);
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(CVMDKGrainTableOrderTest, StepsWithNothingToDoWriteNothing) {
    const P<CVMDKGrainTable> table = open(true);
    const auto takeSteps = [&] {
        m_stream->takeOperations();
        table->writeSlotSizesOfNewGrains();
        table->writeChangedEntries();
        table->flushChangesToStream();
        return m_stream->takeOperations();
    };
    EXPECT_THAT(takeSteps(), IsEmpty());
    table->setGrainInfo(0, 8000, 50);
    EXPECT_THAT(takeSteps(), ElementsAre(writeSlotSizes, writeTable, writeRedundant));
    table->setGrainInfo(1, 9000, 60);
    EXPECT_THAT(takeSteps(), ElementsAre(writeTable, writeRedundant, writeSlotSizes));
    table->setGrainInfo(1, 9500, 60);
    EXPECT_THAT(takeSteps(), ElementsAre(writeTable, writeRedundant));
    EXPECT_THAT(takeSteps(), IsEmpty());
    EXPECT_EQ(info(*open(true), 0), (Info{8000, 50}));
    EXPECT_EQ(info(*open(true), 1), (Info{9500, 60}));
}

TEST_F(CVMDKGrainTableOrderTest, PlainTablesHaveOnlyEntries) {
    const P<CVMDKGrainTable> table = open(false);
    table->setGrainInfo(0, 8000, grainSize);
    m_stream->takeOperations();
    table->writeSlotSizesOfNewGrains();
    EXPECT_THAT(m_stream->takeOperations(), IsEmpty());
    table->writeChangedEntries();
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeTable, writeRedundant));
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(CVMDKGrainTableOrderTest, GrainThatMovesBeforeItWasEverStoredIsNew) {
    const P<CVMDKGrainTable> table = open(true);
    table->setGrainInfo(0, 8000, 5);
    table->setGrainInfo(0, 8100, 50);
    m_stream->takeOperations();
    table->writeSlotSizesOfNewGrains();
    EXPECT_EQ(fileSlotSize(0), 50);
    table->writeChangedEntries();
    EXPECT_FALSE(table->hasUnflushedChanges());
    EXPECT_EQ(fileEntry(tableSector, 0), 8100u);
}

TEST_F(CVMDKGrainTableOrderTest, WhereverTheWritingEndsEntriesAndSizesAgree) {
    std::mt19937 random(5);
    for (const auto& [kind, always] : {std::pair{FaultRule::Refused, false},
                                       {FaultRule::Refused, true},
                                       {FaultRule::Short, false},
                                       {FaultRule::Short, true}})
        for (int nth = 1; nth <= 20; ++nth) {
            SetUp();
            m_slots.clear();
            m_nextSector = 100000;
            TMap<int64, Info> expected;
            {
                CLogRecorder log; // of the destructor
                const P<CVMDKGrainTable> table = open(true);
                m_faults->addRule(
                    {.operation = FaultRule::Write, .kind = kind, .nth = nth, .always = always});
                for (int round = 0; round < 6; ++round) {
                    for (int i = 0; i < 10; ++i) {
                        // Slots of a grain only grow.
                        const int64 grainIndex = random() % 4 == 0 ? 0 : static_cast<int64>(random() % 512);
                        giveSlot(*table, grainIndex, info(*table, grainIndex).slotSizeSectors + 1);
                        expected[grainIndex] = info(*table, grainIndex);
                    }
                    try {
                        table->writeSlotSizesOfNewGrains();
                        expectAgreement("first step");
                        table->writeChangedEntries();
                        expectAgreement("second step");
                        table->flushChangesToStream();
                    } catch (const CIOError&) {
                    }
                    ASSERT_NO_FATAL_FAILURE(expectAgreement("write " + std::to_string(nth)));
                }
                m_faults->clearRules();
                try {
                    m_stream->flush(); // tells once more of the write that failed
                } catch (const CIOError&) {
                }
            }
            ASSERT_NO_FATAL_FAILURE(expectAgreement("destroyed"));
            const P<CVMDKGrainTable> table = open(true);
            for (const auto& [grainIndex, slot] : expected)
                ASSERT_EQ(info(*table, grainIndex), slot) << nth;
        }
}

} // namespace
} // namespace tessel::test
