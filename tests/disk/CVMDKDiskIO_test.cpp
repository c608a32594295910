// Bytes and grains of an open disk, and what is asked of a disk that cannot.

#include "CEventFileSystem.h"
#include "CFaultFileSystem.h"
#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const char* const notForWriting =
    "Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.";

class CVMDKDiskIOTest : public DiskTest {
protected:
    P<CEventFileSystem> record() {
        const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
        m_files = recorder;
        return recorder;
    }
    P<CFaultFileSystem> injectFaults() {
        const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
        m_files = faults;
        return faults;
    }
    static void read(CVMDKDisk& disk, int size) {
        Bytes buffer(static_cast<std::size_t>(size));
        disk.read(buffer.data(), size);
    }
    static void write(CVMDKDisk& disk, int size) {
        const Bytes buffer(static_cast<std::size_t>(size));
        disk.write(buffer.data(), size);
    }
};

/// Extents of 3 MiB and a last one of 2 MiB.
DiskOptions splitOptions() {
    return {.limit = 3 * MiB + 2 * 65536};
}

} // namespace

// --- Position ---

TEST_F(CVMDKDiskIOTest, SeeksToEveryPositionOfTheDiskAndItsEnd) {
    create();
    const P<CVMDKDisk> disk = openForReading();
    for (const int64 position : {int64{0}, int64{1}, 8 * MiB - 1, 8 * MiB}) {
        disk->seek(position);
        EXPECT_EQ(disk->getPosition(), position);
    }
    disk->seek(77);
    for (const int64 position : {8 * MiB + 1, int64{-1}, INT64_MAX, INT64_MIN})
        EXPECT_LUM_ERROR(disk->seek(position), CIOError, 7,
                         "Bad seek position in VMDK disk: " + toDecimal(position),
                         {{"mainFileURI", path("disk.vmdk")}, {"diskSize", "8388608"}});
    EXPECT_EQ(disk->getPosition(), 77);
}

TEST_F(CVMDKDiskIOTest, SeekTouchesNoFile) {
    create(splitOptions());
    const P<CEventFileSystem> recorder = record();
    const P<CVMDKDisk> disk = openForReading();
    recorder->takeEvents();
    disk->seek(7 * MiB);
    EXPECT_THAT(recorder->takeEvents(), IsEmpty());
}

// --- Reading ---

TEST_F(CVMDKDiskIOTest, ReadOfNothingAtTheEndOpensNoExtent) {
    create();
    const P<CEventFileSystem> recorder = record();
    const P<CVMDKDisk> disk = openForReading();
    recorder->takeEvents();
    disk->seek(8 * MiB);
    disk->read(nullptr, 0);
    EXPECT_EQ(disk->getPosition(), 8 * MiB);
    EXPECT_THAT(recorder->takeEvents(), IsEmpty());
}

TEST_F(CVMDKDiskIOTest, ReadPastTheEndFails) {
    create();
    const P<CVMDKDisk> disk = openForReading();
    disk->seek(8 * MiB);
    EXPECT_LUM_ERROR(read(*disk, 1), CIOError, 4, "Read exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "8388608"}, {"bytesToRead", "1"}});
    disk->seek(8 * MiB - 40);
    EXPECT_LUM_ERROR(read(*disk, 100), CIOError, 4, "Read exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "8388568"}, {"bytesToRead", "100"}});
    EXPECT_EQ(disk->getPosition(), 8 * MiB - 40);
    read(*disk, 40);
    EXPECT_EQ(disk->getPosition(), 8 * MiB);
}

TEST_F(CVMDKDiskIOTest, ReadAcrossExtentsTakesTheBytesOfBothAndLeavesTheSecondOpen) {
    const Bytes data = randomBytes(1, 8 * MiB);
    writeAt(*create(splitOptions()), 0, data);
    const P<CEventFileSystem> recorder = record();
    const P<CVMDKDisk> disk = openForReading();
    recorder->takeEvents();
    const Bytes bytes = readAt(*disk, 3 * MiB - 1000, 2000);
    EXPECT_EQ(bytes, Bytes(data.begin() + 3 * MiB - 1000, data.begin() + 3 * MiB + 1000));
    EXPECT_EQ(disk->getPosition(), 3 * MiB + 1000);
    EXPECT_THAT(recorder->getOpenFiles(), ElementsAre("disk.vmdk.lock", "disk-s00001.vmdk"));
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("open disk-s00000.vmdk", "close disk-s00000.vmdk", "open disk-s00001.vmdk"));
}

TEST_F(CVMDKDiskIOTest, ReadFromTheLastByteOfAnExtentStaysInIt) {
    create(splitOptions());
    const P<CEventFileSystem> recorder = record();
    const P<CVMDKDisk> disk = openForReading();
    recorder->takeEvents();
    readAt(*disk, 3 * MiB - 1, 1);
    readAt(*disk, 0, 1);
    EXPECT_THAT(recorder->takeOpeningEvents(), ElementsAre("open disk-s00000.vmdk"));
    readAt(*disk, 3 * MiB, 1);
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("close disk-s00000.vmdk", "open disk-s00001.vmdk"));
}

