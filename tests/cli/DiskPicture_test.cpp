#include "DiskPicture.h"

#include "../disk/DiskTest.h"
#include "CSVGText.h"
#include "DiskMap.h"

using namespace tessel;
using namespace tessel::cli;
using namespace tessel::test;
using ::testing::HasSubstr;
using ::testing::Not;

namespace {

class DiskPictureTest : public DiskTest {
protected:
    static void writeGrains(CVMDKDisk& disk, int64 first, int64 count) {
        writeAt(disk, first * grainBytes, randomBytes(static_cast<unsigned>(first), count * grainBytes));
    }
    P<CVMDKDisk> createChild(const String& name, const String& parent) {
        const unsigned id = openForReading(parent)->getDescriptor()->getContentID();
        return create({.parentPath = parent, .parentID = id}, name);
    }
    static std::vector<UVMDKStoredRun> runsOf(CVMDKDisk& disk) {
        std::vector<UVMDKStoredRun> runs;
        CProgress progress(-1, true);
        forEachStoredRun(disk, progress, [&](const UVMDKStoredRun& run) { runs.push_back(run); });
        return runs;
    }
    static CDiskGrid gridOf(CVMDKDisk& disk, int mostCells) {
        CProgress progress(-1, true);
        return {disk, mostCells, progress};
    }
    static UDiskPicture pictureOf(CVMDKDisk& disk, int mostCells, const std::string& name = "disk.vmdk") {
        return {name, "monolithicSparse",     disk.getCompressed(), false, grainBytes, {}, 1000, 2000,
                3000, gridOf(disk, mostCells)};
    }
};

} // namespace

TEST_F(DiskPictureTest, RunsOfOneStateAreOneWhateverTablesTheyCross) {
    const P<CVMDKDisk> disk = create({.size = 1100 * grainBytes});
    EXPECT_EQ(runsOf(*disk).size(), 1U);
    writeGrains(*disk, 500, 30);
    const std::vector<UVMDKStoredRun> runs = runsOf(*disk);
    ASSERT_EQ(runs.size(), 3U);
    EXPECT_EQ(runs[1].position, 500 * grainBytes);
    EXPECT_EQ(runs[1].sizeBytes, 30 * grainBytes);
    EXPECT_EQ(runs[2].position + runs[2].sizeBytes, disk->getSizeBytes());
}

TEST_F(DiskPictureTest, PlainRunsEndWhereTheFileGoesOnElsewhere) {
    const P<CVMDKDisk> disk = create();
    writeGrains(*disk, 1, 1);
    disk->flushChanges();
    writeGrains(*disk, 0, 1);
    EXPECT_EQ(runsOf(*disk).size(), 3U);
    const P<CVMDKDisk> packed = create({.compressed = true}, "packed.vmdk");
    writeGrains(*packed, 1, 1);
    packed->flushChanges();
    writeGrains(*packed, 0, 1);
    const std::vector<UVMDKStoredRun> runs = runsOf(*packed);
    ASSERT_EQ(runs.size(), 2U);
    EXPECT_EQ(runs[0].sizeBytes, 2 * grainBytes);
    EXPECT_GT(runs[0].storedBytes, 2 * grainBytes);
}

TEST_F(DiskPictureTest, RunsEndWithTheirFile) {
    const P<CVMDKDisk> disk = create({.compressed = true, .limit = 10 * MiB});
    ASSERT_GT(disk->getExtentMap().size(), 1U);
    const int64 end = disk->getExtentMap().begin()->first.sizeSectors * 512;
    writeGrains(*disk, end / grainBytes - 1, 2);
    const std::vector<UVMDKStoredRun> runs = runsOf(*disk);
    ASSERT_EQ(runs.size(), 4U);
    EXPECT_EQ(runs[1].position + runs[1].sizeBytes, end);
    EXPECT_NE(runs[1].file, runs[2].file);
}

TEST_F(DiskPictureTest, CellsAddUpToTheDisk) {
    writeGrains(*create({.size = 300 * grainBytes}, "base.vmdk"), 10, 100);
    createChild("mid.vmdk", "base.vmdk");
    writeGrains(*open(forWriting, "mid.vmdk"), 100, 20);
    const P<CVMDKDisk> disk = createChild("top.vmdk", "mid.vmdk");
    writeGrains(*disk, 0, 12);
    for (const int most : {1, 7, 300, 1000}) {
        const CDiskGrid grid = gridOf(*disk, most);
        EXPECT_LE(grid.getCells().size(), static_cast<std::size_t>(most));
        EXPECT_EQ(grid.getTotal().sizeBytes, disk->getSizeBytes());
        EXPECT_EQ(grid.getTotal().bytes[0], 12 * grainBytes);
        EXPECT_EQ(grid.getTotal().bytes[1], 20 * grainBytes);
        EXPECT_EQ(grid.getTotal().bytes[2], 88 * grainBytes);
        EXPECT_EQ(grid.getTotal().storedBytes, 12 * grainBytes);
        CDiskGrid::UCell sum;
        for (const auto& cell : grid.getCells()) {
            sum.sizeBytes += cell.sizeBytes;
            sum.storedBytes += cell.storedBytes;
            EXPECT_LE(cell.getWritten(), cell.sizeBytes);
        }
        EXPECT_EQ(sum.sizeBytes, disk->getSizeBytes());
        EXPECT_EQ(sum.storedBytes, 12 * grainBytes);
    }
    EXPECT_EQ(gridOf(*disk, 1000).getCells()[11].bytes[0], grainBytes);
    EXPECT_EQ(gridOf(*disk, 1000).getCells()[12].bytes[2], grainBytes);
}

