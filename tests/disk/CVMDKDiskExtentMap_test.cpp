// Which extent holds which part of a disk, and what an extent must be.

#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// The largest disk whose bytes a signed 64-bit number can count: (2^63 - 1) / 512 sectors.
constexpr int64 mostSectors = 18014398509481983;

class CVMDKDiskExtentMapTest : public DiskTest {
protected:
    struct Extent {
        int64 startSector;
        int64 sizeSectors;
        int64 startGrainIndex;
        std::string name;

        friend bool operator==(const Extent&, const Extent&) = default;
    };

    static std::vector<Extent> mapOf(const CVMDKDisk& disk) {
        std::vector<Extent> extents;
        for (const auto& [key, value] : disk.getExtentMap())
            extents.push_back(
                {key.startSector, key.sizeSectors, value.startGrainIndex, value.uri.getName().toUTF8()});
        return extents;
    }
};

std::string line(int64 sectors, const char* name) {
    return "RW " + std::to_string(sectors) + " SPARSE \"" + name + "\"";
}

} // namespace

TEST_F(CVMDKDiskExtentMapTest, RangesThatOverlapAreEquivalentKeys) {
    using Key = CVMDKDisk::CExtentKey;
    const struct {
        Key a;
        Key b;
        bool aFirst;
        bool bFirst;
    } rows[] = {
        {{0, 10}, {10, 5}, true, false},  {{0, 10}, {11, 1}, true, false},  {{0, 10}, {9, 1}, false, false},
        {{0, 10}, {0, 10}, false, false}, {{0, 10}, {3, 2}, false, false},  {{5, 10}, {0, 6}, false, false},
        {{5, 10}, {0, 5}, false, true},   {{5, 10}, {14, 9}, false, false}, {{5, 10}, {15, 9}, true, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(row.a < row.b, row.aFirst) << row.a.startSector << " " << row.b.startSector;
        EXPECT_EQ(row.b < row.a, row.bFirst) << row.a.startSector << " " << row.b.startSector;
    }
}

TEST_F(CVMDKDiskExtentMapTest, ExtentsFollowEachOtherInTheOrderOfTheirLines) {
    putExtent("b.vmdk", 4);
    putExtent("a.vmdk", 2);
    putExtent("c.vmdk", 8);
    putSplitDescriptor({line(512, "b.vmdk"), line(256, "a.vmdk"), line(1024, "c.vmdk")});
    const P<CVMDKDisk> disk = open();
    EXPECT_THAT(mapOf(*disk), ElementsAre(Extent{0, 512, 0, "b.vmdk"}, Extent{512, 256, 4, "a.vmdk"},
                                          Extent{768, 1024, 6, "c.vmdk"}));
    EXPECT_EQ(disk->getSizeBytes(), 1792 * 512);
    EXPECT_EQ(disk->getFirstExtentFileURI(), uri("b.vmdk"));

    const Bytes data = randomBytes(1, disk->getSizeBytes());
    writeAt(*disk, 0, data);
    EXPECT_EQ(readAll(*disk), data);
}

TEST_F(CVMDKDiskExtentMapTest, GrainIndicesAreRoundedUpWhereAnExtentBeginsWithinAGrain) {
    putExtent("a.vmdk", 2);
    putExtent("b.vmdk", 2);
    putExtent("c.vmdk", 2);
    putSplitDescriptor({line(129, "a.vmdk"), line(127, "b.vmdk"), line(1, "c.vmdk")});
    P<CVMDKDisk> disk = open();
    EXPECT_THAT(mapOf(*disk), ElementsAre(Extent{0, 129, 0, "a.vmdk"}, Extent{129, 127, 2, "b.vmdk"},
                                          Extent{256, 1, 2, "c.vmdk"}));
    const Bytes data = randomBytes(2, 257 * 512);
    writeAt(*disk, 0, data);
    disk = nullptr;
    EXPECT_EQ(readAll(*openForReading()), data);
}

TEST_F(CVMDKDiskExtentMapTest, GrainIndicesCountGrainsOfTheFirstExtent) {
    putExtent("a.vmdk", 4, 16);
    putExtent("b.vmdk", 4, 16);
    putSplitDescriptor({line(64, "a.vmdk"), line(64, "b.vmdk")});
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_EQ(disk->getGrainSizeBytes(), 8192);
    EXPECT_THAT(mapOf(*disk), ElementsAre(Extent{0, 64, 0, "a.vmdk"}, Extent{64, 64, 4, "b.vmdk"}));
}

TEST_F(CVMDKDiskExtentMapTest, ExtentsOfSizeZeroTakeNoPlace) {
    putExtent("a.vmdk", 2);
    putExtent("b.vmdk", 2);
    putSplitDescriptor({line(0, "none.vmdk"), line(256, "a.vmdk"), line(0, "none.vmdk"), line(256, "b.vmdk"),
                        line(0, "none.vmdk")});
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_THAT(mapOf(*disk), ElementsAre(Extent{0, 256, 0, "a.vmdk"}, Extent{256, 256, 2, "b.vmdk"}));
    EXPECT_EQ(disk->getFirstExtentFileURI(), uri("a.vmdk"));
    EXPECT_EQ(disk->getSizeBytes(), 512 * 512);
}

TEST_F(CVMDKDiskExtentMapTest, ExtentsOfSizeZeroAloneAreNone) {
    putSplitDescriptor({line(0, "a.vmdk")});
    EXPECT_LUM_ERROR(open(), CIOError, 5, "VMDK disk has no extents.", {{"uri", path("disk.vmdk")}});
}

TEST_F(CVMDKDiskExtentMapTest, RefusesSizesThatCannotBe) {
    putExtent("a.vmdk", 2);
    const struct {
        std::vector<std::string> lines;
        const char* size;
        const char* most;
    } rows[] = {
        {{line(-1, "a.vmdk")}, "-1", "18014398509481983"},
        {{line(256, "a.vmdk"), line(-256, "a.vmdk")}, "-256", "18014398509481727"},
        {{line(256, "a.vmdk"), line(INT64_MIN, "a.vmdk")}, "-9223372036854775808", "18014398509481727"},
        {{line(mostSectors + 1, "a.vmdk")}, "18014398509481984", "18014398509481983"},
        {{line(256, "a.vmdk"), line(mostSectors - 255, "a.vmdk")}, "18014398509481728", "18014398509481727"},
        {{line(256, "a.vmdk"), line(INT64_MAX, "a.vmdk")}, "9223372036854775807", "18014398509481727"},
        {{line(mostSectors, "a.vmdk"), line(1, "a.vmdk")}, "1", "0"},
    };
    for (const auto& row : rows) {
        putSplitDescriptor(row.lines);
        EXPECT_LUM_ERROR(open(), CIOError, 5,
                         String("VMDK disk has an extent of an invalid size: ") + row.size +
                             " sectors (allowed: 0 to " + row.most + ").",
                         {{"uri", path("disk.vmdk")}, {"sizeSectors", row.size}});
    }
}

TEST_F(CVMDKDiskExtentMapTest, TakesTheLargestSizeThatCanBeCounted) {
    putExtent("a.vmdk", 2);
    putSplitDescriptor({line(256, "a.vmdk"), line(mostSectors - 256, "b.vmdk")});
    EXPECT_EQ(openForReading()->getSizeBytes(), mostSectors * 512);
}

TEST_F(CVMDKDiskExtentMapTest, RefusesASizeThatIsNoNumber) {
    putExtent("a.vmdk", 2);
    for (const char* const size : {"many", "0x100", "256.0", "99999999999999999999", "-"}) {
        putSplitDescriptor(
            {line(256, "a.vmdk"), std::string("RW ") + size + " SPARSE \"b.vmdk\"", line(256, "a.vmdk")});
        EXPECT_LUM_ERROR(open(), CIOError, 5,
                         "VMDK disk has an extent whose size is no number (file: 'b.vmdk').",
                         {{"uri", path("disk.vmdk")}});
    }
}

TEST_F(CVMDKDiskExtentMapTest, LineRemembersThatItsSizeIsNoNumber) {
    const auto isSizeKnown = [](const P<CVMDKDescriptorEntry>& entry) {
        return castTo<CVMDKExtentInfo>(entry)->isSizeKnown();
    };
    const P<CVMDKExtentInfo> known = CVMDKExtentInfo::tryParseDescriptorLine("RW 0 SPARSE \"a.vmdk\"");
    EXPECT_TRUE(isSizeKnown(known));
    EXPECT_TRUE(isSizeKnown(known->cloneDescriptorEntry()));
    const P<CVMDKExtentInfo> unknown = CVMDKExtentInfo::tryParseDescriptorLine("RW x SPARSE \"a.vmdk\"");
    EXPECT_EQ(unknown->getSizeSectors(), 0);
    EXPECT_FALSE(isSizeKnown(unknown));
    EXPECT_FALSE(isSizeKnown(unknown->cloneDescriptorEntry()));
}

TEST_F(CVMDKDiskExtentMapTest, RefusesExtentLinesThatItDoesNotUnderstand) {
    putExtent("a.vmdk", 2);
    const struct {
        const char* line;
        const char* type;
    } rows[] = {
        {"RW 2048 ZERO", "ZERO"},
        {"RDONLY 2048 ZERO", "ZERO"},
        {"NOACCESS 2048 ZERO", "ZERO"},
        {"rw 2048 zero", "zero"},
        {"RW 2048 FLAT a-flat.vmdk 0", "FLAT"},
        {"RW 2048 SPARSE a.vmdk", "SPARSE"},
        {"RW 2048 SPARSE \"a.vmdk", "SPARSE"},
        {"  RW   2048   ZERO", "ZERO"},
        {" RW 2048 SPARSE \"a.vmdk\"", "SPARSE"},
        {"RW\t2048\tSPARSE\t\"a.vmdk\"", "SPARSE"},
        {"RW\t2048\tSPARSE\t\"a=b.vmdk\"", "SPARSE"},
        {"RW 2048\tSPARSE a=b.vmdk", "SPARSE"},
        {"rdonly\t2048\tFLAT\t\"x=1\" 0", "FLAT"},
        {"RW\t2048\tFLAT\t\"x=1\"", "FLAT"},
        {"NOACCESS 2048 ZERO=\"x\"", "ZERO=\"x\""},
        {"RW 2048 ZERO\r", "ZERO"},
        {"RW -2048 ZERO", "ZERO"},
        {"RW +2048 ZERO", "ZERO"},
        {"RW 99999999999999999999 ZERO", "ZERO"},
        {"RW 2048", ""},
        {"RW 2048 ", ""},
    };
    for (const auto& row : rows)
        for (const bool first : {false, true}) {
            putSplitDescriptor(first ? std::vector<std::string>{row.line, line(256, "a.vmdk")}
                                     : std::vector<std::string>{line(256, "a.vmdk"), row.line});
            EXPECT_LUM_ERROR(open(), CIOError, 5,
                             String("VMDK disk has an unsupported extent type: '") + row.type + "'.",
                             {{"uri", path("disk.vmdk")}})
                << row.line;
        }
}

TEST_F(CVMDKDiskExtentMapTest, PassesOverOtherLinesThatItDoesNotUnderstand) {
    putExtent("a.vmdk", 2);
    putSplitDescriptor({"# RW 2048 ZERO", "RW", "RW many ZERO", "RWX 2048 ZERO", "2048 RW ZERO",
                        "what is this", "\r", line(256, "a.vmdk"), "# RDONLY 2048 ZERO"});
    EXPECT_EQ(openForReading()->getSizeBytes(), 256 * 512);
}

TEST_F(CVMDKDiskExtentMapTest, FindsExtentsWhereTheirReferencesLead) {
    const CURI elsewhere(String("memory:/else/where.vmdk"));
    putExtent("a.vmdk", 2);
    const std::string extent = getFile("a.vmdk");
    for (const CURI& target : {elsewhere, CURI(String("memory:/folder/sub/b.vmdk")),
                               CURI(String("memory:/folder/dir/c.vmdk")), CURI(String("memory:/up.vmdk"))}) {
        const P<IIOStream> stream = m_memory->openFile(target, forWriting);
        stream->write(extent.data(), static_cast<int>(extent.size()));
    }
    putSplitDescriptor({line(256, "a.vmdk"), line(256, "sub/b.vmdk"), line(256, "memory:/else/where.vmdk"),
                        line(256, "dir\\c.vmdk"), line(256, "../up.vmdk")});
    const P<CVMDKDisk> disk = open();
    const Bytes data = randomBytes(3, disk->getSizeBytes());
    writeAt(*disk, 0, data);
    disk->flushChanges();
    EXPECT_EQ(readAll(*disk), data);
    TArray<CURI> uris;
    for (const auto& [key, value] : disk->getExtentMap())
        uris.push_back(value.uri);
    EXPECT_THAT(uris,
                ElementsAre(uri("a.vmdk"), CURI(String("memory:/folder/sub/b.vmdk")), elsewhere,
                            CURI(String("memory:/folder/dir/c.vmdk")), CURI(String("memory:/up.vmdk"))));
}

// --- Extents that are not what the first one is ---

namespace {

struct OddExtent {
    const char* name;
    int64 grains;
    int64 grainSizeSectors;
    bool compressed;
    const char* message;
    const char* grainSize;
    const char* isCompressed;
    const char* capacity;
};

void PrintTo(const OddExtent& odd, std::ostream* out) {
    *out << odd.name;
}

/// Beside a plain extent of grains of 128 sectors; the line says 512 sectors.
const OddExtent oddExtents[] = {
    {"OfSmallerGrains", 8, 64, false,
     "(grain size: 64 sectors, expected: 128; compressed: false, expected: false; capacity: 512 sectors, "
     "expected at least: 512).",
     "64", "false", "512"},
    {"OfLargerGrains", 2, 256, false,
     "(grain size: 256 sectors, expected: 128; compressed: false, expected: false; capacity: 512 sectors, "
     "expected at least: 512).",
     "256", "false", "512"},
    {"Compressed", 4, 128, true,
     "(grain size: 128 sectors, expected: 128; compressed: true, expected: false; capacity: 512 sectors, "
     "expected at least: 512).",
     "128", "true", "512"},
    {"TooShort", 3, 128, false,
     "(grain size: 128 sectors, expected: 128; compressed: false, expected: false; capacity: 384 sectors, "
     "expected at least: 512).",
     "128", "false", "384"},
};

class CVMDKDiskOddExtentTest : public DiskTest, public ::testing::WithParamInterface<OddExtent> {};

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskOddExtentTest, ::testing::ValuesIn(oddExtents),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(CVMDKDiskOddExtentTest, IsRefusedWhenItIsReached) {
    const OddExtent& odd = GetParam();
    putExtent("a.vmdk", 4);
    putExtent("odd.vmdk", odd.grains, odd.grainSizeSectors, odd.compressed);
    putSplitDescriptor({line(512, "a.vmdk"), line(512, "odd.vmdk")});
    for (const auto access : {forReading, forWriting}) {
        const P<CVMDKDisk> disk = open(access);
        EXPECT_EQ(disk->getSizeBytes(), 1024 * 512);
        EXPECT_EQ(readAt(*disk, 0, 512 * 512), zeroBytes(512 * 512));
        const String message = String("VMDK extent file does not belong to this disk ") + odd.message;
        unsigned char byte = 0;
        EXPECT_LUM_ERROR(disk->read(&byte, 1), CIOError, 5, message,
                         {{"uri", path("odd.vmdk")},
                          {"grainSize", odd.grainSize},
                          {"compressed", odd.isCompressed},
                          {"capacity", odd.capacity}});
        EXPECT_THAT(takeLog(),
                    ElementsAre(CLogRecorder::Entry{ILogSink::Level_Error,
                                                    "Error opening VMDK extent file on demand (path: "
                                                    "'memory:/folder/odd.vmdk'). Letting exception through.",
                                                    message, ""}));
        EXPECT_EQ(disk->getPosition(), 512 * 512);
        EXPECT_EQ(readAt(*disk, 0, 512), zeroBytes(512));
    }
}

TEST_F(CVMDKDiskExtentMapTest, AnExtentMayHoldMoreThanItsLineSays) {
    putExtent("a.vmdk", 4);
    putExtent("b.vmdk", 9);
    putSplitDescriptor({line(512, "a.vmdk"), line(512, "b.vmdk")});
    const P<CVMDKDisk> disk = open();
    const Bytes data = randomBytes(4, 1024 * 512);
    writeAt(*disk, 0, data);
    EXPECT_EQ(readAll(*disk), data);
}

TEST_F(CVMDKDiskExtentMapTest, TheFirstExtentIsHeldToItsLineToo) {
    putExtent("a.vmdk", 1);
    putSplitDescriptor({line(512, "a.vmdk")});
    const P<CVMDKDisk> disk = open();
    unsigned char byte = 0;
    EXPECT_THROW(disk->read(&byte, 1), CIOError);
    EXPECT_EQ(takeLog().size(), 1U);
}

// --- Parents ---

TEST_F(CVMDKDiskExtentMapTest, WithAParentExtentsBeginOnGrainBoundaries) {
    putExtent("a.vmdk", 2);
    putExtent("b.vmdk", 2);
    const auto put = [this](const std::string& first, const std::string& second) {
        putDescriptor({"CID=12345678", "parentCID=00000001", "createType=\"twoGbMaxExtentSparse\"",
                       "parentFileNameHint=\"parent.vmdk\"", first, second});
    };
    put(line(255, "a.vmdk"), line(128, "b.vmdk"));
    EXPECT_LUM_ERROR(open(), CIOError, 5,
                     "VMDK disk has a parent, but an extent that does not begin on a grain boundary "
                     "(sector: 255, grain size: 128).",
                     {{"uri", path("disk.vmdk")}, {"startSector", "255"}});
    put(line(256, "a.vmdk"), line(77, "b.vmdk")); // the last one may end where it likes
    EXPECT_EQ(open()->getSizeBytes(), (256 + 77) * 512);
}
