#include "tessel/VMDKMarker.h"

#include "Bytes.h"
#include "CRecordingStream.h"
#include "ErrorMatchers.h"
#include "HeaderSector.h"
#include "lum/CBufferStream.h"
#include "lum/CMemoryFileSystem.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct MarkerRow {
    VMDKMarkerID type;
    int64 value;
    std::initializer_list<unsigned char> head; // value, size, type
};

const MarkerRow markerRows[] = {
    {MarkerEndOfStream, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0, 0, 0}},
    {MarkerGrainTable, 4, {4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0, 0}},
    {MarkerGrainDirectory, 0x0102, {2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02, 0, 0, 0}},
    {MarkerFooter, 1, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x03, 0, 0, 0}},
    {MarkerSlotSizeTable, 2, {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x90, 0x34, 0x18}},
    {MarkerSlotSizeDirectory,
     0x1817161514131211,
     {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0, 0, 0, 0, 0x02, 0x90, 0x34, 0x18}},
    {MarkerGrainTable, -2, {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0x01, 0, 0, 0}},
};

Bytes makeSector(const MarkerRow& row) {
    Bytes sector(512);
    put(sector, 0, row.head);
    return sector;
}

class VMDKMarkerTest : public ::testing::Test {
protected:
    P<CRecordingStream> makeStream() {
        return new CRecordingStream(P<IIOStream>(new CBufferStream(&m_written, 1.0)).get());
    }

    void write(const MarkerRow& row, const Bytes& zeros) {
        CDataOutStream out(makeStream().get());
        writeVMDKMarker(out, row.type, row.value, zeros);
    }

    Bytes m_written;
};

/// What isVMDKMarker says, and the value it gives out, which begins as something else.
std::pair<bool, int64> ask(const Bytes& sector, VMDKMarkerID type) {
    int64 value = 4711;
    const bool isMarker = isVMDKMarker(sector.getData(), type, &value);
    return {isMarker, value};
}

} // namespace

TEST_F(VMDKMarkerTest, WritesEachMarkerByteByByte) {
    for (const MarkerRow& row : markerRows) {
        m_written.setUsed(0);
        write(row, Bytes(512));
        EXPECT_EQ(m_written, makeSector(row));
    }
}

TEST_F(VMDKMarkerTest, KnowsEachMarkerByItsType) {
    for (const MarkerRow& row : markerRows)
        for (const VMDKMarkerID type : {MarkerEndOfStream, MarkerGrainTable, MarkerGrainDirectory,
                                        MarkerFooter, MarkerSlotSizeTable, MarkerSlotSizeDirectory}) {
            const auto expected = type == row.type ? std::pair(true, row.value) : std::pair(false, int64{0});
            EXPECT_EQ(ask(makeSector(row), type), expected);
        }
}

TEST_F(VMDKMarkerTest, AnyByteThatMustBeZeroMakesItNone) {
    const MarkerRow& row = markerRows[2];
    for (int i = 8; i < 512; ++i) {
        Bytes sector = makeSector(row);
        sector[i] ^= 0x80;
        EXPECT_EQ(ask(sector, row.type), std::pair(false, int64{0})) << i;
    }
}

TEST_F(VMDKMarkerTest, ValueMayBeLeftOut) {
    EXPECT_TRUE(isVMDKMarker(makeSector(markerRows[1]).getData(), MarkerGrainTable, nullptr));
    EXPECT_FALSE(isVMDKMarker(makeSector(markerRows[1]).getData(), MarkerFooter, nullptr));
}

TEST_F(VMDKMarkerTest, SectorMayStandAtAnyAddress) {
    Bytes memory(513);
    std::copy_n(makeSector(markerRows[4]).getData(), 512, memory.getData() + 1);
    int64 value = 0;
    EXPECT_TRUE(isVMDKMarker(memory.getData() + 1, MarkerSlotSizeTable, &value));
    EXPECT_EQ(value, 2);
}

