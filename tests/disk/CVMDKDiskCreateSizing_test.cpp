// How a new disk is cut into extents. The expected numbers are worked out by hand beside each row:
//
//   S   size of the disk, at least 8 MiB, in whole grains of 64 KiB
//   T   target size of an extent file: (S + 1 MiB) * 10 for a single file, else the limit - 1, half of
//       that (rounded down) when compressed
//   M   grains that would fit T = T / 65536, N tables = ceil(M / 512), D directory sectors =
//       ceil(4 N / 512)
//   metadata = (D + 4 N) * 1024 + 512, compressed + (4 N + 3 + D + N) * 512
//   n   bytes of the main file's name + 48, W = n * 32768 + 32768 for an embedded descriptor
//   overhead = metadata + W rounded up to 65536, compressed + (M + 3) * 512
//   P   payload = T - overhead, rounded down to 65536; E = P / 65536 grains in an extent
//   R   sectors of the descriptor = (n * (S / P + 1) + 33279) / 512
//
// "disk.vmdk" has 9 bytes: n = 57 and W = 57 * 32768 + 32768 = 1900544.

#include "DiskTest.h"
#include "tessel/CVMDKSparseExtentHeader.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CVMDKDiskCreateSizingTest : public DiskTest {
protected:
    struct Extent {
        std::string name;
        int64 grains;

        friend bool operator==(const Extent&, const Extent&) = default;
    };
    static std::vector<Extent> extentsOf(const CVMDKDisk& disk) {
        std::vector<Extent> extents;
        for (const auto& [key, value] : disk.getExtentMap()) {
            EXPECT_EQ(key.sizeSectors % 128, 0);
            extents.push_back({value.uri.getName().toUTF8(), key.sizeSectors / 128});
        }
        return extents;
    }
    P<CVMDKSparseExtentHeader> headerOf(const String& name) const {
        const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
        CDataInStream in(stream.get());
        P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
        header->load(in);
        return header;
    }
    /// Sectors of the descriptor that is embedded in the main file.
    int64 embeddedDescriptorSectors() const {
        EXPECT_EQ(headerOf("disk.vmdk")->getDescriptorOffsetSectors(), 1U);
        return static_cast<int64>(headerOf("disk.vmdk")->getDescriptorSizeSectors());
    }
    /// The same for one that is a file of its own.
    int64 separateDescriptorSectors() const {
        const auto size = static_cast<int64>(getFile("disk.vmdk").size());
        EXPECT_EQ(size % 512, 0);
        return size / 512;
    }
    void expectNoGrainFits(const DiskOptions& options, const char* payload) {
        EXPECT_LUM_ERROR(
            create(options), CError, -1,
            String("Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: ") +
                payload);
        EXPECT_THAT(listFiles(), IsEmpty());
    }
};

} // namespace

// --- Single files ---

TEST_F(CVMDKDiskCreateSizingTest, EightMiB) {
    // S = 8388608, 128 grains. T = (8388608 + 1048576) * 10 = 94371840, M = 1440, N = 3, D = 1,
    // metadata = (1 + 12) * 1024 + 512 = 13824; with W 1914368, overhead = 30 * 65536 = 1966080,
    // P = 94371840 - 1966080 = 92405760 = 1410 * 65536, R = (57 * (0 + 1) + 33279) / 512 = 33336 / 512 = 65.
    for (const int64 size : {8 * MiB, int64{0}, int64{1}, int64{-1}, INT64_MIN}) {
        const P<CVMDKDisk> disk = create({.size = size});
        EXPECT_EQ(disk->getSizeBytes(), 8388608);
        EXPECT_THAT(extentsOf(*disk), ElementsAre(Extent{"disk.vmdk", 128}));
        EXPECT_EQ(embeddedDescriptorSectors(), 65);
        EXPECT_EQ(disk->getDescriptor()->getCreateType(), "monolithicSparse");
        // Header 0, descriptor 1 to 65, then a directory and its table (4 sectors), twice; the first
        // grain's slot lies on the next grain boundary.
        const P<CVMDKSparseExtentHeader> header = headerOf("disk.vmdk");
        EXPECT_EQ(header->getRedundantGrainDirectoryOffsetSectors(), 66U);
        EXPECT_EQ(header->getGrainDirectoryOffsetSectors(), 71U);
        EXPECT_EQ(header->getOverheadSectors(), 128U);
        EXPECT_EQ(getFile("disk.vmdk").size(), 65536U);
    }
}

