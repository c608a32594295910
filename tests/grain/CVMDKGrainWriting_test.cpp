#include "CGrainFixture.h"
#include "ErrorMatchers.h"
#include "lum/LittleEndian.h"
#include "tessel/CVMDKGrain.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Call = CFakeDataProvider::Call;
using Operation = CRecordingStream::Operation;

class CVMDKGrainWritingTest : public CGrainOfBothKindsFixture {};

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKGrainWritingTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Compressed" : "Plain"; });

// --- What is refused ---

TEST_P(CVMDKGrainWritingTest, WritingBeyondTheEndIsRefused) {
    m_extent->openGrain(0);
    grain().seek(4000);
    const Bytes bytes(grainBytes);
    for (const int count : {97, 4096, INT_MAX})
        EXPECT_LUM_ERROR(grain().write(bytes.getData(), count), CIOError, 3,
                         "Cannot write " + toDecimal(count) + " bytes to grain. Grain size exceeded.",
                         {{"uri", m_extent->uriText()}});
    EXPECT_EQ(grain().getPosition(), 4000);
    EXPECT_FALSE(grain().isGrainWritten());
}

TEST_P(CVMDKGrainWritingTest, NegativeCountIsRefusedInTheWordsOfReading) {
    m_extent->openGrain(0);
    for (const int count : {-1, INT_MIN})
        EXPECT_INVALID_ARG_ERROR(grain().write("abc", count), "CVMDKGrain::read",
                                 "Invalid number of bytes to read: " + toDecimal(count),
                                 {{"uri", m_extent->uriText()}});
    EXPECT_FALSE(grain().isGrainWritten());
}

TEST_P(CVMDKGrainWritingTest, WritingWithoutWriteAccessIsRefused) {
    m_extent->open(IIOStream::Access_Read);
    m_extent->openGrain(0);
    EXPECT_NO_THROW(grain().write(nullptr, 0)) << "nothing is nothing";
    EXPECT_LUM_ERROR(grain().write("abc", 3), CError, -1,
                     "Internal error: CVMDKGrain::write was called, but the grain was not opened for "
                     "writing.");
    EXPECT_INVALID_ARG_ERROR(grain().write("abc", -3), "CVMDKGrain::read",
                             "Invalid number of bytes to read: -3", {{"uri", m_extent->uriText()}});
    EXPECT_LUM_ERROR(grain().write("abc", 4097), CIOError, 3,
                     "Cannot write 4097 bytes to grain. Grain size exceeded.",
                     {{"uri", m_extent->uriText()}});
    EXPECT_FALSE(grain().isGrainWritten());
}

TEST_P(CVMDKGrainWritingTest, WritingNothingChangesNothing) {
    m_extent->openGrain(0);
    grain().seek(7);
    grain().write(nullptr, 0);
    EXPECT_EQ(grain().getPosition(), 7);
    EXPECT_FALSE(grain().isGrainWritten());
}

// --- Contents around a write ---

TEST_P(CVMDKGrainWritingTest, PartialWriteKeepsTheRestOfTheSlot) {
    store(5, patternBytes(grainBytes));
    m_extent->write(5, 100, bytesOf("changed"));
    EXPECT_EQ(grain().getPosition(), 107);
    const Bytes expected = overwritten(patternBytes(grainBytes), 100, bytesOf("changed"));
    grain().seek(0);
    EXPECT_EQ(readHere(), expected) << "before it is flushed";
    EXPECT_EQ(m_extent->read(5), expected);
}

TEST_P(CVMDKGrainWritingTest, PartialWriteKeepsTheRestOfTheProvidersGrain) {
    m_extent->useGrain(m_provider.get());
    m_extent->write(5, 4090, bytesOf("abcdef"));
    EXPECT_THAT(m_provider->takeCalls(), ElementsAre(Call{CFakeDataProvider::Data, diskByte(5), grainBytes}));
    EXPECT_EQ(m_extent->read(5), overwritten(providerGrain(5), 4090, bytesOf("abcdef")));
}

TEST_P(CVMDKGrainWritingTest, PartialWriteLeavesZerosInANewGrain) {
    m_extent->write(5, 0, bytesOf("x"));
    EXPECT_EQ(m_extent->read(5), overwritten(Bytes(grainBytes), 0, bytesOf("x")));
}