TEST_F(CVMDKDiskIOTest, PositionTellsHowFarAFailedReadCame) {
    writeAt(*create(splitOptions()), 0, randomBytes(1, 8 * MiB));
    const P<CFaultFileSystem> faults = injectFaults();
    const P<CVMDKDisk> disk = openForReading();
    faults->addRule({.operation = FaultRule::Open, .fileSuffix = "-s00001.vmdk"});
    disk->seek(3 * MiB - 1000);
    EXPECT_FILE_SYSTEM_ERROR(read(*disk, 2000), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", path("disk-s00001.vmdk")}});
    EXPECT_EQ(disk->getPosition(), 3 * MiB);
    EXPECT_THAT(takeLog(),
                ElementsAre(CLogRecorder::Entry{ILogSink::Level_Error,
                                                "Error opening VMDK extent file on demand (path: "
                                                "'memory:/folder/disk-s00001.vmdk'). Letting exception "
                                                "through.",
                                                "Cannot open file: Injected fault", ""}));
    EXPECT_NO_THROW(read(*disk, 1000));
}

// --- Writing ---

TEST_F(CVMDKDiskIOTest, WritesAcrossExtents) {
    Bytes model = zeroBytes(8 * MiB);
    {
        const P<CVMDKDisk> disk = create(splitOptions());
        const Bytes data = randomBytes(2, 4 * MiB);
        writeAt(*disk, 2 * MiB + 13, data);
        std::copy(data.begin(), data.end(), model.begin() + 2 * MiB + 13);
        EXPECT_EQ(disk->getPosition(), 6 * MiB + 13);
        EXPECT_EQ(readAll(*disk), model);
    }
    EXPECT_EQ(readAll(*openForReading()), model);
}

TEST_F(CVMDKDiskIOTest, EveryExtentIsFlushedBeforeTheNextIsOpened) {
    const P<CEventFileSystem> recorder = record();
    const P<CVMDKDisk> disk = create(splitOptions());
    writeAt(*disk, 0, randomBytes(1, 100));
    recorder->takeEvents();
    writeAt(*disk, 3 * MiB, randomBytes(1, 100));
    const std::vector<std::string> events = recorder->takeEvents();
    const auto at = [&](const char* event) {
        const auto found = std::find(events.begin(), events.end(), event);
        EXPECT_NE(found, events.end()) << event;
        return found;
    };
    EXPECT_LT(at("write disk-s00000.vmdk"), at("flush disk-s00000.vmdk"));
    EXPECT_LT(at("flush disk-s00000.vmdk"), at("close disk-s00000.vmdk"));
    EXPECT_LT(at("close disk-s00000.vmdk"), at("open+ disk-s00001.vmdk"));
}

TEST_F(CVMDKDiskIOTest, TransferThatFailsWithinAnExtentStandsWhereItsPieceBegan) {
    const Bytes old = randomBytes(1, 8 * MiB);
    writeAt(*create(splitOptions()), 0, old);
    const Bytes fresh = randomBytes(2, 8 * MiB);
    for (const bool isWrite : {false, true}) {
        const P<CFaultFileSystem> faults = injectFaults();
        P<CVMDKDisk> disk = open();
        disk->setContentIDUpdatesEnabled(false);
        // In the middle of the second extent: several of its grains are moved before.
        faults->addRule({.operation = isWrite ? FaultRule::Write : FaultRule::Read,
                         .fileSuffix = "-s00001.vmdk",
                         .rangeStart = 2 * MiB,
                         .rangeEnd = 2 * MiB + 1,
                         .always = true});
        Bytes data = fresh;
        disk->seek(1 * MiB);
        const auto size = static_cast<int>(6 * MiB);
        EXPECT_THROW(isWrite ? disk->write(data.data(), size) : disk->read(data.data(), size), CIOError);
        EXPECT_EQ(disk->getPosition(), 3 * MiB) << "the first extent's piece was moved";
        faults->clearRules();
        try { // the stream tells of a failed write once more
            disk->flushChanges();
        } catch (const CIOError&) {
        }
        if (!isWrite) {
            EXPECT_TRUE(std::equal(data.begin(), data.begin() + 2 * MiB, old.begin() + 1 * MiB));
            EXPECT_EQ(readAt(*disk, 3 * MiB, 1000),
                      Bytes(old.begin() + 3 * MiB, old.begin() + 3 * MiB + 1000))
                << "the extent is put where the disk stands";
            continue;
        }
        EXPECT_EQ(readAt(*disk, 1 * MiB, 2 * MiB), Bytes(fresh.begin(), fresh.begin() + 2 * MiB));
        EXPECT_EQ(readAt(*disk, 7 * MiB, 1 * MiB), Bytes(old.begin() + 7 * MiB, old.end()));
        disk->seek(3 * MiB);
        disk->write(fresh.data() + 2 * MiB, static_cast<int>(4 * MiB));
        EXPECT_EQ(readAt(*disk, 1 * MiB, 6 * MiB), Bytes(fresh.begin(), fresh.begin() + 6 * MiB));
    }
}

TEST_F(CVMDKDiskIOTest, WritePastTheEndFails) {
    const P<CVMDKDisk> disk = create();
    disk->seek(8 * MiB - 40);
    EXPECT_LUM_ERROR(write(*disk, 100), CIOError, 3, "Write exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "8388568"}, {"bytesToWrite", "100"}});
    EXPECT_EQ(disk->getPosition(), 8 * MiB - 40);
    disk->seek(8 * MiB);
    EXPECT_NO_THROW(write(*disk, 0));
    EXPECT_THROW(write(*disk, 1), CIOError);
}

TEST_F(CVMDKDiskIOTest, WriteOnADiskForReadingFailsByItsSizeFirst) {
    create();
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_LUM_ERROR(write(*disk, 10), CError, -1, notForWriting);
    EXPECT_LUM_ERROR(write(*disk, 0), CError, -1, notForWriting);
    disk->seek(8 * MiB - 5);
    EXPECT_LUM_ERROR(write(*disk, 10), CIOError, 3, "Write exceeds VMDK disk size.",
                     {{"mainFileURI", path("disk.vmdk")}, {"position", "8388603"}, {"bytesToWrite", "10"}});
}

TEST_F(CVMDKDiskIOTest, FailureToLeaveAnExtentIsSeenAndCanBeTriedAgain) {
    const P<CFaultFileSystem> faults = injectFaults();
    Bytes data = randomBytes(1, 100);
    {
        const P<CVMDKDisk> disk = create(splitOptions());
        writeAt(*disk, 0, data);
        faults->addRule({.operation = FaultRule::Write, .fileSuffix = "-s00000.vmdk"});
        disk->seek(3 * MiB);
        EXPECT_THROW(write(*disk, 100), CIOError);
        EXPECT_EQ(disk->getPosition(), 3 * MiB);
        faults->clearRules();
        try { // the stream tells of the failed write once more
            disk->flushChanges();
        } catch (const CIOError&) {
        }
        write(*disk, 100);
    }
    EXPECT_EQ(readAt(*openForReading(), 0, 100), data);
}

TEST_F(CVMDKDiskIOTest, FlushMakesChangesVisibleInTheFile) {
    const P<CVMDKDisk> disk = create();
    const Bytes data = randomBytes(1, 1000);
    writeAt(*disk, 5000, data);
    disk->flushChanges();
    putFile("copy.vmdk", getFile("disk.vmdk"));
    EXPECT_EQ(readAt(*openForReading("copy.vmdk"), 5000, 1000), data);
    takeLog(); // the copy's descriptor names the original
}

TEST_F(CVMDKDiskIOTest, FlushOfADiskForReadingTouchesNoFile) {
    create();
    const P<CEventFileSystem> recorder = record();
    const P<CVMDKDisk> disk = openForReading();
    disk->flushChanges();
    readAt(*disk, 0, 1);
    recorder->takeEvents();
    disk->flushChanges();
    EXPECT_THAT(recorder->takeEvents(), IsEmpty());
}

// --- Content ID ---

TEST_F(CVMDKDiskIOTest, FirstChangeGivesANewContentID) {
    create(splitOptions());
    P<CVMDKDisk> disk = open();
    const unsigned int oldID = disk->getDescriptor()->getContentID();
    readAt(*disk, 0, 512);
    disk->flushChanges();
    EXPECT_EQ(disk->getDescriptor()->getContentID(), oldID);
    writeAt(*disk, 4 * MiB, randomBytes(1, 1));
    const unsigned int newID = disk->getDescriptor()->getContentID();
    EXPECT_NE(newID, oldID);
    writeAt(*disk, 0, randomBytes(1, 1));
    EXPECT_EQ(disk->getDescriptor()->getContentID(), newID);
    disk = nullptr;
    EXPECT_EQ(openForReading()->getDescriptor()->getContentID(), newID);
}

TEST_F(CVMDKDiskIOTest, ContentIDStaysWhileUpdatesAreDisabled) {
    create();
    const P<CVMDKDisk> disk = open();
    const unsigned int oldID = disk->getDescriptor()->getContentID();
    disk->setContentIDUpdatesEnabled(false);
    writeAt(*disk, 0, randomBytes(1, 1));
    EXPECT_EQ(disk->getDescriptor()->getContentID(), oldID);
    disk->setContentIDUpdatesEnabled(true);
    writeAt(*disk, 0, randomBytes(1, 1));
    EXPECT_NE(disk->getDescriptor()->getContentID(), oldID);
}

// --- Grain tables ---

TEST_F(CVMDKDiskIOTest, TablesStayInMemoryWhileTheyAreNotFlushedAutomatically) {
    create({.size = 3 * 512 * grainBytes});
    const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(1));
    const P<CVMDKDisk> disk(
        new CVMDKDisk(files(), uri("disk.vmdk"), forWriting, "", -1, cache.get(), nullptr));
    disk->setAutomaticGrainTableFlushingEnabled(false);
    for (int table = 0; table < 3; ++table)
        writeAt(*disk, table * 512 * grainBytes, randomBytes(1, 512));
    EXPECT_EQ(cache->getCachedTableCount(), 3);
    disk->setAutomaticGrainTableFlushingEnabled(true);
    EXPECT_EQ(cache->getCachedTableCount(), 1);
    for (int table = 0; table < 3; ++table)
        EXPECT_EQ(readAt(*disk, table * 512 * grainBytes, 512), randomBytes(1, 512));
}

TEST_F(CVMDKDiskIOTest, TablesThatCannotBeWrittenAreToldWhenTheyShallBeAgain) {
    create({.size = 3 * 512 * grainBytes});
    const P<CFaultFileSystem> faults = injectFaults();
    const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(1));
    P<CVMDKDisk> disk(new CVMDKDisk(files(), uri("disk.vmdk"), forWriting, "", -1, cache.get(), nullptr));
    disk->setAutomaticGrainTableFlushingEnabled(false);
    for (int table = 0; table < 3; ++table)
        writeAt(*disk, table * 512 * grainBytes, randomBytes(1, 512));
    faults->addRule({.operation = FaultRule::Write, .kind = FaultRule::FullDisk, .always = true});
    const auto error = catchError([&] { disk->setAutomaticGrainTableFlushingEnabled(true); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->getCode(), 8);
    EXPECT_EQ(error->getMessage(), "Cannot write to file: Injected fault");
    EXPECT_EQ(cache->getCachedTableCount(), 3) << "nothing has changed";

    faults->clearRules();
    try { // the stream tells of the failed write once more
        disk->flushChanges();
    } catch (const CIOError&) {
    }
    disk->setAutomaticGrainTableFlushingEnabled(true);
    EXPECT_EQ(cache->getCachedTableCount(), 1);
    disk = nullptr;
    disk = openForReading();
    for (int table = 0; table < 3; ++table)
        EXPECT_EQ(readAt(*disk, table * 512 * grainBytes, 512), randomBytes(1, 512));
}

// --- Asking ---

TEST_F(CVMDKDiskIOTest, KnowsWhichGrainsAreWritten) {
    const P<CVMDKDisk> disk = create(splitOptions());
    writeAt(*disk, 5 * grainBytes - 1, randomBytes(1, 2));
    writeAt(*disk, 8 * MiB - 1, randomBytes(1, 1));
    std::vector<int> written;
    for (int grain = 0; grain < 128; ++grain) {
        disk->seek(grain * grainBytes + grain);
        if (disk->isGrainWritten())
            written.push_back(grain);
        EXPECT_EQ(disk->isGrainWrittenAndIndependentOfParent(), disk->isGrainWritten());
        EXPECT_EQ(disk->getPosition(), grain * grainBytes + grain);
    }
    EXPECT_THAT(written, ElementsAre(4, 5, 127));
}

TEST_F(CVMDKDiskIOTest, NoGrainLiesAtTheEnd) {
    create();
    const P<CVMDKDisk> disk = openForReading();
    readAt(*disk, 0, 1);
    disk->seek(8 * MiB);
    const char* const message = "Internal error: cannot find VMDK extent for position 8388608";
    EXPECT_LUM_ERROR(disk->isGrainWritten(), CError, -1, message, {{"mainURI", path("disk.vmdk")}});
    EXPECT_LUM_ERROR(disk->isGrainWrittenAndIndependentOfParent(), CError, -1, message,
                     {{"mainURI", path("disk.vmdk")}});
    EXPECT_EQ(readAt(*disk, 0, 1), zeroBytes(1));
}

TEST_F(CVMDKDiskIOTest, SpaceIsAddedUpOverAllExtentsAndThePositionStays) {
    const P<CVMDKDisk> disk = create(splitOptions());
    writeAt(*disk, 1 * MiB, randomBytes(1, grainBytes));
    writeAt(*disk, 4 * MiB - 1, randomBytes(1, 2));
    disk->seek(12345);
    const P<CVMDKSpaceInfo> space = disk->gatherSpaceInfo();
    EXPECT_EQ(disk->getPosition(), 12345);
    EXPECT_EQ(space->getPayloadSize(), 3 * grainBytes);
    EXPECT_EQ(space->getPayloadSizeInFile(), 3 * grainBytes);
    EXPECT_EQ(space->getHeaderSize(), 3 * grainBytes); // a grain's room before the slots of each extent
    EXPECT_EQ(space->getDeadSpaceSize(), 0);
}

TEST_F(CVMDKDiskIOTest, SpaceOfAnEmptyCompressedDiskHoldsTheTrailAsDeadSpace) {
    const P<CVMDKSpaceInfo> space = create({.compressed = true})->gatherSpaceInfo();
    EXPECT_EQ(space->getPayloadSize(), 0);
    EXPECT_EQ(space->getPayloadSizeInFile(), 0);
    EXPECT_EQ(space->getDeadSpaceSize(), 1536);
    EXPECT_EQ(space->getHeaderSize() + 1536, static_cast<int64>(getFile("disk.vmdk").size()));
}

TEST_F(CVMDKDiskIOTest, FailedSpaceInfoLeavesThePositionWhereItWas) {
    create(splitOptions());
    m_memory->deleteFile(uri("disk-s00002.vmdk"), false);
    const P<CVMDKDisk> disk = openForReading();
    disk->seek(5);
    EXPECT_THROW(disk->gatherSpaceInfo(), CFileSystemError);
    EXPECT_EQ(disk->getPosition(), 6 * MiB);
    EXPECT_EQ(takeLog().size(), 1U);
}

// --- Extents on demand ---

TEST_F(CVMDKDiskIOTest, MissingExtentOfAnOnDemandDiskIsServed) {
    DiskOptions options = splitOptions();
    options.onDemand = true;
    const Bytes data = randomBytes(1, 100);
    {
        const P<CVMDKDisk> disk = create(options);
        EXPECT_EQ(readAt(*disk, 4 * MiB, 100), zeroBytes(100));
        EXPECT_FALSE(disk->isGrainWritten());
        EXPECT_FALSE(exists("disk-s00001.vmdk"));
        writeAt(*disk, 4 * MiB, data);
        EXPECT_TRUE(exists("disk-s00001.vmdk"));
        EXPECT_FALSE(exists("disk-s00002.vmdk"));
    }
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_EQ(readAt(*disk, 4 * MiB, 100), data);
    EXPECT_EQ(readAt(*disk, 7 * MiB, 100), zeroBytes(100));
    EXPECT_FALSE(exists("disk-s00002.vmdk"));
}

TEST_F(CVMDKDiskIOTest, MissingExtentOfAnotherDiskIsAnErrorThatIsLogged) {
    create(splitOptions());
    m_memory->deleteFile(uri("disk-s00001.vmdk"), false);
    for (const auto access : {forReading, forWriting}) {
        const P<CVMDKDisk> disk = open(access);
        EXPECT_EQ(readAt(*disk, 0, 512), zeroBytes(512));
        for (int attempt = 0; attempt < 2; ++attempt) {
            disk->seek(4 * MiB);
            EXPECT_FILE_SYSTEM_ERROR(read(*disk, 1), CFileSystemError::Problem_NotFound,
                                     "Cannot open file: No such file or directory",
                                     {{"uri", path("disk-s00001.vmdk")}});
            EXPECT_THAT(takeLog(), ElementsAre(CLogRecorder::Entry{
                                       ILogSink::Level_Error,
                                       "Error opening VMDK extent file on demand (path: "
                                       "'memory:/folder/disk-s00001.vmdk'). Letting exception through.",
                                       "Cannot open file: No such file or directory", ""}));
        }
        EXPECT_FALSE(exists("disk-s00001.vmdk"));
        EXPECT_EQ(readAt(*disk, 7 * MiB, 512), zeroBytes(512));
    }
}
