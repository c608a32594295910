// Whole grains in prepared form, and grains made independent of the parent.

#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

const char* const notForWriting =
    "Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.";
const char* const readCrosses = "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::tryRreparedGrainData "
                                "returned less than the grain size.";
const char* const writeCrosses = "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::writePreparedGrainData "
                                 "returned less than the grain size.";

class CVMDKDiskPreparedGrainsTest : public DiskTest {
protected:
    /// A disk of two extents, of which the first ends within its second grain.
    void putCrossingDisk() {
        putExtent("a.vmdk", 2);
        putExtent("b.vmdk", 2);
        putSplitDescriptor({"RW 200 SPARSE \"a.vmdk\"", "RW 256 SPARSE \"b.vmdk\""});
    }

    TBuffer<unsigned char> m_data;
    TBuffer<unsigned char> m_grain{grainSize};
};

/// The kinds that prepared data differ in.
struct Kind {
    const char* name;
    bool compressed;
    int64 limit;
    const char* password;
};

void PrintTo(const Kind& kind, std::ostream* out) {
    *out << kind.name;
}

const Kind kinds[] = {
    {"Plain", false, -1, ""},
    {"PlainSplit", false, 3 * MiB + 2 * 65536, ""},
    {"PlainEncrypted", false, -1, "secret"},
    {"Compressed", true, -1, ""},
    {"CompressedSplit", true, 11 * MiB, ""},
    {"CompressedEncrypted", true, -1, "secret"},
};

class CVMDKDiskPreparedGrainsByKindTest : public DiskTest, public ::testing::WithParamInterface<Kind> {
protected:
    P<CVMDKDisk> createOfKind(const String& name = "disk.vmdk") {
        const Kind& kind = GetParam();
        return create({.password = kind.password, .compressed = kind.compressed, .limit = kind.limit}, name);
    }
    P<CVMDKDisk> openOfKind(IIOStream::Access access, const String& name = "disk.vmdk") {
        return open(access, name, GetParam().password);
    }
    TBuffer<unsigned char> m_data;
};

} // namespace

// --- What is refused ---

TEST_F(CVMDKDiskPreparedGrainsTest, TransfersBeginOnGrainBoundaries) {
    const P<CVMDKDisk> disk = create();
    for (const int64 position :
         {int64{1}, int64{512}, grainBytes - 1, grainBytes + 1, 127 * grainBytes - 1}) {
        disk->seek(position);
        EXPECT_LUM_ERROR(
            disk->readPreparedGrainData(m_data), CIOError, 11,
            "Prepared grain read in VMDK disk can only be done on a grain boundary.",
            {{"mainFileURI", path("disk.vmdk")}, {"position", toDecimal(position)}, {"grainSize", "65536"}});
        EXPECT_LUM_ERROR(
            disk->writePreparedGrainData(m_grain), CIOError, 11,
            "Prepared grain write in VMDK disk can only be done on a grain boundary.",
            {{"mainFileURI", path("disk.vmdk")}, {"position", toDecimal(position)}, {"grainSize", "65536"}});
        EXPECT_EQ(disk->getPosition(), position);
    }
}

TEST_F(CVMDKDiskPreparedGrainsTest, TheLastGrainIsTheLast) {
    const P<CVMDKDisk> disk = create();
    disk->seek(127 * grainBytes);
    disk->readPreparedGrainData(m_data);
    EXPECT_EQ(disk->getPosition(), 8 * MiB);
    disk->seek(127 * grainBytes);
    disk->writePreparedGrainData(m_grain);
    EXPECT_EQ(disk->getPosition(), 8 * MiB);

    // The size comes before the boundary.
    for (const int64 position : {8 * MiB, 8 * MiB - 1, 127 * grainBytes + 512}) {
        disk->seek(position);
        EXPECT_LUM_ERROR(disk->readPreparedGrainData(m_data), CIOError, 3,
                         "Prepared grain read exceeds VMDK disk size.",
                         {{"mainFileURI", path("disk.vmdk")},
                          {"position", toDecimal(position)},
                          {"grainSize", "65536"},
                          {"diskSize", "8388608"}});
        EXPECT_LUM_ERROR(disk->writePreparedGrainData(m_grain), CIOError, 3,
                         "Prepared grain write exceeds VMDK disk size.",
                         {{"mainFileURI", path("disk.vmdk")},
                          {"position", toDecimal(position)},
                          {"grainSize", "65536"},
                          {"diskSize", "8388608"}});
        EXPECT_EQ(disk->getPosition(), position);
    }
}

