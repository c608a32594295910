// The compression level reaches whatever compresses for a disk.

#include "DiskTest.h"
#include "tessel/CVMDKDiskIOStream.h"

using namespace tessel;
using namespace tessel::test;

namespace {

/// Text whose stored size tells the levels apart.
Bytes makeText() {
    std::mt19937 random(1);
    Bytes text(static_cast<std::size_t>(grainBytes));
    std::string word;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (i % 8 == 0)
            word = std::to_string(random() % 500) + "       ";
        text[i] = static_cast<unsigned char>(word[i % 8]);
    }
    return text;
}

class CVMDKDiskLevelsTest : public DiskTest {
protected:
    P<CVMDKDisk> openAt(int level, const String& name = "disk.vmdk") {
        return new CVMDKDisk(files(), uri(name), forWriting, "", level, nullptr, nullptr);
    }
    /// What the text takes that is written to a new grain.
    static int64 sizeOfWritten(CVMDKDisk& disk, int64 position = 0) {
        const int64 before = disk.gatherSpaceInfo()->getPayloadSizeInFile();
        writeAt(disk, position, makeText());
        return disk.gatherSpaceInfo()->getPayloadSizeInFile() - before;
    }
    static int64 roundUpToSector(int64 size) { return (size + 511) / 512 * 512; }
    /// What a compressor of this level makes of the text, in whole sectors.
    static int64 expectedSize(int level) {
        CVMDKDataPreparer preparer(128, true, level);
        const Bytes text = makeText();
        const P<TBuffer<unsigned char>> source(new TBuffer<unsigned char>(text.data(), grainBytes));
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        return roundUpToSector(preparer.prepareGrainData(source.get(), 0, aux.get())->getUsed());
    }
};

} // namespace

TEST_F(CVMDKDiskLevelsTest, StoredSizesTellThemApart) {
    EXPECT_GT(expectedSize(0), grainBytes);
    EXPECT_LT(expectedSize(1), expectedSize(0));
    EXPECT_LT(expectedSize(9), expectedSize(1));
}

TEST_F(CVMDKDiskLevelsTest, NewDiskIsOpenAtTheLevelItIsMadeWith) {
    for (const int level : {0, 1, 9})
        EXPECT_EQ(sizeOfWritten(*create({.compressed = true, .level = level})), expectedSize(level)) << level;
}

TEST_F(CVMDKDiskLevelsTest, LevelOfOpeningReachesExtentsAndPreparers) {
    for (const int level : {0, 1, 9}) {
        create({.compressed = true, .level = 5});
        const P<CVMDKDisk> disk = openAt(level);
        EXPECT_EQ(sizeOfWritten(*disk), expectedSize(level)) << level;
        const Bytes text = makeText();
        const P<TBuffer<unsigned char>> source(new TBuffer<unsigned char>(text.data(), grainBytes));
        const P<TBuffer<unsigned char>> aux(new TBuffer<unsigned char>);
        EXPECT_EQ(roundUpToSector(
                      disk->createDataPreparer()->prepareGrainData(source.get(), 0, aux.get())->getUsed()),
                  expectedSize(level));
    }
}

TEST_F(CVMDKDiskLevelsTest, LevelReachesExtentsThatAreMadeOnDemand) {
    for (const int level : {0, 1, 9}) {
        create({.compressed = true, .limit = 11 * MiB, .onDemand = true});
        const P<CVMDKDisk> disk = openAt(level);
        ASSERT_FALSE(exists("disk-s00001.vmdk"));
        EXPECT_EQ(sizeOfWritten(*disk, 4 * MiB), expectedSize(level)) << level;
        ASSERT_TRUE(exists("disk-s00001.vmdk"));
        m_memory->deleteFile(uri("disk-s00001.vmdk"), false);
    }
}

TEST_F(CVMDKDiskLevelsTest, LevelReachesParents) {
    const unsigned int id = create({.compressed = true}, "parent.vmdk")->getDescriptor()->getContentID();
    create({.compressed = true, .parentPath = "parent.vmdk", .parentID = id});
    const auto sizeOfZeros = [&](int level) {
        TBuffer<unsigned char> prepared;
        openAt(level)->readPreparedGrainData(prepared); // of a grain that the parent makes up
        return prepared.getUsed();
    };
    EXPECT_GT(sizeOfZeros(0), grainBytes);
    EXPECT_LT(sizeOfZeros(9), 1024);
}

TEST_F(CVMDKDiskLevelsTest, StreamThatOpensADiskHasTheFastestLevel) {
    create({.compressed = true, .level = 9});
    {
        const P<CVMDKDiskIOStream> stream(new CVMDKDiskIOStream(files(), uri("disk.vmdk"), forWriting, ""));
        stream->write(makeText().data(), grainSize);
        stream->flush();
    }
    EXPECT_EQ(openForReading()->gatherSpaceInfo()->getPayloadSizeInFile(), expectedSize(1));
}
