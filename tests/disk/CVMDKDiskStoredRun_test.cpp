// Where runs of a disk are stored.

#include "DiskTest.h"
#include "tessel/CVMDKSpaceInfo.h"

using namespace tessel;
using namespace tessel::test;

namespace {

constexpr int nowhere = UVMDKGrainRun::nowhere;

class CVMDKDiskStoredRunTest : public DiskTest {
protected:
    P<CVMDKDisk> createChild(const String& name, const String& parent, DiskOptions options = {}) {
        options.parentPath = parent;
        options.parentID = openForReading(parent)->getDescriptor()->getContentID();
        return create(options, name);
    }
    static void writeGrain(CVMDKDisk& disk, int64 grain) {
        writeAt(disk, grain * grainBytes, randomBytes(static_cast<unsigned>(grain), grainBytes));
    }
    /// The bytes of a file where a run says that they are.
    Bytes bytesOf(const UVMDKStoredRun& run) const {
        const std::string file = getFile(run.file.getName());
        const auto first = file.begin() + static_cast<std::ptrdiff_t>(run.filePosition);
        return Bytes(first, first + static_cast<std::ptrdiff_t>(run.sizeBytes));
    }
};

} // namespace

TEST_F(CVMDKDiskStoredRunTest, WhatIsNowhereHasNoPlace) {
    const UVMDKStoredRun run = create()->findStoredRun(5);
    EXPECT_EQ(run.position, 5);
    EXPECT_EQ(run.sizeBytes, 8 * MiB - 5);
    EXPECT_EQ(run.layer, nowhere);
    EXPECT_TRUE(run.file.isEmpty());
    EXPECT_EQ(run.filePosition, -1);
    EXPECT_EQ(run.storedBytes, 0);
}

TEST_F(CVMDKDiskStoredRunTest, PlainBytesAreWhereTheRunSays) {
    P<CVMDKDisk> disk = create();
    for (const int64 grain : {3, 4, 5})
        writeGrain(*disk, grain);
    disk = nullptr;
    disk = openForReading();
    for (const int64 position : {3 * grainBytes, 3 * grainBytes + 700, 5 * grainBytes + 1}) {
        const UVMDKStoredRun run = disk->findStoredRun(position);
        EXPECT_EQ(run.layer, 0);
        EXPECT_EQ(run.position, position);
        EXPECT_EQ(run.sizeBytes, 6 * grainBytes - position);
        EXPECT_EQ(run.storedBytes, run.sizeBytes);
        EXPECT_EQ(run.file, uri("disk.vmdk"));
        EXPECT_FALSE(run.isCompressed);
        EXPECT_FALSE(run.isEncrypted);
        EXPECT_EQ(bytesOf(run), readAt(*disk, position, run.sizeBytes));
    }
}

TEST_F(CVMDKDiskStoredRunTest, PlainRunEndsWhereTheNextGrainIsElsewhere) {
    P<CVMDKDisk> disk = create();
    for (const int64 grain : {1, 0, 2}) {
        writeGrain(*disk, grain);
        disk->flushChanges();
    }
    const UVMDKStoredRun first = disk->findStoredRun(0);
    EXPECT_EQ(first.sizeBytes, grainBytes);
    const UVMDKStoredRun second = disk->findStoredRun(grainBytes);
    EXPECT_EQ(second.sizeBytes, grainBytes);
    EXPECT_EQ(first.filePosition, second.filePosition + grainBytes);
    EXPECT_EQ(disk->findStoredRun(2 * grainBytes).filePosition, first.filePosition + grainBytes);
}

TEST_F(CVMDKDiskStoredRunTest, CompressedRunTellsTheSizeOfItsSlotsAndNoPosition) {
    P<CVMDKDisk> disk = create({.compressed = true});
    writeAt(*disk, 2 * grainBytes, Bytes(4 * grainBytes, 'x'));
    writeGrain(*disk, 6);
    disk->flushChanges();
    const UVMDKStoredRun run = disk->findStoredRun(2 * grainBytes);
    EXPECT_EQ(run.sizeBytes, 5 * grainBytes);
    EXPECT_TRUE(run.isCompressed);
    EXPECT_EQ(run.filePosition, -1);
    EXPECT_EQ(run.storedBytes, disk->gatherSpaceInfo()->getPayloadSizeInFile());
    const UVMDKStoredRun small = disk->findStoredRun(2 * grainBytes + 1, grainBytes - 1);
    EXPECT_EQ(small.sizeBytes, grainBytes - 1);
    EXPECT_EQ(small.storedBytes, 512);
    EXPECT_EQ(disk->findStoredRun(3 * grainBytes - 1, 2).storedBytes, 1024);
}

