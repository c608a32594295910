#include "CGrainFixture.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "lum/LittleEndian.h"
#include "tessel/CVMDKGrain.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Call = CFakeDataProvider::Call;

constexpr int64 firstDiskGrain = CTestExtent::firstDiskGrain;

/// Whole grains in stored form, read and written without being unpacked.
class CVMDKGrainPreparedTest : public CGrainOfBothKindsFixture {
protected:
    bool compressed() const { return GetParam(); }
    /// The stored form of a grain of this kind.
    Bytes prepared(const Bytes& plain, int64 diskGrainIndex) const {
        return compressed() ? record(plain, diskGrainIndex) : plain;
    }
    Bytes readPrepared(int64 grainIndex) const {
        m_extent->openGrain(grainIndex);
        Bytes out = noise(20);
        grain().readPreparedGrainData(out);
        return out;
    }
    void writePrepared(int64 grainIndex, const Bytes& data) const {
        m_extent->openGrain(grainIndex);
        grain().writePreparedGrainData(data);
    }
    CProps::Entry uri() const { return {"uri", m_extent->uriText()}; }
};

INSTANTIATE_TEST_SUITE_P(Kinds, CVMDKGrainPreparedTest, ::testing::Bool(),
                         [](const auto& test) { return test.param ? "Compressed" : "Plain"; });

// --- Reading ---

TEST_P(CVMDKGrainPreparedTest, ReadsTheStoredFormFromTheSlot) {
    store(5, patternBytes(grainBytes));
    m_extent->useGrain(m_provider.get());
    const Bytes expected = prepared(patternBytes(grainBytes), firstDiskGrain + 5);
    EXPECT_EQ(readPrepared(5), expected);
    EXPECT_THAT(m_provider->takeCalls(), IsEmpty());
    EXPECT_EQ(m_extent->file(m_extent->info(5).posSectors * 512, expected.getUsed()), expected);
}

TEST_P(CVMDKGrainPreparedTest, ReadsTheStoredFormThatIsLoadedWithoutTheFile) {
    store(5, patternBytes(grainBytes));
    m_extent->openGrain(5);
    readHere();
    grain().seek(0);
    m_extent->recorder().takeOperations();
    Bytes out;
    grain().readPreparedGrainData(out);
    EXPECT_EQ(out, prepared(patternBytes(grainBytes), firstDiskGrain + 5));
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
}

TEST_P(CVMDKGrainPreparedTest, PendingChangesAreFlushedBeforeTheyAreReadPrepared) {
    store(5, patternBytes(grainBytes));
    m_extent->write(5, 10, bytesOf("changed"));
    grain().seek(0);
    Bytes out;
    grain().readPreparedGrainData(out);
    const Bytes plain = overwritten(patternBytes(grainBytes), 10, bytesOf("changed"));
    EXPECT_EQ(out, prepared(plain, firstDiskGrain + 5));
    EXPECT_EQ(m_extent->file(m_extent->info(5).posSectors * 512, out.getUsed()), out);
}

TEST_P(CVMDKGrainPreparedTest, GrainWithoutSlotIsReadFromTheProvider) {
    m_extent->useGrain(m_provider.get());
    EXPECT_EQ(readPrepared(5), prepared(providerGrain(5), 0));
    EXPECT_THAT(m_provider->takeCalls(),
                ElementsAre(Call{CFakeDataProvider::Prepared, diskByte(5), grainBytes, compressed()}));
}

TEST_P(CVMDKGrainPreparedTest, GrainWithoutSlotAndProviderIsAGrainOfZerosInItsPlace) {
    m_extent->recorder().takeOperations();
    EXPECT_EQ(readPrepared(5), prepared(Bytes(grainBytes), firstDiskGrain + 5));
    EXPECT_EQ(readPrepared(6), prepared(Bytes(grainBytes), firstDiskGrain + 6));
    EXPECT_EQ(readPrepared(0), prepared(Bytes(grainBytes), firstDiskGrain));
}