TEST_F(VMDKMarkerTest, TailIsTheStartOfTheGivenZeros) {
    Bytes zeros(2048);
    fillRange(zeros, 496, 2048, 0xEE);
    write(markerRows[1], zeros);
    EXPECT_EQ(m_written, makeSector(markerRows[1]));
    m_written.setUsed(0);
    write(markerRows[1], Bytes(496));
    EXPECT_EQ(m_written, makeSector(markerRows[1]));
}

TEST_F(VMDKMarkerTest, TooFewZerosAreRefusedBeforeAnythingIsWritten) {
    EXPECT_INVALID_ARG_ERROR(write(markerRows[1], Bytes(495)), "writeVMDKMarker",
                             "The buffer of zeros is too small: 495 bytes (at least 496).");
    EXPECT_TRUE(m_written.isEmpty());
}

// --- Padding ---

TEST_F(VMDKMarkerTest, PaddingIsTakenFromTheStartAgainAndAgain) {
    vmdkWritePadding(*makeStream(), 8, bytesOf("abc"));
    EXPECT_EQ(textOf(m_written), "abcabcab");
    m_written.setUsed(0);
    vmdkWritePadding(*makeStream(), 3, bytesOf("abc"));
    EXPECT_EQ(textOf(m_written), "abc");
    m_written.setUsed(0);
    vmdkWritePadding(*makeStream(), 1, bytesOf("abc"));
    EXPECT_EQ(textOf(m_written), "a");
}

TEST_F(VMDKMarkerTest, PaddingGoesOutInPiecesOfTheBuffersSize) {
    const P<CRecordingStream> stream = makeStream();
    vmdkWritePadding(*stream, 1200, Bytes(512));
    EXPECT_THAT(stream->takeOperations(),
                ElementsAre(CRecordingStream::Operation{CRecordingStream::Write, 0, 512},
                            CRecordingStream::Operation{CRecordingStream::Write, 512, 512},
                            CRecordingStream::Operation{CRecordingStream::Write, 1024, 176}));
}

TEST_F(VMDKMarkerTest, NoPaddingForACountBelowOne) {
    const P<CRecordingStream> stream = makeStream();
    for (const int count : {0, -1, INT32_MIN}) {
        vmdkWritePadding(*stream, count, bytesOf("abc"));
        vmdkWritePadding(*stream, count, Bytes());
    }
    EXPECT_THAT(stream->takeOperations(), IsEmpty());
}

TEST_F(VMDKMarkerTest, EmptyPaddingIsRefusedWhereThereIsSomethingToWrite) {
    EXPECT_INVALID_ARG_ERROR(vmdkWritePadding(*makeStream(), 1, Bytes()), "vmdkWritePadding",
                             "The buffer of padding is empty.");
}

// --- Position in sectors ---

TEST_F(VMDKMarkerTest, PositionIsCountedInSectors) {
    const P<CRecordingStream> stream = makeStream();
    const int64 positions[][2] = {
        {0, 0}, {512, 1}, {1024, 2}, {int64{1} << 41, int64{1} << 32}, {INT64_MAX - 511, INT64_MAX / 512}};
    for (const auto& [bytes, sectors] : positions) {
        stream->seek(bytes);
        EXPECT_EQ(getStreamPositionVMDKSectors(*stream), sectors);
        EXPECT_EQ(stream->getPosition(), bytes);
    }
}

TEST_F(VMDKMarkerTest, PositionInsideOfASectorIsAnInternalError) {
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    const P<IIOStream> stream =
        files->openFile(CURI(String("memory:/a%20disk.vmdk")), IIOStream::Access_ReadWrite);
    for (const int position : {1, 511, 513, 1535}) {
        stream->seek(position);
        EXPECT_LUM_ERROR(getStreamPositionVMDKSectors(*stream), CError, -1,
                         "Internal error in tessel::getStreamPositionVMDKSectors. Stream position should be "
                         "a multiple of 512 but it is not.",
                         {{"uri", "memory:/a disk.vmdk"}, {"position", toDecimal(position)}});
    }
}

} // namespace tessel::test
