// The files of a new disk: which there are, and what becomes of older ones.

#include "CEventFileSystem.h"
#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;

namespace {

class CVMDKDiskCreateFilesTest : public DiskTest {};

/// Extents of 3 MiB, 3 MiB and 2 MiB.
DiskOptions splitOptions() {
    return {.limit = 3 * MiB + 2 * 65536};
}

/// Three files too, of a compressed disk.
DiskOptions compressedSplitOptions() {
    return {.compressed = true, .limit = 11 * MiB};
}

DiskOptions onDemand(DiskOptions options) {
    options.onDemand = true;
    return options;
}

} // namespace

TEST_F(CVMDKDiskCreateFilesTest, ThereIsOneForEachExtent) {
    create();
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
    create(splitOptions(), "split.vmdk");
    create(compressedSplitOptions(), "compressed.vmdk");
    EXPECT_THAT(listFiles(), ElementsAre("compressed-s00001.vmdk", "compressed-s00002.vmdk",
                                         "compressed.vmdk", "disk.vmdk", "split-s00000.vmdk",
                                         "split-s00001.vmdk", "split-s00002.vmdk", "split.vmdk"));
}

TEST_F(CVMDKDiskCreateFilesTest, OnDemandThereIsOnlyTheFirst) {
    create(onDemand(splitOptions()));
    EXPECT_THAT(listFiles(), ElementsAre("disk-s00000.vmdk", "disk.vmdk"));
    create(onDemand(compressedSplitOptions()), "compressed.vmdk");
    EXPECT_THAT(listFiles(), ElementsAre("compressed.vmdk", "disk-s00000.vmdk", "disk.vmdk"));
}

TEST_F(CVMDKDiskCreateFilesTest, NewDiskIsOpenForWritingAndEmpty) {
    for (const DiskOptions& options : {DiskOptions{}, splitOptions(), compressedSplitOptions()}) {
        const P<CVMDKDisk> disk = create(options);
        EXPECT_EQ(disk->getPosition(), 0);
        EXPECT_EQ(readAll(*disk), zeroBytes(8 * MiB));
        writeAt(*disk, 0, randomBytes(1, 10));
        EXPECT_EQ(readAt(*disk, 0, 10), randomBytes(1, 10));
    }
}

// --- Older files of the same names ---

TEST_F(CVMDKDiskCreateFilesTest, OlderMainFileIsCut) {
    for (const DiskOptions& options : {DiskOptions{}, splitOptions(), compressedSplitOptions()}) {
        create(options, "expected.vmdk");
        const std::size_t size = getFile("expected.vmdk").size();
        putFile("disk.vmdk", std::string(size + 1000000, 'x'));
        create(options);
        const std::string file = getFile("disk.vmdk");
        EXPECT_EQ(file.size(), size);
        EXPECT_EQ(file.find('x', 2000), std::string::npos); // not even where the new one has holes
    }
}

TEST_F(CVMDKDiskCreateFilesTest, OlderExtentsAreRemoved) {
    for (const DiskOptions& options : {splitOptions(), compressedSplitOptions()}) {
        const Bytes data = randomBytes(1, 8 * MiB);
        writeAt(*create(options), 0, data);
        EXPECT_EQ(readAll(*create(options)), zeroBytes(8 * MiB));
    }
}

TEST_F(CVMDKDiskCreateFilesTest, SoAreOlderExtentsThatAreMadeOnDemand) {
    for (const DiskOptions& options : {splitOptions(), compressedSplitOptions()}) {
        const Bytes data = randomBytes(1, 8 * MiB);
        writeAt(*create(options), 0, data);
        const P<CVMDKDisk> disk = create(onDemand(options));
        EXPECT_FALSE(exists("disk-s00001.vmdk"));
        EXPECT_FALSE(exists("disk-s00002.vmdk"));
        EXPECT_EQ(readAll(*disk), zeroBytes(8 * MiB));
    }
}