TEST_F(CVMDKDiskCreateSizingTest, EightMiBAndOneByte) {
    // S = 129 * 65536 = 8454144.
    const P<CVMDKDisk> disk = create({.size = 8 * MiB + 1});
    EXPECT_EQ(disk->getSizeBytes(), 8454144);
    EXPECT_THAT(extentsOf(*disk), ElementsAre(Extent{"disk.vmdk", 129}));
}

TEST_F(CVMDKDiskCreateSizingTest, TwoGiBInOneFile) {
    // S = 32768 grains. T = (2147483648 + 1048576) * 10 = 21485322240, M = 327840, N = 641, D = 6,
    // metadata = (6 + 2564) * 1024 + 512 = 2632192; with W 4532736, overhead = 70 * 65536 = 4587520,
    // P = 21480734720 (rounded down from itself: 327770 * 65536), so S / P = 0.
    const P<CVMDKDisk> disk = create({.size = 2 * GiB});
    EXPECT_EQ(disk->getSizeBytes(), 2 * GiB);
    EXPECT_THAT(extentsOf(*disk), ElementsAre(Extent{"disk.vmdk", 32768}));
    EXPECT_EQ(embeddedDescriptorSectors(), 65);
}

TEST_F(CVMDKDiskCreateSizingTest, TwoTiBInOneFile) {
    // S = 33554432 grains. T = (2199023255552 + 1048576) * 10 = 21990243041280, M = 335544480,
    // N = 655361, D = 5121, metadata = (5121 + 2621444) * 1024 + 512 = 2689603072; with W 2691503616,
    // overhead = 41070 * 65536 = 2691563520, P = 335503410 * 65536 > S.
    const P<CVMDKDisk> disk = create({.size = 2 * TiB});
    EXPECT_EQ(disk->getSizeBytes(), 2 * TiB);
    EXPECT_THAT(extentsOf(*disk), ElementsAre(Extent{"disk.vmdk", 33554432}));
    EXPECT_EQ(embeddedDescriptorSectors(), 65);
}

TEST_F(CVMDKDiskCreateSizingTest, MoreThanTwoTiBDoNotFitOneFile) {
    for (const int64 size : {2 * TiB + 1, 2 * TiB + 65536}) // both are 2199023255552 + 65536
        EXPECT_INVALID_ARG_ERROR(
            create({.size = size}), "CVMDKDisk::create",
            "Invalid VMDK disk size for single unsplittable disk file: 2199023321088 bytes.",
            {{"sizeBytes", "2199023321088"}});
    EXPECT_THAT(listFiles(), IsEmpty());
}

TEST_F(CVMDKDiskCreateSizingTest, CompressedInOneFile) {
    // T as for the plain one, 94371840, M = 1440, N = 3, D = 1, metadata = 13824 + (12 + 3 + 1 + 3) * 512
    // = 23552; with W 1924096, overhead = 30 * 65536 = 1966080, + (1440 + 3) * 512 = 738816 are 2704896,
    // T - overhead = 91666944, P = 1398 * 65536.
    const P<CVMDKDisk> disk = create({.compressed = true});
    EXPECT_THAT(extentsOf(*disk), ElementsAre(Extent{"disk.vmdk", 128}));
    EXPECT_EQ(embeddedDescriptorSectors(), 65);
    EXPECT_EQ(disk->getDescriptor()->getCreateType(), "streamOptimized");
}

// --- Several files ---

TEST_F(CVMDKDiskCreateSizingTest, TwoGiBWithALimitOfTwoGiB) {
    // T = 2147483647, M = 32767, N = 64, D = 1, metadata = (1 + 256) * 1024 + 512 = 263680, no embedded
    // descriptor: overhead = 5 * 65536 = 327680, T - overhead = 2147155967, P = 32762 * 65536 = 2147090432.
    // 32768 - 32762 = 6. S / P = 1: R = (57 * 2 + 33279) / 512 = 33393 / 512 = 65.
    const P<CVMDKDisk> disk = create({.size = 2 * GiB, .limit = 2 * GiB});
    EXPECT_EQ(disk->getSizeBytes(), 2 * GiB);
    EXPECT_THAT(extentsOf(*disk),
                ElementsAre(Extent{"disk-s00000.vmdk", 32762}, Extent{"disk-s00001.vmdk", 6}));
    EXPECT_EQ(separateDescriptorSectors(), 65);
    EXPECT_EQ(disk->getDescriptor()->getCreateType(), "twoGbMaxExtentSparse");
    EXPECT_THAT(listFiles(),
                ElementsAre("disk-s00000.vmdk", "disk-s00001.vmdk", "disk.vmdk", "disk.vmdk.lock"));
}