TEST_P(CVMDKGrainPreparedTest, CursorIsAtTheEndAfterEveryTransfer) {
    store(5, patternBytes(grainBytes));
    readPrepared(5);
    EXPECT_EQ(grain().getPosition(), grainBytes);
    EXPECT_EQ(grain().getBytesLeft(), 0);
    readPrepared(6);
    EXPECT_EQ(grain().getBytesLeft(), 0) << "zeros";
    writePrepared(7, prepared(noise(grainBytes), 0));
    EXPECT_EQ(grain().getBytesLeft(), 0);
    m_extent->openGrain(5);
    EXPECT_EQ(grain().makeIndependentOfParent(), 0);
    EXPECT_EQ(grain().getBytesLeft(), 0) << "nothing to do";
    m_extent->useGrain(m_provider.get());
    for (const int64 grainIndex : {5, 8}) {
        m_extent->openGrain(grainIndex);
        grain().makeIndependentOfParent();
        EXPECT_EQ(grain().getBytesLeft(), 0);
    }
    readPrepared(9);
    EXPECT_EQ(grain().getBytesLeft(), 0) << "the provider's";
}

TEST_P(CVMDKGrainPreparedTest, TransfersBeginAtTheStartOfTheGrain) {
    m_extent->openGrain(5);
    writeHere(bytesOf("abc"));
    Bytes out = noise(20);
    const CProps::Entry position{"position", "3"};
    EXPECT_LUM_ERROR(grain().readPreparedGrainData(out), CIOError, 11,
                     "CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain "
                     "is 0.",
                     {uri(), position});
    EXPECT_TRUE(out.isEmpty());
    EXPECT_LUM_ERROR(grain().writePreparedGrainData(out), CIOError, 11,
                     "CVMDKGrain::writePreparedGrainData can only be called when the position in the grain "
                     "is 0.",
                     {uri(), position});
    EXPECT_LUM_ERROR(grain().makeIndependentOfParent(), CIOError, 11,
                     "CVMDKGrain::makeIndependentOfParent can only be called when the position in the grain "
                     "is 0.",
                     {uri(), position});
    EXPECT_EQ(grain().getPosition(), 3);
}

TEST_P(CVMDKGrainPreparedTest, SecondTransferInARowIsRefused) {
    Bytes out = readPrepared(5);
    EXPECT_LUM_ERROR(grain().readPreparedGrainData(out), CIOError, 11,
                     "CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain "
                     "is 0.",
                     {uri(), {"position", "4096"}});
}

TEST_P(CVMDKGrainPreparedTest, RefusedReadLeavesWhatIsPendingPending) {
    m_extent->openGrain(5);
    writeHere(patternBytes(100));
    m_extent->recorder().takeOperations();
    Bytes out;
    EXPECT_THROW(grain().readPreparedGrainData(out), CIOError);
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
}

TEST_P(CVMDKGrainPreparedTest, FailedReadLeavesNothingInTheBuffer) {
    store(5, noise(grainBytes));
    const int64 slot = m_extent->info(5).posSectors * 512;
    for (const int64 byte : {slot, slot + 1000}) { // records are read in two steps
        m_extent->openGrain(5);
        m_extent->faults().addRule({.operation = FaultRule::Read,
                                    .kind = FaultRule::Short,
                                    .rangeStart = byte,
                                    .rangeEnd = byte + 1});
        Bytes out = noise(20);
        EXPECT_THROW(grain().readPreparedGrainData(out), CIOError);
        EXPECT_TRUE(out.isEmpty());
        EXPECT_EQ(grain().getPosition(), 0);
        m_extent->faults().clearRules();
        grain().readPreparedGrainData(out);
        EXPECT_EQ(out, prepared(noise(grainBytes), firstDiskGrain + 5));
    }

    m_extent->openGrain(6);
    writeHere(noise(100));
    grain().seek(0);
    m_extent->faults().addRule({.operation = FaultRule::Write});
    Bytes out = noise(20);
    EXPECT_THROW(grain().readPreparedGrainData(out), CIOError) << "the pending change cannot be written";
    EXPECT_TRUE(out.isEmpty());
    m_extent->endFaults();
}

// --- Writing ---

TEST_P(CVMDKGrainPreparedTest, WrittenGrainIsStoredAtItsOwnPlace) {
    const Bytes data = prepared(patternBytes(grainBytes), 123456789);
    const Bytes before = data;
    writePrepared(5, data);
    EXPECT_EQ(data, before) << "the caller's buffer stays as it is";
    const Bytes expected = prepared(patternBytes(grainBytes), firstDiskGrain + 5);
    const Info slot = m_extent->info(5);
    EXPECT_EQ(slot.slotSizeSectors, expected.getUsed() / 512);
    EXPECT_EQ(m_extent->file(slot.posSectors * 512, expected.getUsed()), expected);
    m_extent->flush();
    m_extent->open();
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));
}

