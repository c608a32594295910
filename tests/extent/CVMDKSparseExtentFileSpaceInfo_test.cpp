// How the bytes of an extent's file are accounted for.

#include "ExtentFixture.h"
#include "tessel/CVMDKSpaceInfo.h"

namespace tessel::test {
namespace {

constexpr int64 grainSize = 4096;

struct USizes {
    int64 payload;
    int64 payloadInFile;
    int64 header;
    int64 dead;

    friend bool operator==(const USizes&, const USizes&) = default;
};

void PrintTo(const USizes& sizes, std::ostream* out) {
    *out << "{payload " << sizes.payload << ", in the file " << sizes.payloadInFile << ", header "
         << sizes.header << ", dead " << sizes.dead << "}";
}

USizes sizesOf(const CVMDKSpaceInfo& info) {
    return {info.getPayloadSize(), info.getPayloadSizeInFile(), info.getHeaderSize(),
            info.getDeadSpaceSize()};
}

class CVMDKSparseExtentFileSpaceInfoTest : public ExtentTest {
protected:
    int64 getLength() const { return m_memory->openFile(extentURI, IIOStream::Access_Read)->getLength(); }
    int64 getHeaderSize() const { return int64{loadNumber(Field_Overhead)} * 512; }
};

} // namespace

TEST(CVMDKSpaceInfoTest, IsBornEmpty) {
    EXPECT_EQ(sizesOf(CVMDKSpaceInfo()), (USizes{0, 0, 0, 0}));
}

TEST(CVMDKSpaceInfoTest, KeepsWhatIsSet) {
    CVMDKSpaceInfo info;
    info.setPayloadSize(1);
    info.setPayloadSizeInFile(2);
    info.setHeaderSize(3);
    info.setDeadSpaceSize(INT64_MAX);
    EXPECT_EQ(sizesOf(info), (USizes{1, 2, 3, INT64_MAX}));
}

TEST(CVMDKSpaceInfoTest, AddsEachSizeToItsOwn) {
    CVMDKSpaceInfo total;
    CVMDKSpaceInfo info;
    info.setPayloadSize(1);
    info.setPayloadSizeInFile(20);
    info.setHeaderSize(300);
    info.setDeadSpaceSize(4000);
    total.addSpaceInfo(info);
    EXPECT_EQ(sizesOf(total), (USizes{1, 20, 300, 4000}));
    total.addSpaceInfo(CVMDKSpaceInfo());
    EXPECT_EQ(sizesOf(total), (USizes{1, 20, 300, 4000}));
    total.addSpaceInfo(info);
    total.addSpaceInfo(total); // itself too
    EXPECT_EQ(sizesOf(total), (USizes{4, 80, 1200, 16000}));
    EXPECT_EQ(sizesOf(info), (USizes{1, 20, 300, 4000}));
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, EmptyPlainExtentIsAllHeader) {
    createExtent({});
    EXPECT_EQ(sizesOf(*openExtent()->gatherSpaceInfo()), (USizes{0, 0, getLength(), 0}));
    EXPECT_EQ(getHeaderSize(), getLength());
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, EmptyCompressedExtentHasItsTrailForDeadSpace) {
    createExtent({.compressed = true});
    EXPECT_EQ(sizesOf(*openExtent()->gatherSpaceInfo()), (USizes{0, 0, getLength() - 1536, 1536}));
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, PlainGrainsTakeInTheFileWhatTheyAre) {
    createExtent({});
    const auto extent = openExtent();
    writeAt(*extent, 100, patternBytes(2 * grainSize)); // touches three grains
    const USizes expected{3 * grainSize, 3 * grainSize, getHeaderSize(), 0};
    EXPECT_EQ(sizesOf(*extent->gatherSpaceInfo()), expected);
    EXPECT_EQ(getLength(), expected.header + expected.payloadInFile);
    // Gathering flushes: what it tells is in the file.
    EXPECT_EQ(sizesOf(*openExtent({.access = IIOStream::Access_Read})->gatherSpaceInfo()), expected);
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, ZerosTakeNothing) {
    createExtent({});
    const auto extent = openExtent();
    writeAt(*extent, 0, Bytes(5 * grainSize));
    EXPECT_EQ(sizesOf(*extent->gatherSpaceInfo()), (USizes{0, 0, getLength(), 0}));
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, CompressedGrainTakesItsSlot) {
    createExtent({.compressed = true});
    const auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(1100, 1)); // 12 bytes, the noise and a little more: 3 sectors
    const P<CVMDKSpaceInfo> info = extent->gatherSpaceInfo();
    EXPECT_EQ(sizesOf(*info), (USizes{grainSize, 1536, getHeaderSize(), 1536}));
    EXPECT_EQ(getLength(), getHeaderSize() + 1536 + 1536);
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, GrainThatMovedLeavesItsSlotDead) {
    createExtent({.compressed = true});
    const auto extent = openExtent();
    writeAt(*extent, 0, randomBytes(1100, 1));
    extent->flushChanges();
    writeAt(*extent, 0, randomBytes(grainSize, 1));
    EXPECT_EQ(sizesOf(*extent->gatherSpaceInfo()),
              (USizes{grainSize, 9 * 512, getHeaderSize(), 1536 + 1536}));
    EXPECT_EQ(getLength(), getHeaderSize() + 9 * 512 + 1536 + 1536);
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, LastGrainCountsWhole) {
    createExtent({});
    patchFile<uint64>(Field_Capacity, 20 * 8 - 7);
    const auto extent = openExtent();
    writeAt(*extent, (20 * 8 - 8) * 512, bytesOf("x"));
    EXPECT_EQ(sizesOf(*extent->gatherSpaceInfo()), (USizes{grainSize, grainSize, getHeaderSize(), 0}));
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, TruncatedFileIsWarnedOf) {
    createExtent({});
    {
        const auto extent = openExtent();
        writeAt(*extent, 0, patternBytes(3 * grainSize));
    }
    m_memory->openFile(extentURI, IIOStream::Access_ReadWrite)->setLength(getLength() - grainSize - 100);
    EXPECT_EQ(sizesOf(*openExtent()->gatherSpaceInfo()),
              (USizes{3 * grainSize, 3 * grainSize, getHeaderSize(), 0}));
    EXPECT_EQ(takeLog(),
              TArray<std::string>{
                  "warning: Calculated negative dead space value for VMDK extent file "
                  "'memory:/disks/disk-s001.vmdk' (deadSpace: -4196, headerSize: 8192, payloadSize: "
                  "12288, payloadSizeInFile: 12288)"});
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, UnknownBytesAreDead) {
    createExtent({});
    const int64 length = getLength();
    m_memory->openFile(extentURI, IIOStream::Access_ReadWrite)->setLength(length + 777);
    EXPECT_EQ(sizesOf(*openExtent()->gatherSpaceInfo()), (USizes{0, 0, length, 777}));
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, FailureToFlushPassesThrough) {
    createExtent({});
    const auto extent = openExtent();
    m_faults->addRule({.operation = FaultRule::Flush});
    EXPECT_LUM_ERROR(extent->gatherSpaceInfo(), CIOError, 2, "Cannot flush file: Injected fault",
                     {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileSpaceInfoTest, FailureToReadATablePassesThrough) {
    createExtent({.grainCount = 1024});
    patchFile<uint32>(int64{loadNumber(Field_Directory)} * 512 + 4, 9999);
    EXPECT_LUM_ERROR(openExtent({.access = IIOStream::Access_Read})->gatherSpaceInfo(), CIOError, 5,
                     "VMDK grain table 1 lies behind the end of the file (sector: 9999).",
                     {{"uri", extentName}, {"tableIndex", "1"}, {"tablePosition", "9999"}});
}

} // namespace tessel::test
