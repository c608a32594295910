// Opening a disk: what is refused, in which order, and what is known of an open disk.

#include "CEventFileSystem.h"
#include "DiskTest.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CVMDKDiskOpenTest : public DiskTest {
protected:
    /// Opening fails with a CIOError 5 that names the main file.
    void expectBadFormat(const String& message) {
        EXPECT_LUM_ERROR(open(), CIOError, 5, message, {{"uri", path("disk.vmdk")}});
        EXPECT_LUM_ERROR(openForReading(), CIOError, 5, message, {{"uri", path("disk.vmdk")}});
        EXPECT_FALSE(exists("disk.vmdk.lock"));
    }
};

const std::string oneExtent = "RW 1024 SPARSE \"disk-s00000.vmdk\"";

} // namespace

TEST_F(CVMDKDiskOpenTest, KnowsTheDiskAfterwards) {
    create({.size = 10 * MiB, .limit = 4 * MiB});
    const P<CVMDKDisk> disk = open();
    EXPECT_EQ(disk->getPosition(), 0);
    EXPECT_EQ(disk->getSizeBytes(), 10 * MiB);
    EXPECT_EQ(disk->getGrainSizeBytes(), 65536);
    EXPECT_EQ(disk->getMainFileURI(), uri("disk.vmdk"));
    EXPECT_EQ(disk->getFirstExtentFileURI(), uri("disk-s00000.vmdk"));
    EXPECT_TRUE(disk->getParentDiskMainURI().isEmpty());
    EXPECT_FALSE(disk->getCompressed());
    EXPECT_FALSE(disk->getEncrypted());
    EXPECT_EQ(disk->getDescriptor()->getCreateType(), "twoGbMaxExtentSparse");
    EXPECT_EQ(disk->getDescriptor(), disk->getDescriptor());
    EXPECT_TRUE(disk->getGrainTableCache());
}

TEST_F(CVMDKDiskOpenTest, KnowsTheFirstExtentOfASingleFile) {
    create({.compressed = true});
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_EQ(disk->getFirstExtentFileURI(), uri("disk.vmdk"));
    EXPECT_TRUE(disk->getCompressed());
    EXPECT_EQ(disk->getDescriptor()->getCreateType(), "streamOptimized");
}

TEST_F(CVMDKDiskOpenTest, KeepsTheMainFilesURIInNormalForm) {
    create();
    const CURI spelledOut(String("memory:/folder/./sub/../disk%2Evmdk"));
    const P<CVMDKDisk> disk(new CVMDKDisk(files(), spelledOut, forReading, "", -1, nullptr, nullptr));
    EXPECT_EQ(disk->getMainFileURI(), uri("disk.vmdk"));
}

TEST_F(CVMDKDiskOpenTest, ErrorsNameTheMainFileAsItWasGiven) {
    putDescriptor({"CID=1", "createType=\"vmfs\""});
    const CURI spelledOut(String("memory:/folder/./sub/../disk.vmdk"));
    EXPECT_LUM_ERROR((CVMDKDisk(files(), spelledOut, forReading, "", -1, nullptr, nullptr)), CIOError, 5,
                     "VMDK disk has an unsupported create type: 'vmfs'.",
                     {{"uri", "memory:/folder/./sub/../disk.vmdk"}});
}

TEST_F(CVMDKDiskOpenTest, UsesTheCacheThatIsGiven) {
    create();
    const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(7));
    const P<CVMDKDisk> disk(
        new CVMDKDisk(files(), uri("disk.vmdk"), forReading, "", -1, cache.get(), nullptr));
    EXPECT_EQ(disk->getGrainTableCache(), cache);
    disk->isGrainWritten();
    EXPECT_EQ(cache->getCachedTableCount(), 1);
}

TEST_F(CVMDKDiskOpenTest, HasACacheOf1024TablesOfItsOwnWhereNoneIsGiven) {
    constexpr int64 bytesPerTable = 512 * grainBytes;
    create({.size = 1056 * bytesPerTable});
    const P<CVMDKDisk> disk = openForReading();
    const P<CVMDKDisk> other = openForReading();
    EXPECT_NE(disk->getGrainTableCache(), other->getGrainTableCache());
    for (int table = 0; table < 1056; ++table) {
        disk->seek(table * bytesPerTable);
        EXPECT_FALSE(disk->isGrainWritten());
        if (table == 1023) {
            EXPECT_EQ(disk->getGrainTableCache()->getCachedTableCount(), 1024);
        }
    }
    EXPECT_EQ(disk->getGrainTableCache()->getCachedTableCount(), 1024);
    EXPECT_EQ(other->getGrainTableCache()->getCachedTableCount(), 0);
}

TEST_F(CVMDKDiskOpenTest, FirstExtentOfAnOnDemandDiskMustBeThere) {
    create({.limit = 3 * MiB, .onDemand = true});
    m_memory->deleteFile(uri("disk-s00000.vmdk"), false);
    const std::vector<std::string> names = listFiles();
    for (const auto access : {forReading, forWriting})
        EXPECT_FILE_SYSTEM_ERROR(open(access), CFileSystemError::Problem_NotFound,
                                 "Cannot open file: No such file or directory",
                                 {{"uri", path("disk-s00000.vmdk")}});
    EXPECT_EQ(listFiles(), names) << "nothing is made for it";
}