TEST_P(CVMDKGrainPreparedTest, PieceOfABufferIsStoredLikeABuffer) {
    const Bytes data = prepared(patternBytes(grainBytes), 0);
    Bytes around = noise(33);
    around.append(data.getData(), data.getUsed());
    around.append(noise(44).getData(), 44);
    m_extent->openGrain(5);
    grain().writePreparedGrainDataKeepBuffer(TConstBufferSlice<unsigned char>(around, 33, data.getUsed()));
    EXPECT_EQ(grain().getBytesLeft(), 0);
    around.fill(0xEE); // the buffer is the caller's again
    m_extent->flush();
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));

    around = prepared(noise(grainBytes), 0); // in place, or into a larger slot
    m_extent->openGrain(5);
    grain().writePreparedGrainDataKeepBuffer(TConstBufferSlice<unsigned char>(around));
    around.fill(0xEE);
    m_extent->flush();
    EXPECT_EQ(m_extent->read(5), noise(grainBytes));
}

TEST_P(CVMDKGrainPreparedTest, ZerosAreStored) {
    m_extent->useGrain(m_provider.get());
    writePrepared(5, prepared(Bytes(grainBytes), 0));
    EXPECT_NE(m_extent->info(5), (Info{0, 0}));
    EXPECT_EQ(m_extent->read(5), Bytes(grainBytes));
    EXPECT_THAT(m_provider->takeCalls(), IsEmpty());
}

TEST_P(CVMDKGrainPreparedTest, WrittenGrainReplacesWhatWasLoadedAndPending) {
    store(5, patternBytes(grainBytes, 1));
    m_extent->write(5, 10, bytesOf("pending"));
    grain().seek(0);
    grain().writePreparedGrainData(prepared(patternBytes(grainBytes, 2), 0));
    m_extent->recorder().takeOperations();
    grain().flushChangesToStream();
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty()) << "nothing is pending";
    grain().seek(0);
    EXPECT_EQ(readHere(), patternBytes(grainBytes, 2));
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes, 2));
}

TEST_P(CVMDKGrainPreparedTest, WritingWithoutWriteAccessIsRefusedFirst) {
    store(5, patternBytes(grainBytes));
    m_extent->flush();
    m_extent->open(IIOStream::Access_Read);
    m_extent->openGrain(5);
    readHere(3);
    EXPECT_LUM_ERROR(grain().writePreparedGrainData(Bytes()), CError, -1,
                     "Internal error: CVMDKGrain::writePreparedGrainData was called, but the grain was not "
                     "opened for writing.");
    grain().seek(0);
    EXPECT_LUM_ERROR(grain().makeIndependentOfParent(), CError, -1,
                     "Internal error: CVMDKGrain::makeIndependentOfParent was called, but the grain was not "
                     "opened for writing.");
    grain().seek(1);
    EXPECT_LUM_ERROR(grain().makeIndependentOfParent(), CIOError, 11,
                     "CVMDKGrain::makeIndependentOfParent can only be called when the position in the grain "
                     "is 0.",
                     {uri(), {"position", "1"}});
    Bytes out;
    grain().seek(0);
    EXPECT_NO_THROW(grain().readPreparedGrainData(out));
}