TEST_F(CVMDKDiskPreparedGrainsTest, PartialLastGrainIsPastTheEnd) {
    putExtent("a.vmdk", 2);
    putSplitDescriptor({"RW 200 SPARSE \"a.vmdk\""});
    const P<CVMDKDisk> disk = open();
    disk->seek(grainBytes);
    EXPECT_THROW(disk->readPreparedGrainData(m_data), CIOError);
    EXPECT_LUM_ERROR(disk->writePreparedGrainData(m_grain), CIOError, 3,
                     "Prepared grain write exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")},
                      {"position", "65536"},
                      {"grainSize", "65536"},
                      {"diskSize", "102400"}});
    const Bytes data = randomBytes(1, 72 * 512);
    writeAt(*disk, grainBytes, data);
    EXPECT_EQ(readAt(*disk, grainBytes, 72 * 512), data);
}

TEST_F(CVMDKDiskPreparedGrainsTest, WriteNeedsWriteAccessButLooksAtSizeAndBoundaryFirst) {
    create();
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_LUM_ERROR(disk->writePreparedGrainData(m_grain), CError, -1, notForWriting);
    disk->seek(1);
    EXPECT_LUM_ERROR(disk->writePreparedGrainData(m_grain), CIOError, 11,
                     "Prepared grain write in VMDK disk can only be done on a grain boundary.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "1"}, {"grainSize", "65536"}});
    disk->seek(8 * MiB);
    EXPECT_LUM_ERROR(disk->writePreparedGrainData(m_grain), CIOError, 3,
                     "Prepared grain write exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")},
                      {"position", "8388608"},
                      {"grainSize", "65536"},
                      {"diskSize", "8388608"}});
}

TEST_F(CVMDKDiskPreparedGrainsTest, GrainThatCrossesAnExtentsEndIsRefused) {
    putCrossingDisk();
    const P<CVMDKDisk> disk = open();
    disk->readPreparedGrainData(m_data);
    EXPECT_EQ(disk->getPosition(), grainBytes);
    EXPECT_LUM_ERROR(disk->readPreparedGrainData(m_data), CError, -1, readCrosses,
                     {{"mainFileURI", path("disk.vmdk")},
                      {"position", "65536"},
                      {"grainSize", "65536"},
                      {"opBytes", "36864"},
                      {"diskSize", "233472"}});
    EXPECT_LUM_ERROR(disk->writePreparedGrainData(m_grain), CError, -1, writeCrosses,
                     {{"mainFileURI", path("disk.vmdk")},
                      {"position", "65536"},
                      {"grainSize", "65536"},
                      {"opBytes", "36864"},
                      {"diskSize", "233472"}});
    EXPECT_EQ(disk->getPosition(), grainBytes);
    EXPECT_LUM_ERROR(disk->makeGrainIndependentOfParent(1), CError, -1, writeCrosses,
                     {{"mainFileURI", path("disk.vmdk")},
                      {"position", "65536"},
                      {"grainSize", "65536"},
                      {"opBytes", "36864"},
                      {"diskSize", "233472"}});
}

TEST_F(CVMDKDiskPreparedGrainsTest, DataThatAreNoGrainChangeNothing) {
    const P<CVMDKDisk> disk = create();
    const Bytes data = randomBytes(1, grainBytes);
    writeAt(*disk, grainBytes, data);
    for (const int64 size : {int64{0}, int64{1}, grainBytes - 512, grainBytes + 512}) {
        disk->seek(grainBytes);
        EXPECT_THROW(disk->writePreparedGrainData(TBuffer<unsigned char>(size)), CInvalidArgError) << size;
        EXPECT_EQ(disk->getPosition(), grainBytes);
        EXPECT_EQ(readAt(*disk, grainBytes, grainBytes), data);
    }
}

TEST_F(CVMDKDiskPreparedGrainsTest, RecordsThatAreNoneChangeNothing) {
    const P<CVMDKDisk> disk = create({.compressed = true});
    const Bytes data = randomBytes(1, grainBytes);
    writeAt(*disk, grainBytes, data);
    disk->seek(grainBytes);
    TBuffer<unsigned char> tooLongField;
    disk->readPreparedGrainData(tooLongField);
    tooLongField[8] = 0xFF;
    tooLongField[10] = 0xFF;
    for (const TBuffer<unsigned char>& record : {TBuffer<unsigned char>(), TBuffer<unsigned char>(11),
                                                 TBuffer<unsigned char>(2 * grainBytes), tooLongField}) {
        disk->seek(grainBytes);
        EXPECT_THROW(disk->writePreparedGrainData(record), CInvalidArgError) << record.getUsed();
        EXPECT_EQ(readAt(*disk, grainBytes, grainBytes), data);
    }
}