TEST_F(CVMDKDiskCreateSizingTest, FiveGiBWithALimitOfTwoGiB) {
    // E = 32762 as above; 81920 - 2 * 32762 = 16396. S / P = 2: R = (57 * 3 + 33279) / 512 = 65.
    const P<CVMDKDisk> disk = create({.size = 5 * GiB, .limit = 2 * GiB});
    EXPECT_THAT(extentsOf(*disk),
                ElementsAre(Extent{"disk-s00000.vmdk", 32762}, Extent{"disk-s00001.vmdk", 32762},
                            Extent{"disk-s00002.vmdk", 16396}));
    EXPECT_EQ(separateDescriptorSectors(), 65);
}

TEST_F(CVMDKDiskCreateSizingTest, FourTiBWithALimitOfTwoGiB) {
    // 67108864 grains: 2048 * 32762 = 67096576, 12288 are left. S / P = 2048:
    // R = (57 * 2049 + 33279) / 512 = 150072 / 512 = 293.
    const P<CVMDKDisk> disk = create({.size = 4 * TiB, .limit = 2 * GiB, .onDemand = true});
    EXPECT_EQ(disk->getSizeBytes(), 4 * TiB);
    const std::vector<Extent> extents = extentsOf(*disk);
    ASSERT_EQ(extents.size(), 2049U);
    for (std::size_t i = 0; i < 2048; ++i)
        EXPECT_EQ(extents[i].grains, 32762);
    EXPECT_EQ(extents[0].name, "disk-s00000.vmdk");
    EXPECT_EQ(extents[9].name, "disk-s00009.vmdk");
    EXPECT_EQ(extents[10].name, "disk-s00010.vmdk");
    EXPECT_EQ(extents[2047].name, "disk-s02047.vmdk");
    EXPECT_EQ(extents[2048], (Extent{"disk-s02048.vmdk", 12288}));
    EXPECT_EQ(separateDescriptorSectors(), 293);
}

TEST_F(CVMDKDiskCreateSizingTest, LimitsBeyondTwoTiBCountAsTwoTiB) {
    // T = 2199023255551, M = 33554431, N = 65536, D = 512, metadata = (512 + 262144) * 1024 + 512 =
    // 268960256, overhead = 4105 * 65536 = 269025280, T - overhead = 2198754230271, P = 33550326 * 65536.
    // 67108864 - 2 * 33550326 = 8212.
    const P<CVMDKDisk> disk = create({.size = 4 * TiB, .limit = INT64_MAX, .onDemand = true});
    EXPECT_THAT(extentsOf(*disk),
                ElementsAre(Extent{"disk-s00000.vmdk", 33550326}, Extent{"disk-s00001.vmdk", 33550326},
                            Extent{"disk-s00002.vmdk", 8212}));
}

TEST_F(CVMDKDiskCreateSizingTest, CompressedWithALimit) {
    // T = 1073741823 / 2 = 536870911, M = 8191, N = 16, D = 1, metadata = (1 + 64) * 1024 + 512
    // + (64 + 3 + 1 + 16) * 512 = 67072 + 43008 = 110080; with W 2010624, overhead = 31 * 65536 = 2031616
    // + (8191 + 3) * 512 = 4195328 are 6226944, T - overhead = 530643967, P = 8096 * 65536.
    // 1 GiB are 16384 grains: 16384 - 2 * 8096 = 192.
    const P<CVMDKDisk> disk = create({.size = 1 * GiB, .compressed = true, .limit = 1 * GiB});
    EXPECT_THAT(extentsOf(*disk), ElementsAre(Extent{"disk.vmdk", 8096}, Extent{"disk-s00001.vmdk", 8096},
                                              Extent{"disk-s00002.vmdk", 192}));
    EXPECT_EQ(embeddedDescriptorSectors(), 65);
    EXPECT_EQ(disk->getDescriptor()->getCreateType(), "streamOptimized");
}

// --- The smallest limits ---

TEST_F(CVMDKDiskCreateSizingTest, SmallestLimitGivesExtentsOfOneGrain) {
    // T = 131072, M = 2, N = 1, D = 1, metadata = 5 * 1024 + 512 = 5632, overhead = 65536, P = 65536.
    // S / P = 128: R = (57 * 129 + 33279) / 512 = 40632 / 512 = 79.
    const P<CVMDKDisk> disk = create({.limit = 131073});
    const std::vector<Extent> extents = extentsOf(*disk);
    ASSERT_EQ(extents.size(), 128U);
    EXPECT_EQ(extents[127], (Extent{"disk-s00127.vmdk", 1}));
    EXPECT_EQ(separateDescriptorSectors(), 79);
}

