// Runs of bytes that come from one disk of a chain.

#include "DiskTest.h"

#include <ostream>

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;

namespace {

constexpr int nowhere = UVMDKGrainRun::nowhere;

/// A run in grains.
struct Grains {
    int64 grain;
    int64 grains;
    int layer;

    friend bool operator==(const Grains&, const Grains&) = default;
};

void PrintTo(const Grains& run, std::ostream* out) {
    *out << run.grain << "+" << run.grains << " in " << run.layer;
}

class CVMDKDiskGrainRunTest : public DiskTest {
protected:
    P<CVMDKDisk> createChild(const String& name, const String& parent, DiskOptions options = {}) {
        options.parentPath = parent;
        options.parentID = openForReading(parent)->getDescriptor()->getContentID();
        return create(options, name);
    }
    static void writeGrains(CVMDKDisk& disk, std::initializer_list<int64> grains) {
        for (const int64 grain : grains)
            writeAt(disk, grain * grainBytes + 100, Bytes(10, 'x'));
    }
    /// Every run of a disk, in turn.
    static std::vector<Grains> runsOf(CVMDKDisk& disk) {
        std::vector<Grains> runs;
        for (int64 position = 0; position < disk.getSizeBytes();) {
            const UVMDKGrainRun run = disk.findGrainRun(position);
            EXPECT_EQ(run.position, position);
            EXPECT_GT(run.sizeBytes, 0);
            EXPECT_EQ(run.sizeBytes % grainBytes, 0);
            runs.push_back({position / grainBytes, run.sizeBytes / grainBytes, run.layer});
            position += run.sizeBytes;
        }
        return runs;
    }
};

} // namespace

TEST_F(CVMDKDiskGrainRunTest, EmptyDiskIsNowhere) {
    EXPECT_THAT(runsOf(*create()), ElementsAre(Grains{0, 128, nowhere}));
    EXPECT_THAT(runsOf(*create({.compressed = true})), ElementsAre(Grains{0, 128, nowhere}));
}

TEST_F(CVMDKDiskGrainRunTest, WrittenGrainsAreHere) {
    for (const bool compressed : {false, true}) {
        P<CVMDKDisk> disk = create({.compressed = compressed});
        writeGrains(*disk, {0, 1, 2, 60, 127});
        for (int attempt = 0; attempt < 2; ++attempt) {
            EXPECT_THAT(runsOf(*disk), ElementsAre(Grains{0, 3, 0}, Grains{3, 57, nowhere}, Grains{60, 1, 0},
                                                   Grains{61, 66, nowhere}, Grains{127, 1, 0}));
            disk = nullptr;
            disk = openForReading();
        }
    }
}

TEST_F(CVMDKDiskGrainRunTest, PendingChangeIsHereToo) {
    const P<CVMDKDisk> disk = create();
    const Bytes data = randomBytes(1, 100);
    writeAt(*disk, 5 * grainBytes, data);
    EXPECT_EQ(disk->findGrainRun(5 * grainBytes).layer, 0);
    EXPECT_EQ(disk->findGrainRun(6 * grainBytes).layer, nowhere);
    EXPECT_EQ(readAt(*disk, 5 * grainBytes, 100), data);
}

TEST_F(CVMDKDiskGrainRunTest, RunBeginsAtThePositionAndEndsWithAGrain) {
    const P<CVMDKDisk> disk = create();
    writeGrains(*disk, {3, 4});
    const struct {
        int64 position;
        int64 end;
        int layer;
    } rows[] = {
        {1, 3 * grainBytes, nowhere},
        {3 * grainBytes - 1, 3 * grainBytes, nowhere},
        {3 * grainBytes, 5 * grainBytes, 0},
        {3 * grainBytes + 1, 5 * grainBytes, 0},
        {5 * grainBytes - 1, 5 * grainBytes, 0},
        {5 * grainBytes, 8 * MiB, nowhere},
        {8 * MiB - 1, 8 * MiB, nowhere},
    };
    for (const auto& row : rows) {
        const UVMDKGrainRun run = disk->findGrainRun(row.position);
        EXPECT_EQ(run.position, row.position);
        EXPECT_EQ(run.position + run.sizeBytes, row.end);
        EXPECT_EQ(run.layer, row.layer);
    }
}

