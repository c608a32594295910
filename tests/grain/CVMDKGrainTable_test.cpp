#include "tessel/CVMDKGrainTable.h"

#include "CGrainTableFixture.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CVMDKGrainTableTest : public CGrainTableFixture {};

// --- Loading ---

TEST_F(CVMDKGrainTableTest, ReadsThePrimaryTableAndTheSlotSizesAndNothingElse) {
    const P<CVMDKGrainTable> table = open(true);
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(readTable, readSlotSizes));
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(CVMDKGrainTableTest, ReadsNoSlotSizesWhereThereAreNone) {
    open(false);
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(readTable));
    const P<CVMDKGrainTable> table(new CVMDKGrainTable(m_stream.get(), IIOStream::Access_Read, grainSize,
                                                       tableSector, -1, -1, entryCount));
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(readTable));
}

TEST_F(CVMDKGrainTableTest, ShortFileFails) {
    openFile()->setLength(tableSector * 512 + tableBytes - 1);
    EXPECT_LUM_ERROR(
        open(false), CIOError, 4, "Unexpected end of data.",
        {{"uri", m_uriText}, {"position", toDecimal(tableSector * 512)}, {"bytesToRead", "2048"}});
    openFile()->setLength(slotSizeSector * 512 + slotSizeBytes - 1);
    EXPECT_NO_THROW(open(false));
    EXPECT_LUM_ERROR(
        open(true), CIOError, 4, "Unexpected end of data.",
        {{"uri", m_uriText}, {"position", toDecimal(slotSizeSector * 512)}, {"bytesToRead", "1024"}});
}

// --- Looking up ---

TEST_F(CVMDKGrainTableTest, EntryOfZeroHasSlotSizeZero) {
    EXPECT_EQ(info(*open(false), 0), (Info{0, 0}));
    EXPECT_EQ(info(*open(true), 0), (Info{0, 0}));
}

TEST_F(CVMDKGrainTableTest, FindsRunsOfGrainsWithAndWithoutSlots) {
    const P<CVMDKGrainTable> table = open(true);
    bool hasSlot = true;
    EXPECT_EQ(table->findSlotRun(0, hasSlot), 1);
    EXPECT_FALSE(hasSlot);
    EXPECT_EQ(table->findSlotRun(1, hasSlot), 511);
    EXPECT_TRUE(hasSlot);
    for (int i = 100; i < entryCount; ++i)
        table->setGrainInfo(i, 0, 1);
    table->setGrainInfo(300, 5000, 1);
    EXPECT_EQ(table->findSlotRun(50, hasSlot), 50);
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(table->findSlotRun(100, hasSlot), 200);
    EXPECT_FALSE(hasSlot);
    EXPECT_EQ(table->findSlotRun(300, hasSlot), 1);
    EXPECT_TRUE(hasSlot);
    EXPECT_EQ(table->findSlotRun(301, hasSlot), 211);
    EXPECT_FALSE(hasSlot);
    EXPECT_EQ(table->findSlotRun(511, hasSlot), 1);
    EXPECT_FALSE(hasSlot);
    for (const int64 index : {int64{-1}, int64{512}})
        EXPECT_LUM_ERROR(table->findSlotRun(index, hasSlot), CInvalidArgError, -1,
                         "Invalid grain index: " + toDecimal(index), {{"uri", m_uriText}});
}

TEST_F(CVMDKGrainTableTest, WithoutSlotSizesEverySlotHasTheGrainSize) {
    const P<CVMDKGrainTable> table = open(false);
    EXPECT_EQ(info(*table, 1), (Info{1001, grainSize}));
    EXPECT_EQ(info(*table, 511), (Info{1511, grainSize}));
}

TEST_F(CVMDKGrainTableTest, WithSlotSizesEachSlotHasItsOwn) {
    const P<CVMDKGrainTable> table = open(true);
    EXPECT_EQ(info(*table, 1), (Info{1001, 2}));
    EXPECT_EQ(info(*table, 6), (Info{1006, 7}));
    EXPECT_EQ(info(*table, 511), (Info{1511, 1}));
}

TEST_F(CVMDKGrainTableTest, LargestNumbersAreNotNegative) {
    const P<CVMDKGrainTable> table = open(true);
    table->setGrainInfo(3, 0xFFFFFFFF, 0xFFFF);
    EXPECT_EQ(info(*table, 3), (Info{0xFFFFFFFF, 0xFFFF}));
    table->flushChangesToStream();
    EXPECT_EQ(info(*open(true), 3), (Info{0xFFFFFFFF, 0xFFFF}));
}