TEST_P(CVMDKGrainPreparedTest, DataThatAreNoGrainAreRefusedAndChangeNothing) {
    struct Row {
        Bytes data;
        String problem;
    };
    TArray<Row> rows;
    const auto sizeProblem = [](const char* allowed, const Bytes& data) {
        return String("Invalid prepared grain data: ") + allowed + " bytes, not " +
               toDecimal(data.getUsed()) + ".";
    };
    if (compressed()) {
        const String worst = toDecimal(worstCaseSectors() * 512);
        for (const Bytes& data : {noise(1), noise(11), Bytes(worstCaseSectors() * 512 + 1)})
            rows.push_back({data, String("Invalid prepared grain data: a compressed grain has 12 to ") +
                                      worst + " bytes, not " + toDecimal(data.getUsed()) + "."});
        const Bytes good = record(patternBytes(grainBytes), 0);
        const int64 length = loadLittleEndian<uint32>(good.getData() + 8);
        const auto lengthProblem = [](int64 says, int64 held) {
            return "Invalid prepared grain data: its length field says " + toDecimal(says) + " bytes, but " +
                   toDecimal(held) + " follow.";
        };
        rows.push_back({slice(good, 0, 12 + length - 1), lengthProblem(length, length - 1)});
        rows.push_back({slice(good, 0, 12), lengthProblem(length, 0)});
        Bytes boasting = good;
        storeLittleEndian<uint32>(boasting.getData() + 8, 0xFFFFFFFF);
        rows.push_back({boasting, lengthProblem(0xFFFFFFFF, good.getUsed() - 12)});
    } else {
        for (const Bytes& data : {noise(1), noise(4095), noise(4097), noise(8192)})
            rows.push_back({data, sizeProblem("an uncompressed grain has 4096", data)});
    }
    rows.push_back({Bytes(), "CVMDKGrain::writePreparedGrainData called with zero-length prepared data."});

    store(5, patternBytes(grainBytes));
    m_extent->write(5, 10, bytesOf("pending"));
    grain().seek(0);
    const Bytes expected = overwritten(patternBytes(grainBytes), 10, bytesOf("pending"));
    m_extent->recorder().takeOperations();
    for (const Row& row : rows) {
        if (row.data.isEmpty())
            EXPECT_INVALID_ARG_ERROR(grain().writePreparedGrainData(row.data),
                                     "CVMDKGrain::writePreparedGrainData", row.problem, {uri()});
        else
            EXPECT_INVALID_ARG_ERROR(
                grain().writePreparedGrainDataKeepBuffer(TConstBufferSlice<unsigned char>(row.data)),
                "CVMDKGrain::writePreparedGrainData", row.problem,
                {uri(), {"preparedSize", toDecimal(row.data.getUsed())}});
        EXPECT_EQ(grain().getPosition(), 0);
        EXPECT_EQ(readHere(), expected) << "loaded and pending still";
        grain().seek(0);
    }
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
    EXPECT_EQ(m_extent->read(5), expected);
}

TEST_P(CVMDKGrainPreparedTest, FailedWriteLeavesPendingChangesPending) {
    m_extent->write(5, 10, bytesOf("pending"));
    grain().seek(0);
    m_extent->faults().addRule({.operation = FaultRule::Write});
    EXPECT_THROW(grain().writePreparedGrainData(prepared(noise(grainBytes), 0)), CIOError);
    m_extent->endFaults();
    EXPECT_EQ(grain().getPosition(), 0);
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
    EXPECT_EQ(m_extent->read(5), overwritten(Bytes(grainBytes), 10, bytesOf("pending")));
}

TEST_P(CVMDKGrainPreparedTest, FailedWriteForgetsWhatWasLoaded) {
    store(5, patternBytes(grainBytes, 1));
    m_extent->openGrain(5);
    readHere();
    grain().seek(0);
    m_extent->faults().addRule({.operation = FaultRule::Write});
    EXPECT_THROW(grain().writePreparedGrainData(prepared(patternBytes(grainBytes, 2), 0)), CIOError);
    m_extent->endFaults();
    m_extent->recorder().takeOperations();
    EXPECT_EQ(readHere(), patternBytes(grainBytes, 1)) << "nothing was written here";
    EXPECT_FALSE(m_extent->recorder().takeOperations().empty()) << "the slot may hold anything: it is asked";
}

// --- Independence of the parent ---

TEST_P(CVMDKGrainPreparedTest, WithoutAProviderThereIsNothingToBecomeIndependentOf) {
    m_extent->openGrain(5);
    EXPECT_EQ(grain().makeIndependentOfParent(), 0);
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
}

TEST_P(CVMDKGrainPreparedTest, GrainWithASlotIsIndependentAlready) {
    store(5, patternBytes(grainBytes));
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    m_extent->recorder().takeOperations();
    EXPECT_EQ(grain().makeIndependentOfParent(), grainBytes);
    EXPECT_THAT(m_provider->takeCalls(), IsEmpty());
    EXPECT_THAT(m_extent->recorder().takeOperations(), IsEmpty());
}