TEST_F(CVMDKDiskGrainRunTest, RunEndsWithItsGrainTableAndItsExtent) {
    const P<CVMDKDisk> single = create({.size = 1100 * grainBytes});
    EXPECT_THAT(runsOf(*single),
                ElementsAre(Grains{0, 512, nowhere}, Grains{512, 512, nowhere}, Grains{1024, 76, nowhere}));
    const P<CVMDKDisk> split = create({.limit = 3 * MiB + 2 * 65536, .onDemand = true}, "split.vmdk");
    EXPECT_THAT(runsOf(*split),
                ElementsAre(Grains{0, 48, nowhere}, Grains{48, 48, nowhere}, Grains{96, 32, nowhere}));
    writeGrains(*split, {47, 48, 49, 127});
    EXPECT_THAT(runsOf(*split),
                ElementsAre(Grains{0, 47, nowhere}, Grains{47, 1, 0}, Grains{48, 2, 0},
                            Grains{50, 46, nowhere}, Grains{96, 31, nowhere}, Grains{127, 1, 0}));
}

TEST_F(CVMDKDiskGrainRunTest, RunOfAPartialLastGrainEndsWithTheDisk) {
    putExtent("a.vmdk", 2);
    putExtent("b.vmdk", 2);
    putSplitDescriptor({"RW 200 SPARSE \"a.vmdk\"", "RW 200 SPARSE \"b.vmdk\""});
    const P<CVMDKDisk> disk = open();
    writeAt(*disk, 199 * 512, Bytes(512, 'x'));
    const UVMDKGrainRun inFirst = disk->findGrainRun(130 * 512);
    EXPECT_EQ(inFirst.sizeBytes, 70 * 512);
    EXPECT_EQ(inFirst.layer, 0);
    const UVMDKGrainRun inSecond = disk->findGrainRun(330 * 512);
    EXPECT_EQ(inSecond.sizeBytes, 70 * 512);
    EXPECT_EQ(inSecond.layer, nowhere);
}

TEST_F(CVMDKDiskGrainRunTest, LayersCountFromTheDiskItself) {
    writeGrains(*create({}, "a.vmdk"), {0, 1, 2, 3, 4, 5, 100});
    writeGrains(*createChild("b.vmdk", "a.vmdk"), {2, 3, 101});
    const P<CVMDKDisk> c = createChild("c.vmdk", "b.vmdk", {.limit = 3 * MiB + 2 * 65536, .onDemand = true});
    writeGrains(*c, {3, 4, 102});
    EXPECT_THAT(runsOf(*c), ElementsAre(Grains{0, 2, 2}, Grains{2, 1, 1}, Grains{3, 2, 0}, Grains{5, 1, 2},
                                        Grains{6, 42, nowhere}, Grains{48, 48, nowhere},
                                        Grains{96, 4, nowhere}, Grains{100, 1, 2}, Grains{101, 1, 1},
                                        Grains{102, 1, 0}, Grains{103, 25, nowhere}));
}

TEST_F(CVMDKDiskGrainRunTest, BehindTheParentsEndIsNowhere) {
    writeGrains(*create({}, "a.vmdk"), {126, 127});
    const P<CVMDKDisk> b = createChild("b.vmdk", "a.vmdk", {.size = 10 * MiB});
    EXPECT_THAT(runsOf(*b),
                ElementsAre(Grains{0, 126, nowhere}, Grains{126, 2, 1}, Grains{128, 32, nowhere}));
}

TEST_F(CVMDKDiskGrainRunTest, ParentOfSmallerGrainsIsAskedForWhatItHas) {
    putExtent("a-s00000.vmdk", 1024, 16);
    putSplitDescriptor({"RW 16384 SPARSE \"a-s00000.vmdk\""}, "a.vmdk");
    writeAt(*open(forWriting, "a.vmdk"), 3 * 8192, Bytes(10, 'x'));
    const P<CVMDKDisk> b = createChild("b.vmdk", "a.vmdk");
    const UVMDKGrainRun before = b->findGrainRun(0);
    EXPECT_EQ(before.sizeBytes, 3 * 8192);
    EXPECT_EQ(before.layer, nowhere);
    const UVMDKGrainRun held = b->findGrainRun(3 * 8192);
    EXPECT_EQ(held.sizeBytes, 8192);
    EXPECT_EQ(held.layer, 1);
}