TEST_F(CVMDKGrainTableTest, IndexOutsideTheTableIsRefused) {
    const P<CVMDKGrainTable> table = open(false);
    for (const int64 index : {int64{-1}, int64{512}, INT64_MAX, INT64_MIN}) {
        const String message = "Invalid grain index: " + toDecimal(index);
        EXPECT_INVALID_ARG_ERROR(info(*table, index), "CVMDKGrainTable::getGrainInfo", message,
                                 {{"uri", m_uriText}});
        EXPECT_INVALID_ARG_ERROR(table->setGrainInfo(index, 5, grainSize), "CVMDKGrainTable::setGrainInfo",
                                 message, {{"uri", m_uriText}});
    }
    EXPECT_FALSE(table->hasUnflushedChanges());
}

// --- Changing ---

TEST_F(CVMDKGrainTableTest, WithoutSlotSizesTheSlotMustHaveTheGrainSize) {
    const P<CVMDKGrainTable> table = open(false);
    for (const int64 slotSize : {int64{0}, int64{-1}, int64{127}, int64{129}, grainSize + (int64{1} << 32)})
        EXPECT_INVALID_ARG_ERROR(table->setGrainInfo(1, 5, slotSize), "CVMDKGrainTable::setGrainInfo",
                                 "Invalid grain slot size - it must equal the grain size (slot size: " +
                                     toDecimal(slotSize) + ", grain size: 128)",
                                 {{"uri", m_uriText}});
    EXPECT_FALSE(table->hasUnflushedChanges());
    EXPECT_EQ(info(*table, 1), (Info{1001, grainSize}));
}

TEST_F(CVMDKGrainTableTest, SlotSizeBelowOneIsRefused) {
    const P<CVMDKGrainTable> table = open(true);
    for (const int64 slotSize : {0, -1})
        for (const int64 position : {0, 5})
            EXPECT_INVALID_ARG_ERROR(table->setGrainInfo(1, position, slotSize),
                                     "CVMDKGrainTable::setGrainInfo", "Invalid grain slot size.",
                                     {{"uri", m_uriText},
                                      {"slotSizeSectors", toDecimal(slotSize)},
                                      {"grainSizeSectors", "128"},
                                      {"posSectors", toDecimal(position)}});
    EXPECT_FALSE(table->hasUnflushedChanges());
    EXPECT_EQ(info(*table, 1), (Info{1001, 2}));
}

TEST_F(CVMDKGrainTableTest, ChangingWithoutWriteAccessIsRefused) {
    const P<CVMDKGrainTable> table = open(true, IIOStream::Access_Read);
    EXPECT_LUM_ERROR(table->setGrainInfo(1, 5, 2), CError, -1,
                     "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not opened "
                     "for writing.");
    EXPECT_FALSE(table->hasUnflushedChanges());
}

TEST_F(CVMDKGrainTableTest, FirstOfSeveralFaultsIsTold) {
    const P<CVMDKGrainTable> plain = open(false, IIOStream::Access_Read);
    EXPECT_INVALID_ARG_ERROR(plain->setGrainInfo(512, 5, 0), "CVMDKGrainTable::setGrainInfo",
                             "Invalid grain index: 512", {{"uri", m_uriText}});
    EXPECT_INVALID_ARG_ERROR(
        plain->setGrainInfo(1, 5, 0), "CVMDKGrainTable::setGrainInfo",
        "Invalid grain slot size - it must equal the grain size (slot size: 0, grain size: 128)",
        {{"uri", m_uriText}});
    EXPECT_INVALID_ARG_ERROR(
        open(true, IIOStream::Access_Read)->setGrainInfo(1, 5, 0), "CVMDKGrainTable::setGrainInfo",
        "Invalid grain slot size.",
        {{"uri", m_uriText}, {"slotSizeSectors", "0"}, {"grainSizeSectors", "128"}, {"posSectors", "5"}});
}

