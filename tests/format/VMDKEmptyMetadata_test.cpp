#include "tessel/VMDKEmptyMetadata.h"

#include "Bytes.h"
#include "CForwardingStream.h"
#include "ErrorMatchers.h"
#include "HeaderSector.h"
#include "lum/CBufferStream.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

/// Writes everything twice.
class CStutteringStream : public CForwardingStream {
public:
    using CForwardingStream::CForwardingStream;

    void write(const void* data, int size, IWriteBarrier* barrier) override {
        CForwardingStream::write(data, size, barrier);
        CForwardingStream::write(data, size, barrier);
    }
};

class VMDKEmptyMetadataTest : public ::testing::Test {
protected:
    /// The sectors written, from `startSector` on.
    Bytes writeTables(int64 startSector, int64 tableCount, bool withMarkers, int64 zeroCount = 2048) {
        return write(startSector, [&](CDataOutStream& out) {
            writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, Bytes(zeroCount), withMarkers);
        });
    }

    Bytes writeSlotSizes(int64 startSector, int64 tableCount, int64 zeroCount = 2048) {
        return write(startSector, [&](CDataOutStream& out) {
            writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, tableCount, Bytes(zeroCount));
        });
    }

    template <class Writer>
    Bytes write(int64 startSector, Writer writer) {
        const int64 start = startSector * 512;
        Bytes file(start);
        CDataOutStream out(P<IIOStream>(new CBufferStream(&file, 2.0)).get());
        out.seek(start);
        writer(out);
        EXPECT_EQ(out.getPosition(), file.getUsed());
        return slice(file, start, file.getUsed() - start);
    }
};

Bytes sectorOf(const Bytes& sectors, int64 index) {
    return slice(sectors, index * 512, 512);
}

Bytes makeMarker(std::initializer_list<unsigned char> value, std::initializer_list<unsigned char> type) {
    Bytes sector(512);
    put(sector, 0, value);
    put(sector, 12, type);
    return sector;
}

uint32 entryOf(const Bytes& sectors, int64 sector, int64 index) {
    const unsigned char* const bytes = sectors.getData() + sector * 512 + index * 4;
    return bytes[0] | uint32{bytes[1]} << 8 | uint32{bytes[2]} << 16 | uint32{bytes[3]} << 24;
}

} // namespace

TEST_F(VMDKEmptyMetadataTest, DirectoryTakesWholeSectors) {
    EXPECT_EQ(vmdkDirectorySectors(0), 0);
    EXPECT_EQ(vmdkDirectorySectors(1), 1);
    EXPECT_EQ(vmdkDirectorySectors(128), 1);
    EXPECT_EQ(vmdkDirectorySectors(129), 2);
    EXPECT_EQ(vmdkDirectorySectors(int64{1} << 32), int64{1} << 25);
}

TEST_F(VMDKEmptyMetadataTest, PlainTablesFollowTheirDirectory) {
    Bytes expected(5 * 512);
    put(expected, 0, {0x02, 0x00, 0x00, 0x00}); // the table's sector
    EXPECT_EQ(writeTables(1, 1, false), expected);

    Bytes expectedOfThree(13 * 512);
    put(expectedOfThree, 0, {0xE9, 0x03, 0x00, 0x00, 0xED, 0x03, 0x00, 0x00, 0xF1, 0x03, 0x00, 0x00});
    EXPECT_EQ(writeTables(1000, 3, false), expectedOfThree);
}

TEST_F(VMDKEmptyMetadataTest, TablesWithMarkersStandBehindThem) {
    const Bytes sectors = writeTables(0x10000, 2, true);
    ASSERT_EQ(sectors.getUsed(), 11 * 512);
    Bytes directory(512);
    put(directory, 0, {0x02, 0x00, 0x01, 0x00, 0x07, 0x00, 0x01, 0x00});
    EXPECT_EQ(sectorOf(sectors, 0), directory);
    for (const int64 table : {1, 6}) {
        EXPECT_EQ(sectorOf(sectors, table), makeMarker({4}, {1}));
        EXPECT_EQ(slice(sectors, (table + 1) * 512, 2048), Bytes(2048));
    }
}

TEST_F(VMDKEmptyMetadataTest, SlotSizeDirectoryAndTablesStandBehindTheirMarkers) {
    const Bytes sectors = writeSlotSizes(0x10000, 2);
    ASSERT_EQ(sectors.getUsed(), 8 * 512);
    EXPECT_EQ(sectorOf(sectors, 0), makeMarker({1}, {0x02, 0x90, 0x34, 0x18}));
    Bytes directory(512);
    put(directory, 0, {0x03, 0x00, 0x01, 0x00, 0x06, 0x00, 0x01, 0x00});
    EXPECT_EQ(sectorOf(sectors, 1), directory);
    for (const int64 table : {2, 5}) {
        EXPECT_EQ(sectorOf(sectors, table), makeMarker({2}, {0x01, 0x90, 0x34, 0x18}));
        EXPECT_EQ(slice(sectors, (table + 1) * 512, 1024), Bytes(1024));
    }
}