TEST_F(CVMDKDiskCreateSizingTest, SmallestLimitOfACompressedDisk) {
    // T = 4098048 / 2 = 2049024, M = 31, N = 1, D = 1, metadata = 5632 + (4 + 3 + 1 + 1) * 512 = 10240;
    // with W 1910784, overhead = 30 * 65536 = 1966080 + (31 + 3) * 512 = 17408 are 1983488,
    // P = 2049024 - 1983488 = 65536.
    const P<CVMDKDisk> disk = create({.compressed = true, .limit = 4098049});
    const std::vector<Extent> extents = extentsOf(*disk);
    ASSERT_EQ(extents.size(), 128U);
    EXPECT_EQ(extents[0], (Extent{"disk.vmdk", 1}));
    EXPECT_EQ(embeddedDescriptorSectors(), 79);
}

TEST_F(CVMDKDiskCreateSizingTest, LimitTooSmallForAGrain) {
    // T = 131071 - overhead 65536 = 65535: P = 0.
    expectNoGrainFits({.limit = 131072}, "0");
    // T = -1, M = 0, N = 0, D = 0, metadata = 512, overhead = 65536: -65537 towards 0 in whole grains.
    expectNoGrainFits({.limit = 0}, "-65536");
    // T = 4098047 / 2 = 2049023, one byte less than the smallest.
    expectNoGrainFits({.compressed = true, .limit = 4098048}, "0");
}

TEST_F(CVMDKDiskCreateSizingTest, NegativeLimitsButMinusOneAreRefused) {
    for (const int64 limit : {int64{-2}, INT64_MIN})
        EXPECT_INVALID_ARG_ERROR(create({.limit = limit}), "CVMDKDisk::create",
                                 "Invalid VMDK file size limit: " + toDecimal(limit) +
                                     " bytes (allowed: -1 for a single file, or 0 and above).",
                                 {{"maxFileSizeBytes", toDecimal(limit)}});
    EXPECT_THAT(listFiles(), IsEmpty());
}

// --- Too many extents ---

TEST_F(CVMDKDiskCreateSizingTest, DescriptorHasRoomForAboutAsManyExtentsAsFiveDigitsCount) {
    // Extents of one grain. 32767 grains: R = (57 * 32768 + 33279) / 512 = 1901055 / 512 = 3712, and
    // 3712 * 512 = 1900544 = W.
    EXPECT_EQ(extentsOf(*create({.size = 32767 * grainBytes, .limit = 131073, .onDemand = true})).size(),
              32767U);
    EXPECT_EQ(separateDescriptorSectors(), 3712);
}

TEST_F(CVMDKDiskCreateSizingTest, MoreExtentsThanTheDescriptorHasRoomForAreRefused) {
    // 32768 grains: R = (57 * 32769 + 33279) / 512 = 1901112 / 512 = 3713, 3713 * 512 = 1901056 > W.
    EXPECT_LUM_ERROR(create({.size = 32768 * grainBytes, .limit = 131073, .onDemand = true}), CError, -1,
                     "Internal error: calculated VMDK descriptor size exceeds estimated worst case "
                     "descriptor size (calculated: 1901056, worstCase: 1900544)");
    // The largest size with the largest limit: 2^63 - 65536 bytes, P = 33550326 * 65536 as above,
    // S / P = 4194817, R = (57 * 4194818 + 33279) / 512 = 239137905 / 512 = 467066.
    EXPECT_LUM_ERROR(create({.size = INT64_MAX - 65535, .limit = 2 * TiB, .onDemand = true}), CError, -1,
                     "Internal error: calculated VMDK descriptor size exceeds estimated worst case "
                     "descriptor size (calculated: 239137792, worstCase: 1900544)");
    EXPECT_THAT(listFiles(), IsEmpty());
}

TEST_F(CVMDKDiskCreateSizingTest, MoreLinesThanCanBeCountedAreRefusedToo) {
    // A name of 70000 bytes: n = 70048, which 2^47 extents of one grain take to more than 2^63. From 2^61
    // bytes on it is counted no further: R = (2^61 - 1 + 33279) / 512 = 2^52 + 64, R * 512 = 2^61 + 32768.
    // W = 70048 * 32768 + 32768.
    const String name = String(std::string(69995, 'n').c_str()) + ".vmdk";
    EXPECT_LUM_ERROR(create({.size = INT64_MAX - 65535, .limit = 131073, .onDemand = true}, name), CError, -1,
                     "Internal error: calculated VMDK descriptor size exceeds estimated worst case "
                     "descriptor size (calculated: 2305843009213726720, worstCase: 2295365632)");
    EXPECT_THAT(listFiles(), IsEmpty());
}

