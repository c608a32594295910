#include "tessel/CVMDKGrainDirectory.h"

#include "CGrainDirectoryFixture.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CVMDKGrainDirectoryTest : public CGrainDirectoryFixture {};

// --- Counting ---

TEST(CVMDKGrainDirectoryCounts, GrainsOfAnExtent) {
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(0, 128), 0);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(1, 128), 1);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(128, 128), 1);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(129, 128), 2);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(8388608, 128), 65536);
}

TEST(CVMDKGrainDirectoryCounts, TablesOfAnExtent) {
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(0, 128, 512), 0);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(1, 128, 512), 1);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(8388608, 128, 512), 128);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(65537 * 128, 128, 512), 129);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(65536 * 128 + 1, 128, 512), 129);
}

TEST_F(CVMDKGrainDirectoryTest, KnowsItsCounts) {
    make(false, 3);
    const P<CVMDKGrainDirectory> directory = makeDirectory(false);
    EXPECT_EQ(directory->getGrainCount(), 1536);
    EXPECT_EQ(directory->getTableCount(), 3);
    EXPECT_EQ(directory->getEntriesPerTable(), 512);
}

// --- The slot size directory ---

TEST_F(CVMDKGrainDirectoryTest, ReadsBothDirectoriesThenLooksForTheMarkerBehindTheLastTable) {
    make(false, 3);
    const P<CVMDKGrainDirectory> directory = makeDirectory(false);
    EXPECT_THAT(
        m_recorder->takeOperations(),
        ElementsAre(CRecordingStream::Operation{CRecordingStream::Read, directoryByte(0), 12},
                    CRecordingStream::Operation{CRecordingStream::Read, redundantDirectoryByte(0), 12},
                    CRecordingStream::Operation{CRecordingStream::Read, markerSector() * 512, 512}));
    EXPECT_FALSE(directory->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, ReadsTheSlotSizeDirectoryBehindItsMarker) {
    make(true, 3);
    const P<CVMDKGrainDirectory> directory = makeDirectory(true);
    const auto operations = m_recorder->takeOperations();
    ASSERT_EQ(operations.size(), 4u);
    EXPECT_EQ(operations[3],
              (CRecordingStream::Operation{CRecordingStream::Read, slotSizeDirectoryByte(0), 12}));
    EXPECT_TRUE(directory->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, MarkerIsFoundWhicheverDirectoryStandsLast) {
    make(true, 2);
    const CVMDKSparseExtentHeader& header = m_extent->header();
    const auto last = static_cast<int64>(header.getGrainDirectoryOffsetSectors());
    const auto first = static_cast<int64>(header.getRedundantGrainDirectoryOffsetSectors());
    ASSERT_LT(first, last);
    EXPECT_TRUE(makeDirectory(first, last, 1024 * 8, 8, 512, true)->getHaveSlotSizeInfo());
    EXPECT_TRUE(makeDirectory(last, 0, 1024 * 8, 8, 512, true)->getHaveSlotSizeInfo());
    EXPECT_TRUE(makeDirectory(last, -1, 1024 * 8, 8, 512, true)->getHaveSlotSizeInfo());
    EXPECT_FALSE(makeDirectory(first, 0, 1024 * 8, 8, 512, false)->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, UncompressedExtentMayHaveSlotSizes) {
    make(true, 2);
    EXPECT_TRUE(makeDirectory(false)->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, CompressedExtentWithoutMarkerIsRefused) {
    make(false, 2);
    EXPECT_LUM_ERROR(makeDirectory(true), CError, -1, "Slot size directory not found in compressed VMDK.",
                     {{"uri", m_extent->uriText()}});
}

TEST_F(CVMDKGrainDirectoryTest, MarkerOfTheWrongSizeIsIgnoredWithAWarning) {
    make(true, 130); // 520 bytes: 2 sectors
    for (const int64 actual : {int64{1}, int64{3}, int64{0}, int64{-1}, INT64_MAX}) {
        m_extent->patchFile(markerSector() * 512, marker(actual));
        CLogRecorder log;
        EXPECT_FALSE(makeDirectory(false)->getHaveSlotSizeInfo());
        const CLogRecorder::Entry warning{
            ILogSink::Level_Warning,
            "Found VMDK marker for lumSlotDirectory, but the slot directory size does not match the "
            "expected value (actual: " +
                toDecimal(actual) + ", expected: 2, uri: '" + m_extent->uriText() +
                "'). Ignoring the slot directory.",
            String(), String()};
        EXPECT_THAT(log.takeEntries(), ElementsAre(warning));
        EXPECT_LUM_ERROR(makeDirectory(true), CError, -1, "Slot size directory not found in compressed VMDK.",
                         {{"uri", m_extent->uriText()}});
        EXPECT_THAT(log.takeEntries(), ElementsAre(warning));
    }
}

TEST_F(CVMDKGrainDirectoryTest, SectorThatIsNoMarkerIsNoneWithoutAWarning) {
    make(true, 2);
    for (const int spoiledByte : {8, 12, 16, 511}) {
        Bytes spoiled = marker(1);
        spoiled[spoiledByte] ^= 1;
        m_extent->patchFile(markerSector() * 512, spoiled);
        CLogRecorder log;
        EXPECT_FALSE(makeDirectory(false)->getHaveSlotSizeInfo()) << spoiledByte;
        EXPECT_THAT(log.takeEntries(), IsEmpty());
    }
    m_extent->patchFile(markerSector() * 512, marker(1));
    EXPECT_TRUE(makeDirectory(false)->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, FileThatEndsBehindTheLastTableHasNoSlotSizes) {
    make(true, 2);
    const int64 end = markerSector() * 512;
    for (const int64 length : {end, end + 1, end + 511}) {
        m_extent->setFileLength(length);
        EXPECT_FALSE(makeDirectory(false)->getHaveSlotSizeInfo()) << length - end;
    }
}

TEST_F(CVMDKGrainDirectoryTest, SlotSizeDirectoryThatIsCutShortFails) {
    make(true, 2);
    const int64 position = slotSizeDirectoryByte(0);
    m_extent->setFileLength(position + 7);
    EXPECT_LUM_ERROR(makeDirectory(true), CIOError, 5,
                     "VMDK slot size directory lies behind the end of the file (sector: " +
                         toDecimal(position / 512) + ").",
                     {{"uri", m_extent->uriText()}, {"position", toDecimal(position / 512)}});
    m_extent->setFileLength(position + 8);
    EXPECT_NO_THROW(makeDirectory(true));
}

TEST_F(CVMDKGrainDirectoryTest, GuestDataAreNoMarker) {
    make(false, 2, 1); // with grains of one sector the first grain follows the last table at once
    const auto overhead = static_cast<int64>(m_extent->header().getOverheadSectors());
    ASSERT_EQ(markerSector(), overhead);
    m_extent->patchFile(overhead * 512, marker(1));
    m_extent->patchFile((overhead + 1) * 512, Bytes(512));

    EXPECT_FALSE(makeDirectory(false, overhead)->getHaveSlotSizeInfo());
    EXPECT_FALSE(makeDirectory(false, 0)->getHaveSlotSizeInfo());
    EXPECT_TRUE(makeDirectory(false, overhead + 1)->getHaveSlotSizeInfo());
    EXPECT_TRUE(makeDirectory(false)->getHaveSlotSizeInfo()) << "nothing is known of an overhead";
}

TEST_F(CVMDKGrainDirectoryTest, ExtentWithoutGrainsLooksBehindItsDirectories) {
    make(true, 2);
    // The directories take no room here; their sectors only say where to look.
    const int64 sector = markerSector();
    m_extent->patchFile(sector * 512, marker(0));
    EXPECT_NO_THROW(makeDirectory(sector - 1, 1, 0, 8, 512, true));
    EXPECT_NO_THROW(makeDirectory(1, sector - 1, 0, 8, 512, true));
    EXPECT_LUM_ERROR(makeDirectory(1, 1, 0, 8, 512, true), CError, -1,
                     "Slot size directory not found in compressed VMDK.", {{"uri", m_extent->uriText()}});
    const P<CVMDKGrainDirectory> directory = makeDirectory(sector - 1, 1, 0, 8, 512);
    EXPECT_EQ(directory->getTableCount(), 0);
    EXPECT_INVALID_ARG_ERROR(directory->getGrainTable(0), "CVMDKGrainDirectory::getGrainTable",
                             "invalid table index: 0", {{"uri", m_extent->uriText()}});
}

// --- Numbers of a header that cannot be ---

TEST_F(CVMDKGrainDirectoryTest, NumbersThatNoExtentCanHaveAreRefusedBeforeAnythingIsRead) {
    make(false, 2);
    const int64 length = m_extent->fileLength();
    const int64 lastPos = length / 512 - 1;
    const String allowedPos = " (allowed: 1 to " + toDecimal(lastPos) + ").";
    const auto doesNotFit = [&](int64 capacity, int64 directoryBytes) {
        return toDecimal(capacity) + " (its grain directory of " + toDecimal(directoryBytes) +
               " bytes does not fit the file of " + toDecimal(length) + " bytes).";
    };
    struct Row {
        int64 posSectors, redundantPosSectors, capacity, grainSize;
        int entriesPerTable;
        const char* name;
        int64 value;
        String rest;
    };
    constexpr int64 maxCapacity = INT64_MAX / 512;
    const Row rows[] = {
        {1, 2, 8192, 0, 512, "grainSize", 0, "0 (allowed: 1 to 32768)."},
        {1, 2, 8192, -8, 512, "grainSize", -8, "-8 (allowed: 1 to 32768)."},
        {1, 2, 8192, 32769, 512, "grainSize", 32769, "32769 (allowed: 1 to 32768)."},
        {1, 2, 8192, 8, 0, "grainTableEntryCount", 0, "0 (allowed: 1 to 4096)."},
        {1, 2, 8192, 8, -1, "grainTableEntryCount", -1, "-1 (allowed: 1 to 4096)."},
        {1, 2, 8192, 8, 4097, "grainTableEntryCount", 4097, "4097 (allowed: 1 to 4096)."},
        {1, 2, -1, 8, 512, "capacity", -1, "-1 (allowed: 0 to 18014398509481983)."},
        {1, 2, maxCapacity + 1, 8, 512, "capacity", maxCapacity + 1,
         "18014398509481984 (allowed: 0 to 18014398509481983)."},
        {1, 2, INT64_MAX, 8, 512, "capacity", INT64_MAX,
         "9223372036854775807 (allowed: 0 to 18014398509481983)."},
        {1, 2, maxCapacity, 1, 1, "capacity", maxCapacity, doesNotFit(maxCapacity, maxCapacity * 4)},
        {1, 2, maxCapacity, 32768, 512, "capacity", maxCapacity, doesNotFit(maxCapacity, (1 << 30) * 4LL)},
        {1, 2, length / 4, 1, 1, "capacity", length / 4, doesNotFit(length / 4, length)},
        {0, 2, 8192, 8, 512, "grainDirectoryOffset", 0, "0" + allowedPos},
        {-1, 2, 8192, 8, 512, "grainDirectoryOffset", -1, "-1" + allowedPos},
        {lastPos + 1, 2, 8192, 8, 512, "grainDirectoryOffset", lastPos + 1,
         toDecimal(lastPos + 1) + allowedPos},
        {INT64_MAX, 2, 8192, 8, 512, "grainDirectoryOffset", INT64_MAX, toDecimal(INT64_MAX) + allowedPos},
        {1, lastPos + 1, 8192, 8, 512, "redundantGrainDirectoryOffset", lastPos + 1,
         toDecimal(lastPos + 1) + allowedPos},
    };
    for (const Row& row : rows) {
        EXPECT_LUM_ERROR(makeDirectory(row.posSectors, row.redundantPosSectors, row.capacity, row.grainSize,
                                       row.entriesPerTable),
                         CIOError, 5,
                         "VMDK sparse header has an invalid " + String(row.name) + ": " + row.rest,
                         {{"uri", m_extent->uriText()}, {row.name, toDecimal(row.value)}});
        EXPECT_THAT(m_recorder->takeOperations(), IsEmpty()) << row.name;
    }
}

TEST_F(CVMDKGrainDirectoryTest, DirectoriesThatOverlapAreRefused) {
    make(false, 2);
    EXPECT_LUM_ERROR(makeDirectory(5, 5, 8192, 8, 512), CIOError, 5,
                     "VMDK grain directories overlap (sectors: 5 and 5, size: 1 sectors).",
                     {{"uri", m_extent->uriText()}, {"position", "5"}, {"otherPosition", "5"}});
    EXPECT_LUM_ERROR(makeDirectory(5, 6, int64{8} * 129, 8, 1), CIOError, 5,
                     "VMDK grain directories overlap (sectors: 5 and 6, size: 2 sectors).",
                     {{"uri", m_extent->uriText()}, {"position", "5"}, {"otherPosition", "6"}});
}

TEST_F(CVMDKGrainDirectoryTest, SlotSizeDirectoryThatOverlapsAnotherIsRefused) {
    make(true, 1);
    // A table at sector 35, behind it the marker, behind that the slot size directory: sector 40.
    m_extent->setFileLength(64 * 512);
    m_extent->patchFile(39 * 512, marker(1));
    const auto expectRefused = [&](int64 posSectors, int64 redundantPosSectors) {
        EXPECT_LUM_ERROR(makeDirectory(posSectors, redundantPosSectors, 512 * 8, 8, 512, true), CIOError, 5,
                         "VMDK grain directories overlap (sectors: 40 and 40, size: 1 sectors).",
                         {{"uri", m_extent->uriText()}, {"position", "40"}, {"otherPosition", "40"}});
    };
    m_extent->patchUInt32(40 * 512, 35);
    expectRefused(40, 0);
    m_extent->patchUInt32(40 * 512, 1);
    m_extent->patchUInt32(45 * 512, 35);
    expectRefused(45, 40);
    EXPECT_TRUE(makeDirectory(45, 41, 512 * 8, 8, 512, true)->getHaveSlotSizeInfo());
    EXPECT_TRUE(makeDirectory(45, 0, 512 * 8, 8, 512, true)->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, ReadThatFailsIsTheErrorOfTheDirectory) {
    make(true, 3);
    for (const int64 byte :
         {directoryByte(0), redundantDirectoryByte(0), markerSector() * 512, slotSizeDirectoryByte(0)}) {
        m_extent->faults().addRule(
            {.operation = FaultRule::Read, .rangeStart = byte, .rangeEnd = byte + 1, .always = true});
        const String count = byte == markerSector() * 512 ? "512" : "12";
        EXPECT_LUM_ERROR(
            makeDirectory(true), CIOError, 1, "Cannot read from file: Injected fault",
            {{"uri", m_extent->uriText()}, {"position", toDecimal(byte)}, {"bytesToRead", count}});
        m_extent->faults().clearRules();
        EXPECT_NO_THROW(makeDirectory(true));
    }
}

TEST_F(CVMDKGrainDirectoryTest, LargestNumbersThatFitAreTaken) {
    make(false, 2);
    const int64 lastPos = m_extent->fileLength() / 512 - 1;
    EXPECT_NO_THROW(makeDirectory(lastPos, lastPos - 1, 8192, 8, 512));
    EXPECT_NO_THROW(makeDirectory(1, 2, 32768, 32768, 4096));
    EXPECT_NO_THROW(makeDirectory(1, INT64_MIN, 1, 1, 1));
}

} // namespace
} // namespace tessel::test