TEST_P(CVMDKGrainWritingTest, WholeGrainIsWrittenWithoutLoadingWhatItReplaces) {
    store(5, patternBytes(grainBytes, 1));
    m_extent->useGrain(m_provider.get());
    for (const int64 grainIndex : {5, 6}) {
        m_extent->openGrain(grainIndex);
        m_extent->recorder().takeOperations();
        writeHere(patternBytes(grainBytes, 2));
        EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
        EXPECT_THAT(m_provider->takeCalls(), IsEmpty());
        EXPECT_EQ(m_extent->read(grainIndex), patternBytes(grainBytes, 2));
    }
}

TEST_P(CVMDKGrainWritingTest, NothingIsWrittenBeforeAFlush) {
    m_extent->openGrain(5);
    m_extent->recorder().takeOperations();
    writeHere(patternBytes(2000));
    writeHere(patternBytes(2096));
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
    grain().flushChangesToStream();
    EXPECT_FALSE(takeWrites().empty());
    grain().flushChangesToStream();
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty()) << "once is enough";
}

// --- Zeros ---

TEST_P(CVMDKGrainWritingTest, ZerosInANewGrainAreNotStored) {
    m_extent->write(5, 100, Bytes(512));
    m_extent->recorder().takeOperations();
    grain().flushChangesToStream();
    EXPECT_THAT(takeWrites(), IsEmpty());
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
    EXPECT_FALSE(grain().isGrainWritten());
    grain().seek(0);
    EXPECT_EQ(readHere(), Bytes(grainBytes));
    for (const auto& [grainIndex, offset] : {std::pair{6, 0}, {7, 4095}}) { // one byte is enough
        m_extent->write(grainIndex, offset, bytesOf({1}));
        grain().flushChangesToStream();
        EXPECT_NE(m_extent->info(grainIndex), (Info{0, 0})) << offset;
    }
}

TEST_P(CVMDKGrainWritingTest, ZerosOverAProvidersGrainAreNotStoredAndItShowsThroughAgain) {
    m_extent->useGrain(m_provider.get());
    m_extent->write(5, 0, Bytes(grainBytes));
    grain().seek(0);
    EXPECT_EQ(readHere(), Bytes(grainBytes)) << "as long as they are not flushed";
    grain().flushChangesToStream();
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
    grain().seek(0);
    EXPECT_EQ(readHere(), providerGrain(5)) << "what is read is what is stored";
    EXPECT_EQ(m_extent->read(5), providerGrain(5));
}

TEST_P(CVMDKGrainWritingTest, ZerosOverASlotAreStored) {
    store(5, patternBytes(grainBytes));
    const Info before = m_extent->info(5);
    m_extent->useGrain(m_provider.get());
    store(5, Bytes(grainBytes));
    EXPECT_EQ(m_extent->info(5), before);
    EXPECT_EQ(m_extent->read(5), Bytes(grainBytes));
}

// --- Slots ---

class CVMDKGrainSlotsTest : public CGrainFixture {};

TEST_F(CVMDKGrainSlotsTest, UncompressedGrainIsRewrittenInPlace) {
    make(false);
    store(5, patternBytes(grainBytes, 1));
    const Info slot = m_extent->info(5);
    EXPECT_EQ(slot.slotSizeSectors, 8);
    m_extent->recorder().takeOperations();
    store(5, patternBytes(grainBytes, 2));
    EXPECT_THAT(takeWrites(), ElementsAre(Operation{CRecordingStream::Write, slot.posSectors * 512, 4096}));
    EXPECT_EQ(m_extent->info(5), slot);
    EXPECT_EQ(m_extent->file(slot.posSectors * 512, 4096), patternBytes(grainBytes, 2));
}

TEST_F(CVMDKGrainSlotsTest, CompressedGrainGetsTheSlotThatItNeeds) {
    make(true);
    const Bytes half = overwritten(Bytes(grainBytes), 0, noise(1800));
    store(5, half);
    const Bytes expected = record(half, CTestExtent::firstDiskGrain + 5);
    const Info slot = m_extent->info(5);
    EXPECT_EQ(slot, (Info{m_extent->overheadBytes() / 512, expected.getUsed() / 512}));
    EXPECT_EQ(m_extent->file(slot.posSectors * 512, expected.getUsed()), expected);
}

