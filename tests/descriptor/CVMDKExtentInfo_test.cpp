#include "tessel/CVMDKExtentInfo.h"

#include "Printing.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

struct ExtentRow {
    const char* line;
    const char* access;
    int64 size;
    const char* type;
    const char* filename;
    int64 offset;
    const char* written; ///< what the line becomes
};

const ExtentRow extentRows[] = {
    {R"(RW 8 SPARSE "a.vmdk")", "RW", 8, "SPARSE", "a.vmdk", -1, R"(RW 8 SPARSE "a.vmdk")"},
    {R"(RW 8 SPARSE "a.vmdk" 0)", "RW", 8, "SPARSE", "a.vmdk", 0, R"(RW 8 SPARSE "a.vmdk" 0)"},
    {R"(RDONLY 4192256 FLAT "disk-f001.vmdk" 63)", "RDONLY", 4192256, "FLAT", "disk-f001.vmdk", 63,
     R"(RDONLY 4192256 FLAT "disk-f001.vmdk" 63)"},
    {R"(RW   8   SPARSE   "a b.vmdk")", "RW", 8, "SPARSE", "a b.vmdk", -1, R"(RW 8 SPARSE "a b.vmdk")"},
    {"RW \t8 \tSPARSE \t\"a.vmdk\"\t\r", "RW", 8, "SPARSE", "a.vmdk", -1, R"(RW 8 SPARSE "a.vmdk")"},
    {R"(RW 8 SPARSE "a=b.vmdk")", "RW", 8, "SPARSE", "a=b.vmdk", -1, R"(RW 8 SPARSE "a=b.vmdk")"},
    {R"(RW 8 SPARSE "")", "RW", 8, "SPARSE", "", -1, R"(RW 8 SPARSE "")"},
    {R"(RW 8 SPARSE "a.vmdk"5)", "RW", 8, "SPARSE", "a.vmdk", 5, R"(RW 8 SPARSE "a.vmdk" 5)"},
    {R"(RW 8 SPARSE "a.vmdk" -1)", "RW", 8, "SPARSE", "a.vmdk", -1, R"(RW 8 SPARSE "a.vmdk")"},
    {R"(RW 8 SPARSE "C:\disks\a.vmdk")", "RW", 8, "SPARSE", R"(C:\disks\a.vmdk)", -1,
     R"(RW 8 SPARSE "C:\disks\a.vmdk")"},
    // Numbers that are none count as 0.
    {R"(RW eight SPARSE "a.vmdk" x)", "RW", 0, "SPARSE", "a.vmdk", 0, R"(RW 0 SPARSE "a.vmdk" 0)"},
    {R"(RW 9223372036854775808 SPARSE "a.vmdk")", "RW", 0, "SPARSE", "a.vmdk", -1, R"(RW 0 SPARSE "a.vmdk")"},
    {R"(RW 9223372036854775807 SPARSE "a.vmdk")", "RW", INT64_MAX, "SPARSE", "a.vmdk", -1,
     R"(RW 9223372036854775807 SPARSE "a.vmdk")"},
    {R"(RW -8 SPARSE "a.vmdk")", "RW", -8, "SPARSE", "a.vmdk", -1, R"(RW -8 SPARSE "a.vmdk")"},
    {R"(RW 8 SPARSE "a.vmdk" 1 2)", "RW", 8, "SPARSE", "a.vmdk", 0, R"(RW 8 SPARSE "a.vmdk" 0)"},
    // A blank in front is an empty access word, and the fields shift.
    {R"( RW 8 "a.vmdk")", "", 0, "8", "a.vmdk", -1, R"( 0 8 "a.vmdk")"},
};

void expectExtent(const CVMDKExtentInfo& extent, const ExtentRow& row) {
    SCOPED_TRACE(row.line);
    EXPECT_EQ(extent.getAccess(), row.access);
    EXPECT_EQ(extent.getSizeSectors(), row.size);
    EXPECT_EQ(extent.getType(), row.type);
    EXPECT_EQ(extent.getFilename(), row.filename);
    EXPECT_EQ(extent.getOffset(), row.offset);
    EXPECT_EQ(extent.toString(), row.written);
}

} // namespace

TEST(CVMDKExtentInfo, ReadsItsLineAndWritesItBack) {
    for (const ExtentRow& row : extentRows) {
        const P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(row.line);
        ASSERT_TRUE(extent) << row.line;
        expectExtent(*extent, row);
    }
}

TEST(CVMDKExtentInfo, ReadsWhatItWrote) {
    for (const ExtentRow& row : extentRows) {
        const P<CVMDKExtentInfo> extent = CVMDKExtentInfo::tryParseDescriptorLine(row.written);
        ASSERT_TRUE(extent) << row.written;
        EXPECT_EQ(extent->toString(), row.written);
    }
}

TEST(CVMDKExtentInfo, LinesThatAreNoExtents) {
    for (const char* const line : {
             "",
             " ",
             "RW",
             "RW ",
             "RW 8",
             "RW 8 ",
             "RW 8 SPARSE",
             "RW 8 SPARSE ",
             "RW 2048 ZERO",
             "RW 8 SPARSE a.vmdk",
             "RW 8 SPARSE \"a.vmdk",
             "RW 8 SPARSE \"",
             "RW 8 SPARSE\"a.vmdk\"",
             "RW 8 SPARSE 'a.vmdk'",
             "RW 8 SPARSE extra \"a.vmdk\"",
             "RW 8 \"a.vmdk\"",
             "RW\t8\tSPARSE\t\"a.vmdk\"",
         })
        EXPECT_FALSE(CVMDKExtentInfo::tryParseDescriptorLine(line)) << line;
}

TEST(CVMDKExtentInfo, HoldsWhatItWasMadeOf) {
    const P<CVMDKExtentInfo> extent(new CVMDKExtentInfo("RW", 4192256, "SPARSE", L"\x00E4 \x4E2D.vmdk", -1));
    EXPECT_EQ(extent->toString(), L"RW 4192256 SPARSE \"\x00E4 \x4E2D.vmdk\"");
}

TEST(CVMDKExtentInfo, CloneIsAnotherObjectWithTheSameValues) {
    for (const ExtentRow& row : extentRows) {
        const P<CVMDKDescriptorEntry> extent = CVMDKExtentInfo::tryParseDescriptorLine(row.line);
        const P<CVMDKDescriptorEntry> clone = extent->cloneDescriptorEntry();
        ASSERT_NE(clone, extent);
        auto* const clonedExtent = dynamic_cast<CVMDKExtentInfo*>(clone.get());
        ASSERT_TRUE(clonedExtent);
        expectExtent(*clonedExtent, row);
    }
}

} // namespace tessel::test