TEST_F(CVMDKDiskPreparedGrainsTest, RefusedDataOfAFreshDiskLeaveItsFilesAsTheyAre) {
    for (const bool compressed : {false, true}) {
        create({.compressed = compressed, .limit = compressed ? 11 * MiB : 3 * MiB, .onDemand = true});
        const std::vector<std::string> names = listFiles();
        const String descriptor = descriptorText();
        {
            const P<CVMDKDisk> disk = open();
            const unsigned int contentID = disk->getDescriptor()->getContentID();
            for (const int64 grain :
                 {int64{0}, int64{100}}) // of an extent that is there, and one that is not
                for (const int64 size : {int64{0}, int64{11}, 3 * grainBytes}) {
                    disk->seek(grain * grainBytes);
                    EXPECT_THROW(disk->writePreparedGrainData(TBuffer<unsigned char>(size)),
                                 CInvalidArgError);
                    EXPECT_EQ(disk->getPosition(), grain * grainBytes);
                }
            EXPECT_EQ(disk->getDescriptor()->getContentID(), contentID);
        }
        EXPECT_EQ(descriptorText(), descriptor);
        EXPECT_EQ(listFiles(), names);
        const P<CVMDKDisk> readOnly = openForReading();
        EXPECT_LUM_ERROR(readOnly->writePreparedGrainData(TBuffer<unsigned char>(11)), CError, -1,
                         notForWriting);
    }
}

// --- What comes through ---