TEST_F(DiskPictureTest, ShadesTellHowFarCellsShrank) {
    const P<CVMDKDisk> disk = create({.compressed = true});
    writeGrains(*disk, 0, 1);
    writeAt(*disk, grainBytes, Bytes(static_cast<std::size_t>(grainBytes), 'x'));
    const CDiskGrid grid = gridOf(*disk, 1000);
    EXPECT_EQ(shadeOf(grid.getCells()[0]), shadeCount - 1);
    EXPECT_EQ(shadeOf(grid.getCells()[1]), 0);
    CDiskGrid::UCell cell;
    cell.bytes[0] = 100;
    const struct {
        int64 stored;
        int shade;
    } rows[] = {{1, 0}, {20, 0}, {21, 1}, {40, 1}, {60, 2}, {61, 3}, {80, 3}, {81, 4}, {100, 4}, {110, 4}};
    for (const auto& row : rows) {
        cell.storedBytes = row.stored;
        EXPECT_EQ(shadeOf(cell), row.shade) << row.stored;
    }
}

TEST_F(DiskPictureTest, GridsAreAboutTwiceAsWideAsHigh) {
    EXPECT_EQ(chooseColumns(1, 64), 16);
    EXPECT_EQ(chooseColumns(128, 64), 16);
    EXPECT_EQ(chooseColumns(129, 64), 32);
    EXPECT_EQ(chooseColumns(160, 64), 32);
    EXPECT_EQ(chooseColumns(2048, 64), 64);
    EXPECT_EQ(chooseColumns(100000, 64), 64);
}

TEST(FormatShareTest, NearlyAllIsNotAllAndLittleIsNotNothing) {
    EXPECT_EQ(formatShare(0, 0), "0 %");
    EXPECT_EQ(formatShare(0, 10), "0 %");
    EXPECT_EQ(formatShare(1, 1000), "less than 1 %");
    EXPECT_EQ(formatShare(1, 3), "33 %");
    EXPECT_EQ(formatShare(9999, 10000), "99 %");
    EXPECT_EQ(formatShare(5, 5), "100 %");
    EXPECT_EQ(formatShare(11, 10), "110 %");
}

TEST_F(DiskPictureTest, SVGHasACellForEachPartAndNamesWhatItShows) {
    const P<CVMDKDisk> disk = create();
    writeGrains(*disk, 0, 2);
    const std::string svg = drawSVG(pictureOf(*disk, 2048, "a<b>&\"c\".vmdk"));
    EXPECT_THAT(svg, HasSubstr("a&lt;b&gt;&amp;&quot;c&quot;.vmdk"));
    EXPECT_THAT(svg, Not(HasSubstr("<b>")));
    EXPECT_THAT(svg, HasSubstr("From 64 KiB on, 64 KiB: 100 % in the disk itself"));
    EXPECT_THAT(svg, HasSubstr("From 128 KiB on, 64 KiB: nothing stored"));
    EXPECT_THAT(svg, HasSubstr("dead space 2.93 KiB"));
    std::size_t empty = 0;
    for (std::size_t at = 0; (at = svg.find(": nothing stored", at)) != std::string::npos; ++at)
        ++empty;
    EXPECT_EQ(empty, 126U);
}

TEST(CSVGTextTest, WritesLengthsWithoutTheSystemsHelp) {
    EXPECT_EQ(CSVGText::formatLength(0), "0");
    EXPECT_EQ(CSVGText::formatLength(125), "12.5");
    EXPECT_EQ(CSVGText::formatLength(3000), "300");
    EXPECT_EQ(CSVGText::escape("\x1b[1m\n"), CSVGText::escape(CSVGText::escape("\x1b[1m\n")));
    EXPECT_THAT(CSVGText::escape("\x1b"), Not(HasSubstr("\x1b")));
}

TEST_F(DiskPictureTest, BlocksArePlainTextUnlessColoursAreAskedFor) {
    const P<CVMDKDisk> disk = create();
    writeGrains(*disk, 0, 3);
    const std::string plain = drawBlocks(pictureOf(*disk, mostBlockCells(80)), 80, false);
    EXPECT_THAT(plain, Not(HasSubstr("\x1b")));
    EXPECT_THAT(plain, HasSubstr("   0 bytes ███·····"));
    EXPECT_THAT(plain, HasSubstr("One place is 64 KiB of the disk."));
    const std::string coloured = drawBlocks(pictureOf(*disk, mostBlockCells(80)), 80, true);
    EXPECT_THAT(coloured, HasSubstr("\x1b[38;5;32m█\x1b[0m"));
}

TEST_F(DiskPictureTest, BlocksFitTheirWidth) {
    const P<CVMDKDisk> disk = create({.size = 2000 * grainBytes});
    for (const int width : {30, 43, 80, 200}) {
        const std::string text = drawBlocks(pictureOf(*disk, mostBlockCells(width)), width, false);
        const std::size_t first = text.find("   0 bytes ");
        ASSERT_NE(first, std::string::npos);
        const std::string line = text.substr(first, text.find('\n', first) - first);
        const auto columns = std::count_if(
            line.begin(), line.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; });
        EXPECT_LE(columns, width);
    }
}