TEST_F(CVMDKDiskCreateFilesTest, FilesThatAreNotItsOwnStay) {
    putFile("disk-s00003.vmdk", "mine");
    putFile("disk-s0000.vmdk", "mine");
    putFile("disk.vmdk.bak", "mine");
    create(splitOptions());
    for (const char* const name : {"disk-s00003.vmdk", "disk-s0000.vmdk", "disk.vmdk.bak"})
        EXPECT_EQ(getFile(name), "mine");
}

// --- The lock ---

TEST_F(CVMDKDiskCreateFilesTest, DiskInUseIsNotTouched) {
    for (const auto access : {forReading, forWriting}) {
        create(splitOptions());
        writeAt(*open(), 4 * MiB, randomBytes(1, 10));
        const P<CVMDKDisk> user = open(access);
        const std::string before = getFile("disk.vmdk") + getFile("disk-s00001.vmdk");
        for (const DiskOptions& options : {DiskOptions{}, splitOptions(), onDemand(splitOptions())})
            EXPECT_FILE_SYSTEM_ERROR(create(options), CFileSystemError::Problem_Locked,
                                     "Cannot lock \"memory:/folder/disk.vmdk.lock\": It is locked by another "
                                     "user or process.",
                                     {{"uri", path("disk.vmdk.lock")}});
        EXPECT_EQ(getFile("disk.vmdk") + getFile("disk-s00001.vmdk"), before);
        EXPECT_EQ(readAt(*user, 4 * MiB, 10), randomBytes(1, 10));
    }
}

TEST_F(CVMDKDiskCreateFilesTest, LockIsHeldFromBeforeTheFirstRemovalUntilTheResultIsOpened) {
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    const P<CVMDKDisk> disk = create(splitOptions());
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("open+ disk.vmdk.lock",
                            // All that is old goes before anything new is there.
                            "delete disk-s00000.vmdk", "delete disk-s00001.vmdk", "delete disk-s00002.vmdk",
                            "open+ disk.vmdk", "close disk.vmdk", "open+ disk-s00000.vmdk",
                            "close disk-s00000.vmdk", "open+ disk-s00001.vmdk", "close disk-s00001.vmdk",
                            "open+ disk-s00002.vmdk", "close disk-s00002.vmdk", "delete disk.vmdk.lock",
                            "close disk.vmdk.lock",
                            // The result, opened as any disk is.
                            "open+ disk.vmdk.lock", "open+ disk.vmdk", "close disk.vmdk",
                            "open disk-s00000.vmdk", "close disk-s00000.vmdk"));
}

TEST_F(CVMDKDiskCreateFilesTest, OldMainFileIsDurablyEmptyBeforeItsExtentsGo) {
    create(splitOptions());
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    create(splitOptions());
    const std::vector<std::string> events = recorder->takeEvents();
    const auto first = std::find(events.begin(), events.end(), "open+ disk.vmdk");
    ASSERT_GE(events.end() - first, 10);
    // The new one is a new file, whose first flush makes durable that the old files are gone.
    EXPECT_THAT(std::vector<std::string>(first, first + 10),
                ElementsAre("open+ disk.vmdk", "length disk.vmdk", "flush disk.vmdk", "close disk.vmdk",
                            "delete disk.vmdk", "delete disk-s00000.vmdk", "delete disk-s00001.vmdk",
                            "delete disk-s00002.vmdk", "open+ disk.vmdk", "flush disk.vmdk"));
}

TEST_F(CVMDKDiskCreateFilesTest, EveryFileIsFlushedBeforeItIsClosed) {
    for (const DiskOptions& options : {DiskOptions{}, splitOptions(), compressedSplitOptions()}) {
        const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
        m_files = recorder;
        P<CVMDKDisk> disk = create(options);
        const std::vector<std::string> events = recorder->takeEvents();
        for (const CURI& file : m_memory->listFiles()) {
            const std::string name = file.getName().toUTF8();
            if (name == "disk.vmdk.lock")
                continue;
            const auto closed = std::find(events.begin(), events.end(), "close " + name);
            ASSERT_NE(closed, events.end()) << name;
            EXPECT_EQ(*(closed - 1), "flush " + name);
        }
        disk = nullptr;
        for (const CURI& file : m_memory->listFiles())
            m_memory->deleteFile(file, false);
    }
}