TEST_F(CVMDKDiskOpenTest, ClosesTheFilesThatItHasLookedAt) {
    create({.limit = 4 * MiB});
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    const P<CVMDKDisk> disk = open();
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("open+ disk.vmdk.lock", "open+ disk.vmdk", "close disk.vmdk",
                            "open disk-s00000.vmdk", "close disk-s00000.vmdk"));
    EXPECT_THAT(recorder->getOpenFiles(), ElementsAre("disk.vmdk.lock"));
}

TEST_F(CVMDKDiskOpenTest, LooksAtASingleFileTwiceButNeverAtOnce) {
    create();
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    const P<CVMDKDisk> disk = open();
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("open+ disk.vmdk.lock", "open+ disk.vmdk", "close disk.vmdk", "open disk.vmdk",
                            "close disk.vmdk"));
}

TEST_F(CVMDKDiskOpenTest, LeavesNothingOpenAfterAFailure) {
    putSplitDescriptor({oneExtent});
    const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
    m_files = recorder;
    EXPECT_FILE_SYSTEM_ERROR(open(), CFileSystemError::Problem_NotFound,
                             "Cannot open file: No such file or directory",
                             {{"uri", path("disk-s00000.vmdk")}});
    EXPECT_THAT(recorder->getOpenFiles(), IsEmpty());
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
}

// --- What is no disk ---

TEST_F(CVMDKDiskOpenTest, RefusesOtherCreateTypes) {
    putExtent("disk-s00000.vmdk", 8);
    for (const char* const type :
         {"monolithicFlat", "twoGbMaxExtentFlat", "vmfs", "vmfsSparse", "custom", "fullDevice", "",
          "monolithicsparse", "MONOLITHICSPARSE", "StreamOptimized", "twoGBMaxExtentSparse",
          "monolithicSparse2", "sparse"}) {
        putDescriptor({"CID=12345678", std::string("createType=\"") + type + "\"", oneExtent});
        expectBadFormat(String("VMDK disk has an unsupported create type: '") + type + "'.");
    }
}

TEST_F(CVMDKDiskOpenTest, TakesEachOfTheThreeCreateTypes) {
    putExtent("disk-s00000.vmdk", 8);
    for (const char* const type : {"monolithicSparse", "streamOptimized", "twoGbMaxExtentSparse"}) {
        putDescriptor({"CID=12345678", std::string("createType=\"") + type + "\"", oneExtent});
        EXPECT_EQ(openForReading()->getSizeBytes(), 1024 * 512) << type;
    }
}

TEST_F(CVMDKDiskOpenTest, RefusesADescriptorWithoutCreateType) {
    putDescriptor({"CID=12345678", oneExtent});
    EXPECT_LUM_ERROR(open(), CError, -1, "VMDK descriptor value 'createType' not found.");
}

TEST_F(CVMDKDiskOpenTest, RefusesADiskWithoutExtents) {
    putSplitDescriptor({});
    expectBadFormat("VMDK disk has no extents.");
}

TEST_F(CVMDKDiskOpenTest, RefusesAnExtentWithoutDescriptorAsTheMainFile) {
    putExtent("disk.vmdk", 8);
    EXPECT_LUM_ERROR(open(), CIOError, 5, "No VMDK descriptor found in VMDK file.",
                     {{"uri", path("disk.vmdk")}});
}

TEST_F(CVMDKDiskOpenTest, RefusesAnExtentOfAnotherTypeWhereverItStands) {
    putExtent("disk-s00000.vmdk", 8);
    for (const char* const type : {"FLAT", "VMFS", "VMFSSPARSE", "ZERO", "sparse", "Sparse", "SESPARSE"}) {
        const std::string other = std::string("RW 1024 ") + type + " \"disk-f001.vmdk\" 0";
        const String message = String("VMDK disk has an unsupported extent type: '") + type + "'.";
        putSplitDescriptor({oneExtent, other});
        expectBadFormat(message);
        putSplitDescriptor({other, oneExtent});
        expectBadFormat(message);
    }
}

TEST_F(CVMDKDiskOpenTest, TakesAnyAccessWordOfASparseExtent) {
    putExtent("disk-s00000.vmdk", 8);
    putSplitDescriptor({"RDONLY 1024 SPARSE \"disk-s00000.vmdk\""});
    EXPECT_EQ(openForReading()->getSizeBytes(), 1024 * 512);
}

// --- The order of the checks ---

TEST_F(CVMDKDiskOpenTest, ChecksTheCreateTypeFirst) {
    putDescriptor({"CID=12345678", "createType=\"vmfs\"", "lumEncAlg=aes128", "RW 1024 FLAT \"a\" 0"});
    expectBadFormat("VMDK disk has an unsupported create type: 'vmfs'.");
}

