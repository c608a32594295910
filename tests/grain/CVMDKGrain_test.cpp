#include "tessel/CVMDKGrain.h"

#include "CGrainFixture.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Call = CFakeDataProvider::Call;

class CVMDKGrainTest : public CGrainOfBothKindsFixture {};

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKGrainTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Compressed" : "Plain"; });

// --- Opening and closing ---

TEST_P(CVMDKGrainTest, NewGrainIsClosed) {
    EXPECT_FALSE(grain().isOpen());
    EXPECT_EQ(grain().getGrainStartPositionSectors(), -1);
    EXPECT_EQ(grain().getPosition(), 0);
}

TEST_P(CVMDKGrainTest, OpenGrainStandsAtItsStart) {
    store(3, patternBytes(grainBytes));
    m_extent->openGrain(3);
    EXPECT_TRUE(grain().isOpen());
    EXPECT_EQ(grain().getPosition(), 0);
    EXPECT_EQ(grain().getBytesLeft(), grainBytes);
    EXPECT_EQ(grain().getGrainStartPositionSectors(), m_extent->info(3).posSectors);
    grain().seek(100);
    readHere(50);
    EXPECT_EQ(grain().getPosition(), 150);
    EXPECT_EQ(grain().getBytesLeft(), grainBytes - 150);
    m_extent->openGrain(4);
    EXPECT_EQ(grain().getPosition(), 0);
    EXPECT_EQ(grain().getGrainStartPositionSectors(), 0);
}

TEST_P(CVMDKGrainTest, ClosingForgetsTheGrain) {
    store(3, patternBytes(grainBytes));
    grain().close();
    EXPECT_FALSE(grain().isOpen());
    EXPECT_EQ(grain().getGrainStartPositionSectors(), -1);
    EXPECT_EQ(grain().getPosition(), 0);
    EXPECT_FALSE(grain().isGrainWrittenAndIndependentOfParent());
    EXPECT_NO_THROW(grain().close());
}

TEST_P(CVMDKGrainTest, SlotSizeOfAGrainWithoutSlotDoesNotMatter) {
    for (const int64 slotSize : {-1, 0, 1, 100}) {
        EXPECT_NO_THROW(grain().open(0, 0, 0, slotSize));
        EXPECT_EQ(readHere(), Bytes(grainBytes));
    }
}

TEST_P(CVMDKGrainTest, OpeningAnotherGrainWritesTheChangesOfTheOneBefore) {
    m_extent->write(3, 10, bytesOf("changed"));
    grain().open(4, CTestExtent::firstDiskGrain + 4, 0, 0);
    EXPECT_EQ(m_extent->read(3), overwritten(Bytes(grainBytes), 10, bytesOf("changed")));
}