TEST_P(CVMDKGrainPreparedTest, ProvidersGrainIsStoredUnderItsOwnPlace) {
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    readHere();
    grain().seek(0);
    m_provider->takeCalls();
    const Bytes expected = prepared(providerGrain(5), firstDiskGrain + 5);
    EXPECT_EQ(grain().makeIndependentOfParent(), expected.getUsed());
    EXPECT_THAT(m_provider->takeCalls(),
                ElementsAre(Call{CFakeDataProvider::Prepared, diskByte(5), grainBytes, compressed()}));
    EXPECT_EQ(m_extent->file(m_extent->info(5).posSectors * 512, expected.getUsed()), expected);
    m_extent->useGrain(nullptr);
    EXPECT_EQ(m_extent->read(5), providerGrain(5));
}

TEST_P(CVMDKGrainPreparedTest, PendingChangeIsNotReplacedByTheParentsGrain) {
    m_extent->useGrain(m_provider.get());
    m_extent->write(5, 10, bytesOf("changed"));
    grain().seek(0);
    EXPECT_EQ(grain().makeIndependentOfParent(), grainBytes);
    m_extent->useGrain(nullptr);
    EXPECT_EQ(m_extent->read(5), overwritten(providerGrain(5), 10, bytesOf("changed")));
}

TEST_P(CVMDKGrainPreparedTest, PendingZerosOverTheParentsGrainBecomeTheParentsGrain) {
    m_extent->useGrain(m_provider.get());
    m_extent->write(5, 0, Bytes(grainBytes));
    grain().seek(0);
    EXPECT_EQ(grain().makeIndependentOfParent(), prepared(providerGrain(5), 0).getUsed())
        << "zeros are not stored in a grain without a slot, so the parent shows again";
    m_extent->useGrain(nullptr);
    EXPECT_EQ(m_extent->read(5), providerGrain(5));
}

TEST_P(CVMDKGrainPreparedTest, PendingChangeIsFlushedEvenWithoutAProvider) {
    m_extent->write(5, 10, bytesOf("changed"));
    grain().seek(0);
    EXPECT_EQ(grain().makeIndependentOfParent(), 0);
    EXPECT_NE(m_extent->info(5), (Info{0, 0}));
}

TEST_P(CVMDKGrainPreparedTest, FailureOfTheProviderStoresNothing) {
    m_extent->useGrain(m_provider.get());
    m_extent->openGrain(5);
    m_provider->fails = true;
    EXPECT_LUM_ERROR(grain().makeIndependentOfParent(), CIOError, 1, "Parent cannot be read");
    Bytes out = noise(20);
    EXPECT_LUM_ERROR(grain().readPreparedGrainData(out), CIOError, 1, "Parent cannot be read");
    EXPECT_TRUE(out.isEmpty());
    EXPECT_EQ(grain().getPosition(), 0);
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
    m_provider->fails = false;
    EXPECT_GT(grain().makeIndependentOfParent(), 0);
    EXPECT_EQ(m_extent->read(5), providerGrain(5));
}

// --- Records that are shorter than their sectors ---

class CVMDKGrainRecordTest : public CGrainFixture {};

TEST_F(CVMDKGrainRecordTest, UnpaddedRecordIsFilledUpWithZerosInPlaceToo) {
    make(true);
    store(5, noise(grainBytes));
    const Info slot = m_extent->info(5);
    const Bytes padded = record(patternBytes(grainBytes), firstDiskGrain + 5);
    const int64 used = 12 + loadLittleEndian<uint32>(padded.getData() + 8);
    ASSERT_LT(used, padded.getUsed());
    for (const int64 grainIndex : {5, 6}) {
        m_extent->openGrain(grainIndex);
        grain().writePreparedGrainData(slice(padded, 0, used));
        const Bytes stored = m_extent->file(m_extent->info(grainIndex).posSectors * 512, padded.getUsed());
        EXPECT_EQ(slice(stored, 8, stored.getUsed() - 8), slice(padded, 8, padded.getUsed() - 8));
        EXPECT_EQ(m_extent->read(grainIndex), patternBytes(grainBytes));
    }
    EXPECT_EQ(m_extent->info(5), slot);
    EXPECT_EQ(m_extent->info(6).slotSizeSectors, padded.getUsed() / 512);
}

} // namespace
} // namespace tessel::test