TEST_F(CVMDKDiskOpenTest, ChecksTheEncryptionBeforeTheExtents) {
    putSplitDescriptor({"lumEncAlg=aes128"});
    EXPECT_LUM_ERROR(open(), CError, -1, "Unsupported encryption algorithm used in VMDK: aes128",
                     {{"uri", path("disk.vmdk")}});
    putSplitDescriptor({"lumEncAlg=aes256cbc", "RW 1024 FLAT \"a\" 0"});
    EXPECT_LUM_ERROR(open(), CError, -1, "VMDK is encrypted but no password provided",
                     {{"uri", path("disk.vmdk")}});
}

TEST_F(CVMDKDiskOpenTest, ChecksAllExtentLinesBeforeAnyFile) {
    putSplitDescriptor({oneExtent, "RW 1024 FLAT \"a\" 0"});
    expectBadFormat("VMDK disk has an unsupported extent type: 'FLAT'.");
}

// --- Files that are not there ---

TEST_F(CVMDKDiskOpenTest, MistypedNameLeavesNothingBehind) {
    create();
    for (const auto access : {forReading, forWriting}) {
        EXPECT_FILE_SYSTEM_ERROR(open(access, "dusk.vmdk"), CFileSystemError::Problem_NotFound,
                                 "Cannot open file: No such file or directory", {{"uri", path("dusk.vmdk")}});
        EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
    }
}

TEST_F(CVMDKDiskOpenTest, MissingExtentIsNotMade) {
    create({.limit = 4 * MiB});
    for (const char* const name : {"disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk"})
        m_memory->deleteFile(uri(name), true);
    EXPECT_FILE_SYSTEM_ERROR(open(), CFileSystemError::Problem_NotFound,
                             "Cannot open file: No such file or directory",
                             {{"uri", path("disk-s00000.vmdk")}});
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
}

// --- A disk that was renamed by hand ---

TEST_F(CVMDKDiskOpenTest, WarnsWhenAnEmbeddedDescriptorNamesAnotherFile) {
    create({}, "old.vmdk");
    putFile("new.vmdk", getFile("old.vmdk"));
    openForReading("new.vmdk");
    EXPECT_THAT(takeLog(),
                ElementsAre(CLogRecorder::Entry{
                    ILogSink::Level_Warning,
                    "The descriptor in VMDK file 'memory:/folder/new.vmdk' names another file as its first "
                    "extent: 'memory:/folder/old.vmdk'. The disk may have been renamed or copied by hand.",
                    "", ""}));
}

TEST_F(CVMDKDiskOpenTest, DoesNotWarnOfASeparateDescriptorOrTheFilesOwnName) {
    create({.limit = 4 * MiB});
    openForReading();
    create({}, L"a b%\u00e4.vmdk");
    openForReading(L"a b%\u00e4.vmdk");
    EXPECT_THAT(takeLog(), IsEmpty());
}

// --- Parents ---

TEST_F(CVMDKDiskOpenTest, HintAloneMakesNoParent) {
    putExtent("disk-s00000.vmdk", 8);
    putSplitDescriptor({"parentFileNameHint=\"parent.vmdk\"", oneExtent});
    const P<CVMDKDisk> disk = openForReading();
    EXPECT_TRUE(disk->getParentDiskMainURI().isEmpty());
    EXPECT_EQ(readAll(*disk), zeroBytes(1024 * 512));
}

TEST_F(CVMDKDiskOpenTest, NamesTheParentWithoutOpeningIt) {
    create({.parentPath = "sub/parent.vmdk", .parentID = 1});
    EXPECT_EQ(openForReading()->getParentDiskMainURI(), CURI(String("memory:/folder/sub/parent.vmdk")));
}

TEST_F(CVMDKDiskOpenTest, ParentWithoutAHintIsRefused) {
    putExtent("disk-s00000.vmdk", 8);
    putDescriptor({"CID=1", "parentCID=00000001", "createType=\"monolithicSparse\"", oneExtent});
    EXPECT_LUM_ERROR(open(), CError, -1, "VMDK descriptor value 'parentFileNameHint' not found.");
}

// --- Sizes ---

TEST_F(CVMDKDiskOpenTest, StaticSizes) {
    EXPECT_EQ(CVMDKDisk::getGrainSizeSectors(), 128);
    EXPECT_EQ(CVMDKDisk::getDefaultFileSizeLimit(), 2147483648);
    const struct {
        int64 least;
        int64 size;
    } rows[] = {
        {0, 8388608},
        {1, 8388608},
        {-1, 8388608},
        {INT64_MIN, 8388608},
        {8388607, 8388608},
        {8388608, 8388608},
        {8388609, 8454144},
        {8454144, 8454144},
        {8454145, 8519680},
        {13107200, 13107200},
        {5 * TiB, 5 * TiB},
        {5 * TiB + 1, 5 * TiB + 65536},
        {INT64_MAX - 65535, INT64_MAX - 65535}, // the last whole grain that 64 bits can count
    };
    for (const auto& row : rows)
        EXPECT_EQ(CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(row.least), row.size) << row.least;
}