TEST_F(CVMDKGrainSlotsTest, CompressedGrainThatGrowsMovesOnceAndStaysThen) {
    make(true);
    store(5, patternBytes(10)); // shorter writes leave zeros behind
    store(6, patternBytes(10));
    const Info small = m_extent->info(5);
    EXPECT_EQ(small.slotSizeSectors, 1);

    store(5, noise(grainBytes, 1));
    const Info large = m_extent->info(5);
    EXPECT_EQ(large, (Info{small.posSectors + 2, worstCaseSectors()}));
    EXPECT_EQ(grain().getGrainStartPositionSectors(), large.posSectors);
    EXPECT_EQ(m_extent->read(5), noise(grainBytes, 1));
    const int64 length = m_extent->fileLength();
    for (unsigned int seed = 2; seed < 20; ++seed) {
        const Bytes contents = overwritten(Bytes(grainBytes), 0, noise(seed * 200, seed));
        store(5, contents);
        EXPECT_EQ(m_extent->info(5), large);
        EXPECT_EQ(m_extent->read(5), contents);
    }
    EXPECT_EQ(m_extent->fileLength(), length);
    EXPECT_EQ(m_extent->read(6), overwritten(Bytes(grainBytes), 0, patternBytes(10)));
}

TEST_F(CVMDKGrainSlotsTest, CompressedGrainThatFitsItsSlotStaysInPlace) {
    make(true);
    store(5, noise(grainBytes));
    const Info slot = m_extent->info(5);
    const Bytes small = overwritten(Bytes(grainBytes), 0, patternBytes(10));
    m_extent->recorder().takeOperations();
    store(5, small);
    EXPECT_THAT(takeWrites(), ElementsAre(Operation{CRecordingStream::Write, slot.posSectors * 512, 512}));
    EXPECT_EQ(m_extent->info(5), slot) << "the slot keeps its size";
    m_extent->open();
    EXPECT_EQ(m_extent->read(5), small);
}

TEST_F(CVMDKGrainSlotsTest, RecordInPlaceIsFollowedByZerosToTheEndOfItsSector) {
    make(true);
    store(5, noise(grainBytes));
    const Info slot = m_extent->info(5);
    for (const int64 size : {10, 300, 900}) {
        m_extent->patchFile(slot.posSectors * 512, Bytes(noise(slot.slotSizeSectors * 512, 9)));
        m_extent->openGrain(5);
        writeHere(overwritten(Bytes(grainBytes), 0, noise(size, 3))); // a whole grain: nothing is loaded
        grain().flushChangesToStream();
        const Bytes stored = m_extent->file(slot.posSectors * 512, slot.slotSizeSectors * 512);
        const int64 used = 12 + loadLittleEndian<uint32>(stored.getData() + 8);
        const int64 sectorEnd = (used + 511) / 512 * 512;
        EXPECT_EQ(slice(stored, used, sectorEnd - used), Bytes(sectorEnd - used)) << size;
        EXPECT_EQ(slice(stored, 0, sectorEnd),
                  record(overwritten(Bytes(grainBytes), 0, noise(size, 3)), CTestExtent::firstDiskGrain + 5));
        EXPECT_EQ(slice(stored, sectorEnd, 512), slice(noise(slot.slotSizeSectors * 512, 9), sectorEnd, 512))
            << "what lies behind is not touched";
    }
}

TEST_F(CVMDKGrainSlotsTest, SlotIsGivenUpOnlyWhenTheNewOneStands) {
    for (const FaultRule::Kind kind : {FaultRule::Refused, FaultRule::Short, FaultRule::FullDisk})
        for (int nth = 1; nth <= 2; ++nth) { // the record, the rest of its slot
            make(true);
            const Bytes larger = overwritten(Bytes(grainBytes), 0, noise(1800));
            const Bytes old = overwritten(Bytes(grainBytes), 0, patternBytes(10));
            store(5, old);
            const Info slot = m_extent->info(5);
            m_extent->write(5, 0, larger);
            m_extent->faults().addRule({.operation = FaultRule::Write, .kind = kind, .nth = nth});
            EXPECT_THROW(grain().flushChangesToStream(), CIOError) << nth;
            m_extent->endFaults();
            EXPECT_EQ(grain().getGrainStartPositionSectors(), slot.posSectors);
            EXPECT_EQ(m_extent->info(5), slot);
            EXPECT_EQ(m_extent->file(slot.posSectors * 512, 512),
                      record(old, CTestExtent::firstDiskGrain + 5));
            grain().seek(0);
            EXPECT_EQ(readHere(), larger) << "the change is pending still";

            grain().flushChangesToStream();
            EXPECT_EQ(m_extent->info(5).slotSizeSectors, worstCaseSectors());
            EXPECT_EQ(m_extent->read(5), larger);
        }
}