INSTANTIATE_TEST_SUITE_P(All, CVMDKDiskPreparedGrainsByKindTest, ::testing::ValuesIn(kinds),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(CVMDKDiskPreparedGrainsByKindTest, AreTheGrainsInTheDisksOwnForm) {
    const P<CVMDKDisk> disk = createOfKind();
    Bytes model = zeroBytes(8 * MiB);
    const Bytes text(3 * grainSize, 'x');
    std::copy(text.begin(), text.end(), model.begin() + 50 * grainSize);
    writeAt(*disk, 50 * grainBytes, text);
    disk->seek(0);
    for (int grain = 0; grain < 128; ++grain) {
        disk->readPreparedGrainData(m_data);
        EXPECT_EQ(disk->getPosition(), (grain + 1) * grainBytes);
        EXPECT_EQ(m_data.getUsed() < grainBytes, GetParam().compressed);
        EXPECT_EQ(unprepare(*disk, m_data),
                  Bytes(model.begin() + grain * grainSize, model.begin() + (grain + 1) * grainSize));
    }
}

TEST_P(CVMDKDiskPreparedGrainsByKindTest, CopyADiskToAnotherOfItsKind) {
    const Bytes model = [] {
        Bytes bytes = randomBytes(7, 8 * MiB);
        std::fill(bytes.begin() + 20 * grainSize, bytes.begin() + 70 * grainSize, 'y');
        return bytes;
    }();
    {
        const P<CVMDKDisk> source = createOfKind("source.vmdk");
        writeAt(*source, 0, model);
        const P<CVMDKDisk> target = createOfKind();
        source->seek(0);
        for (int grain = 0; grain < 128; ++grain) {
            source->readPreparedGrainData(m_data);
            target->writePreparedGrainData(m_data);
        }
        EXPECT_EQ(target->getPosition(), 8 * MiB);
        EXPECT_EQ(readAll(*target), model);
    }
    EXPECT_EQ(readAll(*openOfKind(forReading)), model);
}

TEST_P(CVMDKDiskPreparedGrainsByKindTest, GrainsOfAPreparerArePutWhereverThePositionIs) {
    const P<CVMDKDisk> disk = createOfKind();
    const P<CVMDKDataPreparer> preparer = disk->createDataPreparer();
    const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
    for (const int grain : {127, 0, 64, 63}) {
        const Bytes data = randomBytes(static_cast<unsigned>(grain), grainBytes);
        const P<TBuffer<unsigned char>> source(new TBuffer<unsigned char>(data.data(), grainBytes));
        disk->seek(grain * grainBytes);
        disk->writePreparedGrainData(*preparer->prepareGrainData(source.get(), 5, aux.get()));
        EXPECT_EQ(readAt(*disk, grain * grainBytes, grainBytes), data);
    }
}

TEST_P(CVMDKDiskPreparedGrainsByKindTest, TakeTurnsWithBytes) {
    const P<CVMDKDisk> disk = createOfKind();
    const Bytes a = randomBytes(1, grainBytes);
    writeAt(*disk, 0, a);
    disk->seek(0);
    disk->readPreparedGrainData(m_data);
    const Bytes small = randomBytes(3, 100);
    disk->write(small.data(), 100); // behind the prepared grain
    disk->seek(2 * grainBytes);
    disk->writePreparedGrainData(m_data);
    EXPECT_EQ(readAt(*disk, 0, grainBytes), a);
    EXPECT_EQ(readAt(*disk, grainBytes, 100), small);
    EXPECT_EQ(readAt(*disk, 2 * grainBytes, grainBytes), a);
}

namespace {

/// What a transfer of two grains in a row must not do: hit the first again.
void swapTwoGrains(CVMDKDisk& disk, int first) {
    TBuffer<unsigned char> a;
    TBuffer<unsigned char> b;
    disk.seek(first * grainBytes);
    disk.readPreparedGrainData(a);
    disk.readPreparedGrainData(b);
    disk.seek(first * grainBytes);
    disk.writePreparedGrainData(b);
    disk.writePreparedGrainData(a);
}

} // namespace

TEST_P(CVMDKDiskPreparedGrainsByKindTest, TwoInARowAreTwoGrains) {
    const P<CVMDKDisk> disk = createOfKind();
    const Bytes a = randomBytes(1, grainBytes);
    const Bytes b = randomBytes(2, grainBytes);
    for (const int first : {0, 47, 126}) { // 47 and 48 lie in two extents where the plain disk is split
        writeAt(*disk, first * grainBytes, a);
        writeAt(*disk, (first + 1) * grainBytes, b);
        swapTwoGrains(*disk, first);
        EXPECT_EQ(readAt(*disk, first * grainBytes, grainBytes), b);
        EXPECT_EQ(readAt(*disk, (first + 1) * grainBytes, grainBytes), a);
    }
}

// --- Grains independent of the parent ---

TEST_F(CVMDKDiskPreparedGrainsTest, MakingIndependentNeedsWriteAccess) {
    create();
    const P<CVMDKDisk> disk = openForReading();
    for (const int64 grain : {int64{0}, int64{-1}, int64{128}})
        EXPECT_LUM_ERROR(disk->makeGrainIndependentOfParent(grain), CError, -1,
                         "Internal error: CVMDKDisk::makeGrainIndependentOfParent was called, but the disk "
                         "was not opened for writing.");
}

TEST_F(CVMDKDiskPreparedGrainsTest, MakingIndependentFailsOutsideTheDisk) {
    const P<CVMDKDisk> disk = create();
    const struct {
        int64 grain;
        const char* position;
    } rows[] = {
        {-1, "-65536"},
        {129, "8454144"},
        {INT64_MAX / 65536, "9223372036854710272"},
        {INT64_MAX, "9223372036854710272"}, // no further than 64 bits reach
        {INT64_MIN, "-9223372036854710272"},
    };
    for (const auto& row : rows)
        EXPECT_LUM_ERROR(disk->makeGrainIndependentOfParent(row.grain), CIOError, 7,
                         String("Bad seek position in VMDK disk: ") + row.position,
                         {{"mainFileURI", path("disk.vmdk")}, {"diskSize", "8388608"}});
    EXPECT_LUM_ERROR(disk->makeGrainIndependentOfParent(128), CError, -1,
                     "Internal error: cannot find VMDK extent for position 8388608",
                     {{"mainURI", path("disk.vmdk")}});
}

TEST_F(CVMDKDiskPreparedGrainsTest, WithoutAParentThereIsNothingToMakeIndependent) {
    const P<CVMDKDisk> disk = create();
    const Bytes data = randomBytes(1, 512);
    writeAt(*disk, 3 * grainBytes, data);
    for (const int64 grain : {0, 3, 127}) {
        EXPECT_EQ(disk->makeGrainIndependentOfParent(grain), 0);
        EXPECT_EQ(disk->getPosition(), (grain + 1) * grainBytes);
    }
    EXPECT_EQ(readAt(*disk, 3 * grainBytes, 512), data);
    EXPECT_EQ(readAt(*disk, 0, 512), zeroBytes(512));
}

TEST_F(CVMDKDiskPreparedGrainsTest, PreparerIsOfTheDisksForm) {
    putExtent("a.vmdk", 2, 16, true);
    putSplitDescriptor({"RW 32 SPARSE \"a.vmdk\""});
    const P<CVMDKDataPreparer> preparer = openForReading()->createDataPreparer();
    EXPECT_TRUE(preparer->doesAnything());
    EXPECT_GE(preparer->getWorstCaseGrainSizeSectors(), 17);
    EXPECT_LT(preparer->getWorstCaseGrainSizeSectors(), 20);
    EXPECT_FALSE(create({}, "plain.vmdk")->createDataPreparer()->doesAnything());
}