TEST_F(CVMDKDiskGrainRunTest, PositionsStayWhereTheyAre) {
    const P<CVMDKDisk> parent = create({}, "a.vmdk");
    create({.parentPath = "a.vmdk", .parentID = 1}, "b.vmdk");
    const P<CVMDKDisk> disk(new CVMDKDisk(files(), uri("b.vmdk"), forReading, "", -1, nullptr, parent.get()));
    disk->seek(123);
    parent->seek(456);
    EXPECT_EQ(disk->findGrainRun(5 * MiB).layer, nowhere);
    EXPECT_EQ(disk->getPosition(), 123);
    EXPECT_EQ(parent->getPosition(), 456);
}

TEST_F(CVMDKDiskGrainRunTest, ThereIsNoRunOutsideTheDisk) {
    const P<CVMDKDisk> disk = create();
    disk->seek(5);
    for (const int64 position : {8 * MiB, 8 * MiB + 1, int64{-1}, INT64_MAX, INT64_MIN})
        EXPECT_LUM_ERROR(disk->findGrainRun(position), CIOError, 7,
                         "Bad seek position in VMDK disk: " + toDecimal(position),
                         {{"mainFileURI", path("disk.vmdk")}, {"diskSize", "8388608"}});
    EXPECT_EQ(disk->getPosition(), 5);
}

TEST_F(CVMDKDiskGrainRunTest, PositionStaysAfterAFailure) {
    create({.limit = 3 * MiB + 2 * 65536});
    m_memory->deleteFile(uri("disk-s00001.vmdk"), false);
    const P<CVMDKDisk> disk = openForReading();
    disk->seek(5);
    EXPECT_THROW(disk->findGrainRun(4 * MiB), CFileSystemError);
    EXPECT_EQ(disk->getPosition(), 5);
    EXPECT_EQ(takeLog().size(), 1U);
}

TEST_F(CVMDKDiskGrainRunTest, GrainOfZerosIsHereOnlyWhereItHasASlot) {
    P<CVMDKDisk> disk = create();
    writeAt(*disk, 0, zeroBytes(2 * grainBytes));
    writeAt(*disk, 5 * grainBytes, Bytes(10, 'x'));
    disk->flushChanges();
    writeAt(*disk, 5 * grainBytes, zeroBytes(10));
    EXPECT_THAT(runsOf(*disk), ElementsAre(Grains{0, 5, nowhere}, Grains{5, 1, 0}, Grains{6, 122, nowhere}));
}

TEST_F(CVMDKDiskGrainRunTest, TellsWhetherGrainsAreStoredAlikeDownTheChain) {
    P<CVMDKDisk> base = create({.compressed = true}, "base.vmdk");
    writeGrains(*base, {1, 2});
    base = create({}, "plain.vmdk");
    writeGrains(*base, {1, 2});
    base = nullptr;
    P<CVMDKDisk> child = createChild("child.vmdk", "base.vmdk", {.compressed = true});
    writeGrains(*child, {0});
    EXPECT_TRUE(child->findGrainRun(0).isStoredAlike);
    EXPECT_TRUE(child->findGrainRun(grainBytes).isStoredAlike);
    child = nullptr;
    P<CVMDKDisk> other = createChild("other.vmdk", "plain.vmdk", {.compressed = true});
    writeGrains(*other, {0});
    EXPECT_TRUE(other->findGrainRun(0).isStoredAlike);
    EXPECT_FALSE(other->findGrainRun(grainBytes).isStoredAlike);
    other = nullptr;
    const P<CVMDKDisk> grandchild = createChild("grandchild.vmdk", "other.vmdk", {.compressed = true});
    EXPECT_TRUE(grandchild->findGrainRun(0).isStoredAlike);
    EXPECT_FALSE(grandchild->findGrainRun(grainBytes).isStoredAlike);
}

TEST_F(CVMDKDiskGrainRunTest, GrainsOfAnExtentThatBeginsWithinOneAreNotStoredAlike) {
    putExtent("a.vmdk", 2);
    putExtent("b.vmdk", 2);
    putSplitDescriptor({"RW 192 SPARSE \"a.vmdk\"", "RW 256 SPARSE \"b.vmdk\""});
    const P<CVMDKDisk> disk = open();
    EXPECT_TRUE(disk->findGrainRun(0).isStoredAlike);
    EXPECT_FALSE(disk->findGrainRun(192 * 512).isStoredAlike);
}