TEST_F(CVMDKGrainSlotsTest, FailedMoveLeavesASlotThatSmallerDataStillFit) {
    make(true);
    store(5, patternBytes(10));
    const Info slot = m_extent->info(5);
    m_extent->write(5, 0, noise(grainBytes));
    m_extent->faults().addRule({.operation = FaultRule::Write});
    EXPECT_THROW(grain().flushChangesToStream(), CIOError);
    m_extent->endFaults();
    grain().seek(0);
    writeHere(Bytes(grainBytes));
    m_extent->flush();
    EXPECT_EQ(m_extent->info(5), slot);
    m_extent->open();
    EXPECT_EQ(m_extent->read(5), Bytes(grainBytes));
}

// --- Records that are damaged ---

TEST_F(CVMDKGrainSlotsTest, RecordThatClaimsMoreThanTwoGrainsIsRefused) {
    make(true);
    store(5, noise(grainBytes));
    const int64 position = m_extent->info(5).posSectors * 512;
    for (const uint32 size : {uint32{8193}, uint32{0x7FFFFFFF}, uint32{0xFFFFFFFF}}) {
        m_extent->patchUInt32(position + 8, size);
        m_extent->openGrain(5);
        m_extent->recorder().takeOperations();
        EXPECT_LUM_ERROR(readHere(), CIOError, 5,
                         "Error reading compressed data from VMDK. Invalid compressed grain size.",
                         {{"uri", m_extent->uriText()},
                          {"position", toDecimal(position)},
                          {"lba", toDecimal((CTestExtent::firstDiskGrain + 5) * 8)},
                          {"compressedGrainSize", toDecimal(size)}});
        EXPECT_THROW(writeHere(bytesOf("abc")), CIOError) << "the rest of the grain cannot be had";
        EXPECT_THAT(takeWrites(), IsEmpty());
    }
    m_extent->patchFile(position, bytesOf({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    m_extent->openGrain(5);
    EXPECT_LUM_ERROR(readHere(), CIOError, 5,
                     "Error reading compressed data from VMDK. Invalid compressed grain size.",
                     {{"uri", m_extent->uriText()},
                      {"position", toDecimal(position)},
                      {"lba", "18446744073709551615"},
                      {"compressedGrainSize", "4294967295"}});
}

TEST_F(CVMDKGrainSlotsTest, LargestClaimIsReadAndFailsOnlyForWhatIsNotThere) {
    make(true);
    store(5, noise(grainBytes));
    const int64 position = m_extent->info(5).posSectors * 512;
    m_extent->patchUInt32(position + 8, 8192);
    m_extent->openGrain(5);
    EXPECT_LUM_ERROR(readHere(), CIOError, 4, "Unexpected end of data.",
                     {{"uri", m_extent->uriText()},
                      {"position", toDecimal(position + 512)},
                      {"bytesToRead", toDecimal(16 * 512)}});
    m_extent->setFileLength(position + 17 * 512);
    EXPECT_EQ(readHere(), noise(grainBytes)) << "bytes behind the stream do not matter";
}

TEST_F(CVMDKGrainSlotsTest, RecordOfAnotherPlaceIsReadAllTheSame) {
    make(true);
    store(5, patternBytes(grainBytes));
    m_extent->patchFile(m_extent->info(5).posSectors * 512, bytesOf({9, 9, 9, 9, 9, 9, 9, 9}));
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));
}

TEST_F(CVMDKGrainSlotsTest, DamagedStreamIsAnErrorAndTheGrainNotLoaded) {
    make(true);
    store(5, noise(grainBytes));
    const int64 position = m_extent->info(5).posSectors * 512;
    m_extent->patchUInt32(position + 8, 100);
    m_extent->openGrain(5);
    for (int i = 0; i < 2; ++i) {
        EXPECT_LUM_ERROR(readHere(), CIOError, 5, "Compressed data are damaged or cut short.",
                         {{"compressedSize", "500"}});
        EXPECT_EQ(grain().getPosition(), 0);
    }
    writeHere(patternBytes(grainBytes)); // a whole grain needs nothing of the old one
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));
}

} // namespace
} // namespace tessel::test