TEST_F(VMDKEmptyMetadataTest, DirectoryOfOneSectorHolds128Entries) {
    const Bytes plain = writeTables(7, 128, false);
    EXPECT_EQ(plain.getUsed(), (1 + 4 * 128) * 512);
    EXPECT_EQ(entryOf(plain, 0, 0), 8U);
    EXPECT_EQ(entryOf(plain, 0, 127), 8U + 4 * 127);

    const Bytes marked = writeTables(7, 128, true);
    EXPECT_EQ(marked.getUsed(), (1 + 5 * 128) * 512);
    EXPECT_EQ(entryOf(marked, 0, 0), 9U);
    EXPECT_EQ(entryOf(marked, 0, 127), 8U + 5 * 127 + 1);

    const Bytes slotSizes = writeSlotSizes(7, 128);
    EXPECT_EQ(slotSizes.getUsed(), (2 + 3 * 128) * 512);
    EXPECT_EQ(sectorOf(slotSizes, 0), makeMarker({1}, {0x02, 0x90, 0x34, 0x18}));
    EXPECT_EQ(entryOf(slotSizes, 1, 127), 9U + 3 * 127 + 1);
}

TEST_F(VMDKEmptyMetadataTest, DirectoryOf129EntriesIsFilledUpToItsSecondSector) {
    const Bytes plain = writeTables(7, 129, false);
    EXPECT_EQ(plain.getUsed(), (2 + 4 * 129) * 512);
    EXPECT_EQ(entryOf(plain, 0, 0), 9U);
    EXPECT_EQ(entryOf(plain, 1, 0), 9U + 4 * 128);
    EXPECT_EQ(slice(plain, 516, 508), Bytes(508));

    const Bytes marked = writeTables(7, 129, true);
    EXPECT_EQ(marked.getUsed(), (2 + 5 * 129) * 512);
    EXPECT_EQ(entryOf(marked, 1, 0), 9U + 5 * 128 + 1);

    const Bytes slotSizes = writeSlotSizes(7, 129);
    EXPECT_EQ(slotSizes.getUsed(), (3 + 3 * 129) * 512);
    EXPECT_EQ(sectorOf(slotSizes, 0), makeMarker({2}, {0x02, 0x90, 0x34, 0x18}));
    EXPECT_EQ(entryOf(slotSizes, 2, 0), 10U + 3 * 128 + 1);
    EXPECT_EQ(slice(slotSizes, 2 * 512 + 4, 508), Bytes(508));
}

TEST_F(VMDKEmptyMetadataTest, SizeOfTheZeroBufferDoesNotMatter) {
    for (const int64 zeroCount : {512, 700, 100000}) {
        EXPECT_EQ(writeTables(3, 5, true, zeroCount), writeTables(3, 5, true));
        EXPECT_EQ(writeTables(3, 5, false, zeroCount), writeTables(3, 5, false));
        EXPECT_EQ(writeSlotSizes(3, 5, zeroCount), writeSlotSizes(3, 5));
    }
}

TEST_F(VMDKEmptyMetadataTest, NoTablesTakeNothingButTheMarkerOfTheSlotSizeDirectory) {
    EXPECT_EQ(writeTables(3, 0, false).getUsed(), 0);
    EXPECT_EQ(writeTables(3, 0, true).getUsed(), 0);
    EXPECT_EQ(writeSlotSizes(3, 0), makeMarker({0}, {0x02, 0x90, 0x34, 0x18}));
}

TEST_F(VMDKEmptyMetadataTest, DirectoryThatDoesNotEndWhereItShouldIsAnInternalError) {
    Bytes file(512);
    const P<IIOStream> stream(new CStutteringStream(P<IIOStream>(new CBufferStream(&file, 2.0)).get()));
    CDataOutStream out(stream.get());
    out.seek(512);
    EXPECT_LUM_ERROR(writeEmptyVMDKGrainDirectoryAndTables(out, 128, Bytes(512), false), CError, -1,
                     "Internal error. Stream position after writing VMDK grain directories is not the "
                     "expected on (expected: 2 sectors, actual: 3 sectors)");
    // Here the marker has become two as well.
    out.seek(512);
    EXPECT_LUM_ERROR(writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, 128, Bytes(512)),
                     CError, -1,
                     "Internal error. Stream position after writing VMDK grain directories is not the "
                     "expected on (expected: 4 sectors, actual: 5 sectors)");
}

TEST_F(VMDKEmptyMetadataTest, StartInsideOfASectorIsAnInternalError) {
    Bytes file;
    CDataOutStream out(P<IIOStream>(new CBufferStream(&file, 2.0)).get());
    out.seek(100);
    EXPECT_LUM_ERROR(writeEmptyVMDKGrainDirectoryAndTables(out, 1, Bytes(512), false), CError, -1,
                     "Internal error in tessel::getStreamPositionVMDKSectors. Stream position should be a "
                     "multiple of 512 but it is not.",
                     {{"uri", ""}, {"position", "100"}});
    EXPECT_TRUE(file.isEmpty());
}

} // namespace tessel::test