TEST_F(CVMDKGrainTableTest, TheValuesThatAreThereChangeNothing) {
    const P<CVMDKGrainTable> plain = open(false);
    plain->setGrainInfo(1, 1001, grainSize);
    EXPECT_FALSE(plain->hasUnflushedChanges());
    const P<CVMDKGrainTable> compressed = open(true);
    compressed->setGrainInfo(1, 1001, 2);
    EXPECT_FALSE(compressed->hasUnflushedChanges());
    compressed->setGrainInfo(0, 0, 1);
    EXPECT_FALSE(compressed->hasUnflushedChanges());
}

TEST_F(CVMDKGrainTableTest, LargerValuesAreCutAndCountAsChangesEveryTime) {
    const P<CVMDKGrainTable> table = open(true);
    for (int i = 0; i < 2; ++i) {
        table->setGrainInfo(1, (int64{1} << 32) + 5, 65536 + 9);
        EXPECT_EQ(info(*table, 1), (Info{5, 9}));
        EXPECT_TRUE(table->hasUnflushedChanges());
        m_stream->takeOperations();
        table->flushChangesToStream();
        EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeTable, writeRedundant, writeSlotSizes));
    }
}

// --- Flushing ---

TEST_F(CVMDKGrainTableTest, FlushWritesBothTablesAndTheSlotSizes) {
    const P<CVMDKGrainTable> table = open(true);
    m_stream->takeOperations();
    table->setGrainInfo(2, 0x01020304, 0x0506);
    EXPECT_TRUE(table->hasUnflushedChanges());
    EXPECT_THAT(m_stream->takeOperations(), IsEmpty());
    table->flushChangesToStream();
    EXPECT_FALSE(table->hasUnflushedChanges());
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeTable, writeRedundant, writeSlotSizes));

    const Bytes bytes = file();
    EXPECT_EQ(slice(bytes, tableSector * 512 + 8, 4), bytesOf({0x04, 0x03, 0x02, 0x01}));
    EXPECT_EQ(slice(bytes, slotSizeSector * 512 + 4, 2), bytesOf({0x06, 0x05}));
    EXPECT_EQ(slice(bytes, tableSector * 512, tableBytes), slice(bytes, redundantSector * 512, tableBytes));
    EXPECT_EQ(fileEntry(tableSector, 3), 1003u);
    EXPECT_EQ(fileSlotSize(3), 4);
}

TEST_F(CVMDKGrainTableTest, FlushWritesOnlyWhatChanged) {
    const P<CVMDKGrainTable> table = open(true);
    m_stream->takeOperations();
    table->flushChangesToStream();
    EXPECT_THAT(m_stream->takeOperations(), IsEmpty());
    table->setGrainInfo(1, 1001, 9);
    table->flushChangesToStream();
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeSlotSizes));
    table->setGrainInfo(1, 4000, 9);
    table->flushChangesToStream();
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeTable, writeRedundant));
    table->flushChangesToStream();
    EXPECT_THAT(m_stream->takeOperations(), IsEmpty());
}

TEST_F(CVMDKGrainTableTest, WithoutRedundantTableOnlyThePrimaryIsWritten) {
    for (const int64 none : {0, -1}) {
        const P<CVMDKGrainTable> table = open(false, IIOStream::Access_ReadWrite, none);
        m_stream->takeOperations();
        table->setGrainInfo(1, 5000 + none, grainSize);
        table->flushChangesToStream();
        EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeTable));
    }
}

TEST_F(CVMDKGrainTableTest, WhatWasNotWrittenStaysToBeWritten) {
    const TArray<TArray<Operation>> retries = {{writeTable, writeRedundant, writeSlotSizes},
                                               {writeTable, writeRedundant, writeSlotSizes},
                                               {writeSlotSizes}};
    for (int nth = 1; nth <= 3; ++nth) {
        const P<CVMDKGrainTable> table = open(true);
        table->setGrainInfo(1, 6000 + nth, 100 + nth);
        m_faults->addRule({.operation = FaultRule::Write, .nth = nth});
        const int hits = m_faults->getHits();
        EXPECT_THROW(table->flushChangesToStream(), CIOError) << nth;
        EXPECT_EQ(m_faults->getHits(), hits + 1);
        m_faults->clearRules();
        EXPECT_TRUE(table->hasUnflushedChanges()) << nth;

        m_stream->takeOperations();
        table->flushChangesToStream();
        EXPECT_EQ(m_stream->takeOperations(), retries[static_cast<std::size_t>(nth - 1)]) << nth;
        EXPECT_FALSE(table->hasUnflushedChanges());
        EXPECT_EQ(fileEntry(tableSector, 1), 6000u + static_cast<uint32>(nth));
        EXPECT_EQ(fileEntry(redundantSector, 1), 6000u + static_cast<uint32>(nth));
        EXPECT_EQ(fileSlotSize(1), 100 + nth);
    }
}