TEST_F(CVMDKDiskCreateSizingTest, DescriptorThatCouldNotBeReadAgainIsRefused) {
    // A name of 117 bytes: n = 165. 32000 extents of one grain: R = (165 * 32001 + 33279) / 512 =
    // 5313444 / 512 = 10377, 10377 * 512 = 5313024 > 5 MiB = 5242880.
    const String name = String(std::string(112, 'n').c_str()) + ".vmdk";
    EXPECT_INVALID_ARG_ERROR(
        create({.size = 32000 * grainBytes, .limit = 131073, .onDemand = true}, name), "CVMDKDisk::create",
        "The VMDK descriptor would be too big to be read again: 5313024 bytes (at most 5242880). Choose a "
        "shorter name or a larger file size limit.",
        {{"descriptorSize", "5313024"}});
    EXPECT_THAT(listFiles(), IsEmpty());
}

// --- Sizes near the end of numbers ---

TEST_F(CVMDKDiskCreateSizingTest, SizeThatCannotBeRoundedUpIsRefused) {
    for (const int64 limit : {int64{-1}, 2 * GiB})
        for (const int64 size : {INT64_MAX, INT64_MAX - 65534})
            EXPECT_INVALID_ARG_ERROR(create({.size = size, .limit = limit}), "CVMDKDisk::create",
                                     "Invalid VMDK disk size: " + toDecimal(size) +
                                         " bytes (at most 9223372036854710272).",
                                     {{"sizeBytes", toDecimal(size)}});
    EXPECT_INVALID_ARG_ERROR(
        create({.size = INT64_MAX - 65535}), "CVMDKDisk::create",
        "Invalid VMDK disk size for single unsplittable disk file: 9223372036854710272 bytes.",
        {{"sizeBytes", "9223372036854710272"}});
    EXPECT_THAT(listFiles(), IsEmpty());
}

// --- Names ---

TEST_F(CVMDKDiskCreateSizingTest, ExtentsAreNamedAfterTheMainFilesTitle) {
    const struct {
        const wchar_t* name;
        const wchar_t* first;
        const wchar_t* last;
    } rows[] = {
        {L"disk.vmdk", L"disk-s00000.vmdk", L"disk-s00002.vmdk"},
        {L"my disk.v1.vmdk", L"my disk.v1-s00000.vmdk", L"my disk.v1-s00002.vmdk"},
        {L"disk", L"disk-s00000", L"disk-s00002"},
        {L".vmdk", L".vmdk-s00000", L".vmdk-s00002"},
        {L"Pl\u00e4tte \u20ac.VMDK", L"Pl\u00e4tte \u20ac-s00000.VMDK", L"Pl\u00e4tte \u20ac-s00002.VMDK"},
        {L"50%25 off#1?.vmdk", L"50%25 off#1?-s00000.vmdk", L"50%25 off#1?-s00002.vmdk"},
    };
    for (const auto& row : rows) {
        const P<CVMDKDisk> disk = create({.limit = 3 * MiB + 2 * 65536}, row.name);
        TArray<P<CVMDKExtentInfo>> extents;
        disk->getDescriptor()->getExtentEntries(extents);
        ASSERT_EQ(extents.size(), 3U);
        EXPECT_EQ(extents.front()->getFilename(), row.first);
        EXPECT_EQ(extents.back()->getFilename(), row.last);
        EXPECT_TRUE(exists(row.first));
        EXPECT_TRUE(exists(row.last));
        const Bytes data = randomBytes(1, 100);
        writeAt(*disk, 7 * MiB, data);
        EXPECT_EQ(readAt(*disk, 7 * MiB, 100), data);
    }
}

TEST_F(CVMDKDiskCreateSizingTest, LengthOfTheNameCountsInUTF8) {
    // 3 euro signs are 9 bytes, the name 14: n = 62. R = (62 * 129 + 33279) / 512 = 41277 / 512 = 80.
    const String name(L"\u20ac\u20ac\u20ac.vmdk");
    create({.limit = 131073}, name);
    EXPECT_EQ(getFile(name).size(), 80U * 512);
}
