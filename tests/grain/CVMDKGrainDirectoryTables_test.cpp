#include "CGrainDirectoryFixture.h"
#include "ErrorMatchers.h"
#include "tessel/CVMDKGrainDirectory.h"

namespace tessel::test {
namespace {

using Info = CTestExtent::Info;

class CVMDKGrainDirectoryTablesTest : public CGrainDirectoryFixture {};

TEST_F(CVMDKGrainDirectoryTablesTest, IndexOutsideTheDirectoryIsRefused) {
    make(false, 3);
    const P<CVMDKGrainDirectory> directory = makeDirectory(false);
    for (const int64 index : {int64{-1}, int64{3}, INT64_MAX, INT64_MIN})
        EXPECT_INVALID_ARG_ERROR(directory->getGrainTable(index), "CVMDKGrainDirectory::getGrainTable",
                                 "invalid table index: " + toDecimal(index), {{"uri", m_extent->uriText()}});
}

TEST_F(CVMDKGrainDirectoryTablesTest, GrainOutsideTheDirectoryIsRefusedByDirectoryOrTable) {
    make(false, 3);
    m_extent->openDirectory();
    CVMDKGrainDirectory& directory = m_extent->directory();
    const CProps::Entry uri{"uri", m_extent->uriText()};
    const auto set = [&directory](int64 grainIndex) { directory.setGrainInfo(grainIndex, 9, 8); };
    for (const auto& [index, tableIndex] : {std::pair{-512, "-1"}, {-1024, "-2"}, {1536, "3"}}) {
        const int64 grainIndex = index; // lambdas take no structured bindings everywhere
        const String message = String("invalid table index: ") + tableIndex;
        EXPECT_INVALID_ARG_ERROR(m_extent->info(grainIndex), "CVMDKGrainDirectory::getGrainTable", message,
                                 {uri});
        EXPECT_INVALID_ARG_ERROR(set(grainIndex), "CVMDKGrainDirectory::getGrainTable", message, {uri});
    }
    for (const int64 grainIndex : {-1, -511}) {
        const String message = "Invalid grain index: " + toDecimal(grainIndex);
        EXPECT_INVALID_ARG_ERROR(m_extent->info(grainIndex), "CVMDKGrainTable::getGrainInfo", message, {uri});
        EXPECT_INVALID_ARG_ERROR(set(grainIndex), "CVMDKGrainTable::setGrainInfo", message, {uri});
    }
}

TEST_F(CVMDKGrainDirectoryTablesTest, GrainsAreFoundInTheirTables) {
    make(true, 3);
    m_extent->openDirectory();
    m_extent->directory().setGrainInfo(0, 100, 1);
    m_extent->directory().setGrainInfo(511, 200, 2);
    m_extent->directory().setGrainInfo(512, 300, 3);
    m_extent->directory().setGrainInfo(1535, 400, 4);
    m_extent->close();

    const int64 firstTable = m_extent->fileUInt32(directoryByte(0)) * 512LL;
    const int64 lastTable = m_extent->fileUInt32(directoryByte(2)) * 512LL;
    EXPECT_EQ(m_extent->fileUInt32(firstTable), 100u);
    EXPECT_EQ(m_extent->fileUInt32(firstTable + 511 * 4), 200u);
    EXPECT_EQ(m_extent->fileUInt32(m_extent->fileUInt32(directoryByte(1)) * 512LL), 300u);
    EXPECT_EQ(m_extent->fileUInt32(lastTable + 511 * 4), 400u);
    for (int64 table = 0; table < 3; ++table)
        EXPECT_EQ(m_extent->file(m_extent->fileUInt32(directoryByte(table)) * 512LL, tableBytes),
                  m_extent->file(m_extent->fileUInt32(redundantDirectoryByte(table)) * 512LL, tableBytes));
    const int64 lastSlotSizes = m_extent->fileUInt32(slotSizeDirectoryByte(2)) * 512LL;
    EXPECT_EQ(m_extent->file(lastSlotSizes + 511 * 2, 2), bytesOf({4, 0}));

    m_extent->openDirectory(IIOStream::Access_Read);
    EXPECT_EQ(m_extent->info(0), (Info{100, 1}));
    EXPECT_EQ(m_extent->info(511), (Info{200, 2}));
    EXPECT_EQ(m_extent->info(512), (Info{300, 3}));
    EXPECT_EQ(m_extent->info(1535), (Info{400, 4}));
    EXPECT_EQ(m_extent->info(1), (Info{0, 0}));
}

TEST_F(CVMDKGrainDirectoryTablesTest, TableThatWasNeverAllocatedReadsAsNeverWrittenAndTakesNoWrite) {
    make(false, 3);
    m_extent->patchUInt32(directoryByte(1), 0);
    m_extent->openDirectory();
    EXPECT_EQ(m_extent->info(512), (Info{0, 0}));
    EXPECT_EQ(m_extent->info(1023), (Info{0, 0}));
    const auto refused = [&](auto action) {
        EXPECT_LUM_ERROR(action(), CIOError, 5, "VMDK grain table 1 was never allocated (sector: 0).",
                         {{"uri", m_extent->uriText()}, {"tableIndex", "1"}, {"tablePosition", "0"}});
    };
    refused([&] { m_extent->directory().setGrainInfo(512, 9, 8); });
    refused([&] { m_extent->directory().getGrainTable(1); });
    m_extent->directory().setGrainInfo(511, 9, 8);
    m_extent->directory().setGrainInfo(1024, 10, 8);
    EXPECT_EQ(m_extent->info(511), (Info{9, 8}));
    EXPECT_EQ(m_extent->info(1024), (Info{10, 8}));
}

TEST_F(CVMDKGrainDirectoryTablesTest, TableBehindTheEndOfTheFileIsRefusedWhenItIsAskedFor) {
    struct Row {
        const char* spoiled;
        int64 entryByte;
        int64 tableSize;
        bool refusedForReading;
    };
    make(true, 3);
    const Row rows[] = {{"primary", directoryByte(1), tableBytes, true},
                        {"redundant", redundantDirectoryByte(1), tableBytes, false},
                        {"slot sizes", slotSizeDirectoryByte(1), slotSizeTableBytes, true}};
    for (const Row& row : rows) {
        make(true, 3);
        // One sector too far for the whole table.
        const auto sector = static_cast<uint32>((m_extent->fileLength() - row.tableSize) / 512 + 1);
        for (const uint32 spoiled : {sector, uint32{0x7FFFFFFF}, uint32{0xFFFFFFFF}}) {
            m_extent->patchUInt32(row.entryByte, spoiled);
            const auto refused = [&](auto action) {
                EXPECT_LUM_ERROR(action(), CIOError, 5,
                                 "VMDK grain table 1 lies behind the end of the file (sector: " +
                                     toDecimal(spoiled) + ").",
                                 {{"uri", m_extent->uriText()},
                                  {"tableIndex", "1"},
                                  {"tablePosition", toDecimal(spoiled)}});
            };
            m_extent->openDirectory();
            EXPECT_EQ(m_extent->info(511), (Info{0, 0})) << row.spoiled;
            EXPECT_EQ(m_extent->info(1024), (Info{0, 0})) << row.spoiled;
            refused([&] { m_extent->info(512); });
            refused([&] { m_extent->directory().setGrainInfo(1023, 9, 8); });
            m_extent->openDirectory(IIOStream::Access_Read);
            if (row.refusedForReading)
                refused([&] { m_extent->info(512); });
            else
                EXPECT_EQ(m_extent->info(512), (Info{0, 0}));
        }
        m_extent->patchUInt32(row.entryByte, sector - 1);
        m_extent->openDirectory();
        EXPECT_NO_THROW(m_extent->info(512)) << row.spoiled;
    }
}

TEST_F(CVMDKGrainDirectoryTablesTest, SlotSizeTableThatIsMissingInACompressedExtentIsRefused) {
    make(true, 2);
    m_extent->patchUInt32(slotSizeDirectoryByte(1), 0);
    EXPECT_LUM_ERROR(makeDirectory(true)->getGrainTable(1), CIOError, 5,
                     "VMDK grain table 1 was never allocated (sector: 0).",
                     {{"uri", m_extent->uriText()}, {"tableIndex", "1"}, {"tablePosition", "0"}});
    EXPECT_NO_THROW(makeDirectory(false)->getGrainTable(1)) << "uncompressed grains need no slot sizes";
}

TEST_F(CVMDKGrainDirectoryTablesTest, MissingRedundantTableIsNotWritten) {
    make(false, 2);
    m_extent->patchUInt32(redundantDirectoryByte(1), 0);
    const Bytes before = m_extent->file(0, 512);
    m_extent->openDirectory();
    m_extent->directory().setGrainInfo(512, 9, 8);
    m_extent->close();
    EXPECT_EQ(m_extent->fileUInt32(m_extent->fileUInt32(directoryByte(1)) * 512LL), 9u);
    EXPECT_EQ(m_extent->file(0, 512), before) << "sector 0 is the header";
}

} // namespace
} // namespace tessel::test