TEST_F(CVMDKDiskStoredRunTest, LooksAtNoMoreThanIsAskedFor) {
    const P<CVMDKDisk> disk = create();
    writeAt(*disk, 0, randomBytes(1, 4 * grainBytes));
    EXPECT_EQ(disk->findStoredRun(grainBytes + 3, 5).sizeBytes, 5);
    EXPECT_EQ(disk->findStoredRun(grainBytes + 3, 2 * grainBytes).sizeBytes, 2 * grainBytes);
    EXPECT_EQ(disk->findStoredRun(5 * grainBytes, 100).sizeBytes, 100);
    EXPECT_EQ(disk->findStoredRun(0, INT64_MAX).sizeBytes, 4 * grainBytes);
}

TEST_F(CVMDKDiskStoredRunTest, NamesTheExtentOfTheLayerThatHoldsIt) {
    {
        const P<CVMDKDisk> base = create({.limit = 3 * MiB + 2 * 65536}, "base.vmdk");
        writeGrain(*base, 50);
        writeGrain(*base, 1);
    }
    createChild("child.vmdk", "base.vmdk");
    const P<CVMDKDisk> grandchild = createChild("grandchild.vmdk", "child.vmdk");
    writeGrain(*grandchild, 0);
    grandchild->seek(123);
    const UVMDKStoredRun own = grandchild->findStoredRun(0);
    EXPECT_EQ(own.layer, 0);
    EXPECT_EQ(own.file, uri("grandchild.vmdk"));
    for (const int64 grain : {1, 50}) {
        const UVMDKStoredRun run = grandchild->findStoredRun(grain * grainBytes);
        EXPECT_EQ(run.layer, 2);
        EXPECT_EQ(run.sizeBytes, grainBytes);
        EXPECT_EQ(run.file, uri(grain == 1 ? "base-s00000.vmdk" : "base-s00001.vmdk"));
        EXPECT_EQ(bytesOf(run), randomBytes(static_cast<unsigned>(grain), grainBytes));
    }
    EXPECT_EQ(grandchild->getPosition(), 123);
}

TEST_F(CVMDKDiskStoredRunTest, CipheredBytesAreMarked) {
    const P<CVMDKDisk> disk = create({.password = "pw"});
    writeGrain(*disk, 0);
    disk->flushChanges();
    const UVMDKStoredRun run = disk->findStoredRun(0);
    EXPECT_TRUE(run.isEncrypted);
    EXPECT_NE(bytesOf(run), randomBytes(0, grainBytes));
}

TEST_F(CVMDKDiskStoredRunTest, PositionStaysAfterAFailure) {
    P<CVMDKDisk> disk = create();
    writeGrain(*disk, 7);
    disk = nullptr;
    // The entry of grain 7 leads behind the file's end; every position of a grain stands in it once.
    std::string bytes = getFile("disk.vmdk");
    disk = openForReading();
    const auto sector = static_cast<unsigned>(disk->findStoredRun(7 * grainBytes).filePosition / 512);
    disk = nullptr;
    const std::string entry{static_cast<char>(sector & 0xFF), static_cast<char>(sector >> 8), 0, 0};
    int found = 0;
    for (std::size_t at = 0; at < sector * 512 && (at = bytes.find(entry, at)) != std::string::npos; at += 4)
        if (at % 4 == 0 && at > 1024 && at < sector * 512) {
            bytes[at + 2] = 1;
            ++found;
        }
    ASSERT_EQ(found, 2);
    putFile("disk.vmdk", bytes);
    disk = openForReading();
    disk->seek(5);
    EXPECT_THROW(disk->findStoredRun(7 * grainBytes), CIOError);
    EXPECT_EQ(disk->getPosition(), 5);
    EXPECT_THROW(disk->findStoredRun(8 * MiB), CIOError);
}