// --- Destruction ---

TEST_F(CVMDKGrainTableTest, DestructorWritesChangesBehindWhatTheyName) {
    P<CVMDKGrainTable> plain = open(false);
    plain->setGrainInfo(1, 7000, grainSize);
    m_stream->takeOperations();
    plain = nullptr;
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(flushStream, writeTable, writeRedundant));
    EXPECT_EQ(fileEntry(tableSector, 1), 7000u);

    P<CVMDKGrainTable> compressed = open(true);
    compressed->setGrainInfo(0, 8000, 50); // a first slot
    compressed->setGrainInfo(1, 9000, 60); // a larger one
    m_stream->takeOperations();
    compressed = nullptr;
    EXPECT_THAT(m_stream->takeOperations(), ElementsAre(writeSlotSizes, flushStream, writeTable,
                                                        writeRedundant, flushStream, writeSlotSizes));
    EXPECT_EQ(info(*open(true), 0), (Info{8000, 50}));
    EXPECT_EQ(info(*open(true), 1), (Info{9000, 60}));
}

TEST_F(CVMDKGrainTableTest, DestructorOfACleanTableTouchesNothing) {
    P<CVMDKGrainTable> table = open(true);
    m_stream->takeOperations();
    table = nullptr;
    EXPECT_THAT(m_stream->takeOperations(), IsEmpty());
}

TEST_F(CVMDKGrainTableTest, DestructorReportsWhatItCannotWriteAndTriesAgain) {
    int64 position = 8000;
    for (const FaultRule& rule :
         {FaultRule{.operation = FaultRule::Flush}, FaultRule{.operation = FaultRule::Write},
          FaultRule{.operation = FaultRule::Flush, .always = true},
          FaultRule{.operation = FaultRule::Write, .always = true}}) {
        P<CVMDKGrainTable> table = open(true);
        const uint32 before = fileEntry(tableSector, 1);
        table->setGrainInfo(1, ++position, 60);
        m_faults->addRule(rule);
        CLogRecorder log;
        table = nullptr;
        m_faults->clearRules();
        const String error = rule.operation == FaultRule::Flush ? "Cannot flush file: Injected fault"
                                                                : "Cannot write to file: Injected fault";
        EXPECT_THAT(log.takeEntries(),
                    ElementsAre(CLogRecorder::Entry{
                        ILogSink::Level_Error,
                        "Exception ignored in the destructor of tessel::CVMDKGrainTable; data may be lost",
                        error, String()}));
        EXPECT_EQ(fileEntry(tableSector, 1), rule.always ? before : position);
    }
}

TEST_F(CVMDKGrainTableTest, OldFailureOfTheStreamDoesNotKeepTheDestructorFromWriting) {
    for (const bool withSlotSizes : {false, true}) {
        P<CVMDKGrainTable> table = open(withSlotSizes);
        table->setGrainInfo(1, withSlotSizes ? 8000 : 7000, withSlotSizes ? 60 : grainSize);
        // Somebody else's write failed, of which the stream tells by its next flush.
        m_faults->addRule({.operation = FaultRule::Write});
        m_stream->seek(23 * 512);
        EXPECT_THROW(m_stream->write("x", 1), CIOError);
        CLogRecorder log;
        table = nullptr;
        m_faults->clearRules();
        EXPECT_THAT(log.takeEntries(),
                    ElementsAre(CLogRecorder::Entry{
                        ILogSink::Level_Error,
                        "Exception ignored in the destructor of tessel::CVMDKGrainTable; data may be lost",
                        "Cannot write to file: Injected fault", String()}));
        const uint32 expected = withSlotSizes ? 8000 : 7000;
        EXPECT_EQ(fileEntry(tableSector, 1), expected);
        EXPECT_EQ(fileEntry(redundantSector, 1), expected);
        if (withSlotSizes) {
            EXPECT_EQ(fileSlotSize(1), 60);
        }
    }
}

} // namespace
} // namespace tessel::test
