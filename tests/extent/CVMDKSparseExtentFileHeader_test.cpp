// Numbers in the header that no extent can have: each is refused by name before memory is spent on it.

#include "AllocationWatch.h"
#include "ExtentFixture.h"

namespace tessel::test {
namespace {

constexpr uint64 allOnes = 0xFFFFFFFFFFFFFFFF;
constexpr uint64 two63 = uint64{1} << 63;

/// The file of the tests: 20 grains of 8 sectors, plain: header, directory, table, directory, table and
/// padding, 16 sectors.
constexpr int64 fileSize = 16 * 512;

struct UHostileNumber {
    const char* name;
    ExtentTest::HeaderField field;
    int width;
    uint64 value;
    /// What follows "VMDK sparse header has an invalid <name>: <value> ".
    const char* rest;
};

const UHostileNumber hostileNumbers[] = {
    {"grainSize", ExtentTest::Field_GrainSize, 8, 0, "(allowed: 1 to 32768)."},
    {"grainSize", ExtentTest::Field_GrainSize, 8, 32769, "(allowed: 1 to 32768)."},
    {"grainSize", ExtentTest::Field_GrainSize, 8, uint64{1} << 32, "(allowed: 1 to 32768)."},
    {"grainSize", ExtentTest::Field_GrainSize, 8, two63, "(allowed: 1 to 32768)."},
    {"grainSize", ExtentTest::Field_GrainSize, 8, allOnes, "(allowed: 1 to 32768)."},

    {"grainTableEntryCount", ExtentTest::Field_EntryCount, 4, 0, "(allowed: 1 to 4096)."},
    {"grainTableEntryCount", ExtentTest::Field_EntryCount, 4, 4097, "(allowed: 1 to 4096)."},
    {"grainTableEntryCount", ExtentTest::Field_EntryCount, 4, 0x80000000, "(allowed: 1 to 4096)."},
    {"grainTableEntryCount", ExtentTest::Field_EntryCount, 4, 0xFFFFFFFF, "(allowed: 1 to 4096)."},

    // 2^54 sectors are 2^63 bytes. Below that, what counts is whether the directory fits the file.
    {"capacity", ExtentTest::Field_Capacity, 8, two63, "(allowed: 0 to 18014398509481983)."},
    {"capacity", ExtentTest::Field_Capacity, 8, allOnes, "(allowed: 0 to 18014398509481983)."},
    {"capacity", ExtentTest::Field_Capacity, 8, uint64{1} << 54, "(allowed: 0 to 18014398509481983)."},
    {"capacity", ExtentTest::Field_Capacity, 8, (uint64{1} << 54) - 1,
     "(its grain directory of 17592186044416 bytes does not fit the file of 8192 bytes)."},
    {"capacity", ExtentTest::Field_Capacity, 8, 4096 * 1921, // of 4096 sectors each: 1 more than fits
     "(its grain directory of 7684 bytes does not fit the file of 8192 bytes)."},

    {"grainDirectoryOffset", ExtentTest::Field_Directory, 8, 0, "(allowed: 1 to 18014398509481983)."},
    {"grainDirectoryOffset", ExtentTest::Field_Directory, 8, 16, "(allowed: 1 to 15)."},
    {"grainDirectoryOffset", ExtentTest::Field_Directory, 8, (uint64{1} << 54) - 1, "(allowed: 1 to 15)."},
    {"grainDirectoryOffset", ExtentTest::Field_Directory, 8, two63, "(allowed: 1 to 18014398509481983)."},
    {"grainDirectoryOffset", ExtentTest::Field_Directory, 8, allOnes - 1,
     "(allowed: 1 to 18014398509481983)."},

    {"redundantGrainDirectoryOffset", ExtentTest::Field_RedundantDirectory, 8, 16, "(allowed: 1 to 15)."},
    {"redundantGrainDirectoryOffset", ExtentTest::Field_RedundantDirectory, 8, (uint64{1} << 54) - 1,
     "(allowed: 1 to 15)."},
    {"redundantGrainDirectoryOffset", ExtentTest::Field_RedundantDirectory, 8, two63,
     "(allowed: 0 to 18014398509481983)."},
    {"redundantGrainDirectoryOffset", ExtentTest::Field_RedundantDirectory, 8, allOnes,
     "(allowed: 0 to 18014398509481983)."},

    {"overhead", ExtentTest::Field_Overhead, 8, uint64{1} << 54, "(allowed: 0 to 18014398509481983)."},
    {"overhead", ExtentTest::Field_Overhead, 8, two63, "(allowed: 0 to 18014398509481983)."},
    {"overhead", ExtentTest::Field_Overhead, 8, allOnes, "(allowed: 0 to 18014398509481983)."},
};

class CVMDKSparseExtentFileHeaderTest : public ExtentTest,
                                        public ::testing::WithParamInterface<UHostileNumber> {
protected:
    void SetUp() override {
        createExtent({});
        ASSERT_EQ(loadFile().getUsed(), fileSize);
    }
};

std::string nameOf(const ::testing::TestParamInfo<UHostileNumber>& info) {
    return std::string(info.param.name) + "_" + std::to_string(info.param.value);
}

} // namespace

TEST_P(CVMDKSparseExtentFileHeaderTest, IsRefusedBeforeAnythingIsAllocated) {
    const UHostileNumber& number = GetParam();
    if (number.width == 4)
        patchFile<uint32>(number.field, static_cast<uint32>(number.value));
    else
        patchFile<uint64>(number.field, number.value);

    std::size_t largest = 0;
    const auto error = catchError([&] {
        const AllocationWatch watch;
        try {
            openExtent({.access = IIOStream::Access_Read});
        } catch (...) {
            largest = watch.getLargest();
            throw;
        }
    });
    ASSERT_TRUE(error);
    EXPECT_TRUE(matchesError(*error, typeid(CIOError), 5,
                             String("VMDK sparse header has an invalid ") + number.name + ": " +
                                 toDecimal(number.value) + " " + number.rest,
                             {{"uri", extentName}, {number.name, toDecimal(number.value)}}));
    EXPECT_GT(largest, 0U);
    EXPECT_LE(largest, 4096U);
}

INSTANTIATE_TEST_SUITE_P(Numbers, CVMDKSparseExtentFileHeaderTest, ::testing::ValuesIn(hostileNumbers),
                         nameOf);

namespace {

using CVMDKSparseExtentFileBigHeaderTest = ExtentTest;

} // namespace

TEST_F(CVMDKSparseExtentFileBigHeaderTest, AllocationsAreSeen) {
    const AllocationWatch watch;
    const Bytes big(1000000);
    EXPECT_GE(watch.getLargest(), 1000000U);
}

TEST_F(CVMDKSparseExtentFileBigHeaderTest, LargestGrainSizeIsTaken) {
    createExtent({.grainCount = 2, .grainSizeSectors = 32768});
    const auto extent = openExtent();
    EXPECT_EQ(extent->getGrainSizeSectors(), 32768);
    writeAt(*extent, 16777216 + 5, patternBytes(1000));
    EXPECT_EQ(readAt(*extent, 16777216, 1005), [] {
        Bytes expected(5);
        expected.append(patternBytes(1000).getData(), 1000);
        return expected;
    }());
}

TEST_F(CVMDKSparseExtentFileBigHeaderTest, LargestDirectoryThatFitsIsTaken) {
    createExtent({});
    patchFile<uint64>(Field_Capacity, 4096 * 1920 - 1); // a directory of 1920 entries, 7680 bytes
    patchFile<uint64>(Field_RedundantDirectory, 0);
    patchFile<uint64>(Field_Directory, 1);
    const auto extent = openExtent();
    EXPECT_EQ(extent->getGrainDirectory().getTableCount(), 1920);
}

TEST_F(CVMDKSparseExtentFileBigHeaderTest, OverheadBehindTheEndOnlyShowsInTheSpaceInfo) {
    createExtent({});
    patchFile<uint64>(Field_Overhead, uint64{1} << 50);
    const auto extent = openExtent();
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100));
    EXPECT_EQ(extent->gatherSpaceInfo()->getDeadSpaceSize(), 0);
    EXPECT_EQ(takeLog(), TArray<std::string>{
                             "warning: Calculated negative dead space value for VMDK extent file "
                             "'memory:/disks/disk-s001.vmdk' (deadSpace: -576460752303415296, headerSize: "
                             "576460752303423488, payloadSize: 0, payloadSizeInFile: 0)"});
}

TEST_F(CVMDKSparseExtentFileBigHeaderTest, RedundantOffsetWithoutItsFlagMeansNothing) {
    createExtent({});
    patchFile<uint32>(Field_Flags, 0x1);
    patchFile<uint64>(Field_RedundantDirectory, allOnes);
    const auto extent = openExtent();
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100));
}

} // namespace tessel::test