TEST_P(CVMDKGrainTest, GrainThatCannotBeWrittenStaysOpenWithItsChanges) {
    m_extent->write(3, 10, bytesOf("changed"));
    m_extent->faults().addRule({.operation = FaultRule::Write, .always = true});
    EXPECT_THROW(grain().open(4, CTestExtent::firstDiskGrain + 4, 0, 0), CIOError);
    EXPECT_THROW(grain().close(), CIOError);
    EXPECT_TRUE(grain().isOpen());
    EXPECT_TRUE(grain().isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(grain().getPosition(), 17);
    m_extent->endFaults();
    grain().open(4, CTestExtent::firstDiskGrain + 4, 0, 0);
    EXPECT_EQ(m_extent->read(3), overwritten(Bytes(grainBytes), 10, bytesOf("changed")));
}

TEST_P(CVMDKGrainTest, DestructorWritesTheChanges) {
    m_extent->write(3, 10, bytesOf("changed"));
    m_extent->close();
    m_extent->open(IIOStream::Access_Read);
    EXPECT_EQ(m_extent->read(3), overwritten(Bytes(grainBytes), 10, bytesOf("changed")));
}

TEST_P(CVMDKGrainTest, DestructorReportsChangesThatItCannotWrite) {
    m_extent->write(3, 10, bytesOf("changed"));
    m_extent->info(3); // its table is there
    m_extent->faults().addRule({.operation = FaultRule::Write});
    CLogRecorder log;
    m_extent->useGrain(nullptr);
    EXPECT_THAT(log.takeEntries(),
                ElementsAre(CLogRecorder::Entry{
                    ILogSink::Level_Error,
                    "Exception ignored in the destructor of tessel::CVMDKGrain; data may be lost",
                    "Cannot write to file: Injected fault", String()}));
    m_extent->endFaults();
    EXPECT_EQ(m_extent->info(3), (Info{0, 0}));
}

TEST_P(CVMDKGrainTest, MakesPreparersOfItsKind) {
    const P<CVMDKDataPreparer> preparer = grain().createDataPreparer();
    EXPECT_EQ(preparer->doesAnything(), GetParam());
    EXPECT_EQ(preparer->getWorstCaseGrainSizeSectors(), GetParam() ? worstCaseSectors() : 8);
    EXPECT_NE(grain().createDataPreparer(), preparer);
}

class CVMDKGrainSlotTest : public CGrainFixture {};

TEST_F(CVMDKGrainSlotTest, SlotOfACompressedGrainMustHaveASize) {
    make(true);
    for (const int64 slotSize : {0, -1}) {
        m_extent->write(1, 0, bytesOf("changed"));
        EXPECT_INVALID_ARG_ERROR(grain().open(2, 2, 100, slotSize), "CVMDKGrain::open",
                                 "Invalid slot size for allocated compressed grain: " + toDecimal(slotSize) +
                                     " sectors");
        EXPECT_FALSE(grain().isOpen());
        EXPECT_NE(m_extent->info(1), (Info{0, 0})) << "the grain before was written";
    }
    EXPECT_NO_THROW(grain().open(2, 2, 100, 1));
}

TEST_F(CVMDKGrainSlotTest, SlotOfAnUncompressedGrainMustHoldTheGrain) {
    make(false);
    for (const int64 slotSize : {7, 0, -1}) {
        EXPECT_INVALID_ARG_ERROR(grain().open(2, 2, 100, slotSize), "CVMDKGrain::open",
                                 "Slot size for allocated uncompressed grain is smaller than the grain size "
                                 "(slot size: " +
                                     toDecimal(slotSize) + " sectors, grain size: 8 sectors");
        EXPECT_FALSE(grain().isOpen());
    }
    EXPECT_NO_THROW(grain().open(2, 2, 100, 8));
    EXPECT_NO_THROW(grain().open(2, 2, 100, 9));
}

// --- The cursor ---

TEST_P(CVMDKGrainTest, SeeksWithinTheGrainOnly) {
    m_extent->openGrain(0);
    for (const int64 position : {0, 1, 4095}) {
        grain().seek(position);
        EXPECT_EQ(grain().getPosition(), position);
    }
    for (const int64 position : {int64{-1}, int64{4096}, INT64_MAX, INT64_MIN}) {
        EXPECT_INVALID_ARG_ERROR(
            grain().seek(position), "CVMDKGrain::seek",
            "Invalid seek position in VMDK grain: " + toDecimal(position),
            {{"uri", m_extent->uriText()}, {"position", toDecimal(position)}, {"grainSize", "4096"}});
        EXPECT_EQ(grain().getPosition(), 4095);
    }
}

// --- Reading ---

TEST_P(CVMDKGrainTest, NeverWrittenGrainReadsAsZerosAndLoadsNothing) {
    m_extent->openGrain(5);
    m_extent->recorder().takeOperations();
    EXPECT_EQ(readHere(1000), Bytes(1000));
    EXPECT_EQ(readHere(3096), Bytes(3096));
    EXPECT_EQ(grain().getBytesLeft(), 0);
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
}

TEST_P(CVMDKGrainTest, NeverWrittenGrainReadsTheProviderAtTheDiskPosition) {
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    grain().seek(100);
    EXPECT_EQ(readHere(50), m_provider->contents(diskByte(5) + 100, 50));
    EXPECT_EQ(readHere(20), m_provider->contents(diskByte(5) + 150, 20));
    EXPECT_THAT(m_provider->takeCalls(), ElementsAre(Call{CFakeDataProvider::Data, diskByte(5) + 100, 50},
                                                     Call{CFakeDataProvider::Data, diskByte(5) + 150, 20}));
}

TEST_P(CVMDKGrainTest, GrainWithASlotIsLoadedOnceWhateverTheProviderHolds) {
    store(5, patternBytes(grainBytes));
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    m_extent->recorder().takeOperations();
    grain().seek(700);
    EXPECT_EQ(readHere(300), slice(patternBytes(grainBytes), 700, 300));
    EXPECT_FALSE(m_extent->recorder().takeOperations().empty());
    grain().seek(0);
    EXPECT_EQ(readHere(), patternBytes(grainBytes));
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
    EXPECT_THAT(m_provider->takeCalls(), IsEmpty());
}

TEST_P(CVMDKGrainTest, ReadInPlaceReadsNoMoreThanIsAskedForOfAPlainGrain) {
    const bool isCompressed = GetParam();
    store(5, patternBytes(grainBytes));
    m_extent->openGrain(5);
    m_extent->recorder().takeOperations();
    grain().seek(700);
    Bytes bytes(300);
    grain().readInPlace(bytes.getData(), 300);
    EXPECT_EQ(bytes, slice(patternBytes(grainBytes), 700, 300));
    EXPECT_EQ(grain().getPosition(), 1000);
    const auto operations = m_extent->recorder().takeOperations();
    ASSERT_FALSE(operations.empty());
    if (!isCompressed) {
        const int64 place = m_extent->info(5).posSectors * 512 + 700;
        EXPECT_THAT(operations, ElementsAre(CRecordingStream::Operation{CRecordingStream::Read, place, 300}));
    }
    // A change that was not written yet is read all the same.
    grain().seek(710);
    writeHere(Bytes(5));
    grain().seek(700);
    grain().readInPlace(bytes.getData(), 300);
    EXPECT_EQ(bytes, slice(overwritten(patternBytes(grainBytes), 710, Bytes(5)), 700, 300));
    grain().seek(4000);
    EXPECT_LUM_ERROR(grain().readInPlace(bytes.getData(), 97), CIOError, 4,
                     "Unexpected end of data trying to read 97 bytes from VMDK grain.",
                     {{"uri", m_extent->uriText()}, {"position", "4000"}, {"bytesToRead", "97"}});
    EXPECT_INVALID_ARG_ERROR(grain().readInPlace(bytes.getData(), -1), "CVMDKGrain::read",
                             "Invalid number of bytes to read: -1", {{"uri", m_extent->uriText()}});
}

TEST_P(CVMDKGrainTest, ReadingBeyondTheEndIsRefused) {
    store(5, patternBytes(grainBytes));
    for (const int64 grainIndex : {5, 6}) {
        m_extent->openGrain(grainIndex);
        grain().seek(4000);
        Bytes bytes(grainBytes);
        for (const int count : {97, INT_MAX})
            EXPECT_LUM_ERROR(
                grain().read(bytes.getData(), count), CIOError, 4,
                "Unexpected end of data trying to read " + toDecimal(count) + " bytes from VMDK grain.",
                {{"uri", m_extent->uriText()}, {"position", "4000"}, {"bytesToRead", toDecimal(count)}});
        EXPECT_INVALID_ARG_ERROR(grain().read(bytes.getData(), -1), "CVMDKGrain::read",
                                 "Invalid number of bytes to read: -1", {{"uri", m_extent->uriText()}});
        EXPECT_EQ(grain().getPosition(), 4000);
        EXPECT_EQ(readHere(96).getUsed(), 96);
        EXPECT_EQ(readHere(0).getUsed(), 0) << "nothing can be read at the end too";
    }
}

TEST_P(CVMDKGrainTest, FailedReadLeavesTheGrainNotLoaded) {
    store(5, patternBytes(grainBytes));
    m_extent->openGrain(5);
    grain().seek(10);
    m_extent->faults().addRule({.operation = FaultRule::Read});
    EXPECT_LUM_ERROR(readHere(5), CIOError, 1, "Cannot read from file: Injected fault",
                     {{"uri", m_extent->uriText()},
                      {"position", toDecimal(m_extent->info(5).posSectors * 512)},
                      {"bytesToRead", GetParam() ? "512" : "4096"}});
    EXPECT_EQ(grain().getPosition(), 10);
    EXPECT_FALSE(m_extent->faults().getHits() == 0);
    EXPECT_EQ(readHere(5), slice(patternBytes(grainBytes), 10, 5));
}

TEST_P(CVMDKGrainTest, FailedProviderIsToldAndCanBeAskedAgain) {
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    m_provider->fails = true;
    EXPECT_LUM_ERROR(readHere(5), CIOError, 1, "Parent cannot be read");
    EXPECT_LUM_ERROR(writeHere(bytesOf("abc")), CIOError, 1, "Parent cannot be read");
    EXPECT_EQ(grain().getPosition(), 0);
    EXPECT_FALSE(grain().isGrainWrittenAndIndependentOfParent());
    m_provider->fails = false;
    EXPECT_EQ(readHere(), providerGrain(5));
}

// --- What counts as written ---

TEST_P(CVMDKGrainTest, GrainIsWrittenWithASlotOrChangesOrInTheProvider) {
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    m_provider->written = true;
    EXPECT_TRUE(grain().isGrainWritten());
    EXPECT_THAT(m_provider->takeCalls(), ElementsAre(Call{CFakeDataProvider::Written, diskByte(5)}));
    EXPECT_FALSE(grain().isGrainWrittenAndIndependentOfParent());
    m_provider->written = false;
    EXPECT_FALSE(grain().isGrainWritten());

    m_provider->takeCalls();
    writeHere(patternBytes(grainBytes));
    EXPECT_TRUE(grain().isGrainWritten());
    EXPECT_TRUE(grain().isGrainWrittenAndIndependentOfParent());
    grain().flushChangesToStream();
    EXPECT_TRUE(grain().isGrainWritten());
    EXPECT_TRUE(grain().isGrainWrittenAndIndependentOfParent());
    EXPECT_THAT(m_provider->takeCalls(), IsEmpty());
    m_extent->useGrain(nullptr);
    m_extent->openGrain(5);
    EXPECT_TRUE(grain().isGrainWritten());
    m_extent->openGrain(6);
    EXPECT_FALSE(grain().isGrainWritten());
}

// --- A change of the provider ---

TEST_P(CVMDKGrainTest, NewProviderTakesThePlaceOfCleanContents) {
    const P<CFakeDataProvider> other(new CFakeDataProvider(7));
    m_extent->useGrain(m_provider.get());
    m_extent->write(5, 0, Bytes(grainBytes)); // all zeros: loaded, and not stored
    grain().flushChangesToStream();
    m_extent->openGrain(5);
    EXPECT_EQ(readHere(), providerGrain(5));
    grain().setFallbackDataProvider(other.get());
    grain().seek(0);
    EXPECT_EQ(readHere(), other->contents(diskByte(5), grainBytes));
    grain().setFallbackDataProvider(nullptr);
    grain().seek(0);
    EXPECT_EQ(readHere(), Bytes(grainBytes));
}

TEST_P(CVMDKGrainTest, CleanLoadedGrainWithoutSlotIsDroppedWithItsProvider) {
    m_extent->openGrain(5);
    writeHere(Bytes(10));
    grain().flushChangesToStream(); // zeros: nothing is stored, and the grain stays loaded
    EXPECT_FALSE(grain().isGrainWrittenAndIndependentOfParent());
    grain().setFallbackDataProvider(m_provider.get());
    grain().seek(0);
    EXPECT_EQ(readHere(), providerGrain(5));
}

TEST_P(CVMDKGrainTest, NewProviderLeavesChangesAndSlotsAlone) {
    store(5, patternBytes(grainBytes));
    m_extent->openGrain(5);
    readHere();
    grain().setFallbackDataProvider(m_provider.get());
    grain().seek(0);
    EXPECT_EQ(readHere(), patternBytes(grainBytes));

    m_extent->write(6, 10, bytesOf("changed"));
    const P<CFakeDataProvider> other(new CFakeDataProvider(7));
    grain().setFallbackDataProvider(other.get());
    grain().seek(0);
    EXPECT_EQ(readHere(), overwritten(providerGrain(6), 10, bytesOf("changed")));
}

} // namespace
} // namespace tessel::test
