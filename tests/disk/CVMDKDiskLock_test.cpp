// The lock that keeps the users of a disk apart, from before anything is read until all is written.

#include "CEventFileSystem.h"
#include "CFaultFileSystem.h"
#include "CTemporaryFolder.h"
#include "DiskTest.h"
#include "lum/CNativeFileSystem.h"

using namespace tessel;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CVMDKDiskLockTest : public DiskTest {
protected:
    void expectLocked(IIOStream::Access access) {
        EXPECT_FILE_SYSTEM_ERROR(
            open(access), CFileSystemError::Problem_Locked,
            "Cannot lock \"memory:/folder/disk.vmdk.lock\": It is locked by another user "
            "or process.",
            {{"uri", "memory:/folder/disk.vmdk.lock"}});
    }

    P<CEventFileSystem> record() {
        const P<CEventFileSystem> recorder(new CEventFileSystem(m_memory.get()));
        m_files = recorder;
        return recorder;
    }
};

} // namespace

TEST_F(CVMDKDiskLockTest, ReadersShareADisk) {
    create();
    const P<CVMDKDisk> a = openForReading();
    const P<CVMDKDisk> b = openForReading();
    EXPECT_EQ(readAt(*a, 0, 512), readAt(*b, 0, 512));
    expectLocked(forWriting);
}

TEST_F(CVMDKDiskLockTest, AWriterIsAlone) {
    const P<CVMDKDisk> writer = create();
    expectLocked(forReading);
    expectLocked(forWriting);
    EXPECT_EQ(readAt(*writer, 0, 512), zeroBytes(512));
}

TEST_F(CVMDKDiskLockTest, WhoeverComesAfterTheLastIsLetIn) {
    P<CVMDKDisk> a = create();
    a = nullptr;
    a = openForReading();
    P<CVMDKDisk> b = openForReading();
    a = nullptr;
    expectLocked(forWriting);
    b = nullptr;
    EXPECT_NO_THROW(open());
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
}

TEST_F(CVMDKDiskLockTest, TheLockFileStandsBesideTheMainFileWhileTheDiskIsOpen) {
    P<CVMDKDisk> disk = create({.limit = 4 * MiB}, "my disk.v1.vmdk");
    EXPECT_TRUE(exists("my disk.v1.vmdk.lock"));
    disk = nullptr;
    EXPECT_FALSE(exists("my disk.v1.vmdk.lock"));
}

TEST_F(CVMDKDiskLockTest, AnotherSpellingOfTheNameIsTheSameLock) {
    const P<CVMDKDisk> writer = create();
    const CURI spelledOut(String("memory:/folder/sub/../disk.vmdk"));
    const String lockPath("memory:/folder/sub/../disk.vmdk.lock");
    EXPECT_FILE_SYSTEM_ERROR((CVMDKDisk(files(), spelledOut, forReading, "", -1, nullptr, nullptr)),
                             CFileSystemError::Problem_Locked,
                             "Cannot lock \"" + lockPath + "\": It is locked by another user or process.",
                             {{"uri", lockPath}});
}

TEST_F(CVMDKDiskLockTest, ALockFileLeftBehindBlocksNobody) {
    create();
    putFile("disk.vmdk.lock", "");
    EXPECT_NO_THROW(open());
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
}

TEST_F(CVMDKDiskLockTest, TheLockIsTakenBeforeAnythingIsRead) {
    const P<CVMDKDisk> writer = create();
    const P<CEventFileSystem> recorder = record();
    expectLocked(forReading);
    EXPECT_THAT(recorder->takeOpeningEvents(), ElementsAre("open+ disk.vmdk.lock", "close disk.vmdk.lock"));
}

TEST_F(CVMDKDiskLockTest, RefusedDiskLetsGoOfItsLock) {
    create({.password = "secret"});
    EXPECT_THROW(open(), CError);
    EXPECT_NO_THROW(open(forWriting, "disk.vmdk", "secret"));
}

TEST_F(CVMDKDiskLockTest, ReaderWhoMayNotMakeTheLockFileGoesOnWithoutIt) {
    create();
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
    m_files = faults;
    faults->addRule({.operation = FaultRule::Open, .fileSuffix = ".lock"});
    const P<CVMDKDisk> reader = openForReading();
    EXPECT_EQ(readAt(*reader, 0, 512), zeroBytes(512));
    const auto log = takeLog();
    ASSERT_EQ(log.size(), 1U);
    EXPECT_EQ(log[0].level, ILogSink::Level_Warning);
    EXPECT_EQ(log[0].message, "Cannot make the lock file \"memory:/folder/disk.vmdk.lock\": Reading goes on "
                              "without a lock.");
    faults->clearRules();
    faults->addRule({.operation = FaultRule::Open, .fileSuffix = ".lock", .always = true});
    EXPECT_FILE_SYSTEM_ERROR(open(), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", path("disk.vmdk.lock")}});
}

// --- The lock goes last ---

TEST_F(CVMDKDiskLockTest, WriterLetsGoOfTheLockWhenAllIsWrittenAndClosed) {
    for (const bool compressed : {false, true}) {
        const P<CEventFileSystem> recorder = record();
        P<CVMDKDisk> disk = create({.compressed = compressed});
        writeAt(*disk, 0, randomBytes(1, 100000));
        recorder->takeEvents();
        disk = nullptr;
        const std::vector<std::string> events = recorder->takeEvents();
        ASSERT_GE(events.size(), 4U);
        const std::vector<std::string> last(events.end() - 4, events.end());
        EXPECT_THAT(last, ElementsAre("flush disk.vmdk", "close disk.vmdk", "delete disk.vmdk.lock",
                                      "close disk.vmdk.lock"));
        EXPECT_THAT(recorder->getOpenFiles(), IsEmpty());
    }
}

TEST_F(CVMDKDiskLockTest, LockOfASplitDiskGoesAfterTheOpenExtent) {
    const P<CEventFileSystem> recorder = record();
    P<CVMDKDisk> disk = create({.limit = 4 * MiB});
    writeAt(*disk, 5 * MiB, randomBytes(1, 512));
    recorder->takeEvents();
    disk = nullptr;
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("close disk-s00001.vmdk", "delete disk.vmdk.lock", "close disk.vmdk.lock"));
}

TEST_F(CVMDKDiskLockTest, LockOfAChildGoesAfterItsParent) {
    create({}, "parent.vmdk");
    const unsigned int parentID = openForReading("parent.vmdk")->getDescriptor()->getContentID();
    P<CVMDKDisk> disk = create({.parentPath = "parent.vmdk", .parentID = parentID});
    disk = nullptr;
    const P<CEventFileSystem> recorder = record();
    disk = openForReading();
    EXPECT_EQ(readAt(*disk, 0, 512), zeroBytes(512));
    EXPECT_THAT(recorder->getOpenFiles(),
                ElementsAre("disk.vmdk.lock", "disk.vmdk", "parent.vmdk.lock", "parent.vmdk"));
    recorder->takeEvents();
    disk = nullptr;
    EXPECT_THAT(recorder->takeOpeningEvents(),
                ElementsAre("close disk.vmdk", "close parent.vmdk", "delete parent.vmdk.lock",
                            "close parent.vmdk.lock", "delete disk.vmdk.lock", "close disk.vmdk.lock"));
}

TEST_F(CVMDKDiskLockTest, FailureToWriteAtDestructionIsReportedAndTheLockGoes) {
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_memory.get()));
    m_files = faults;
    P<CVMDKDisk> disk = create();
    writeAt(*disk, 0, randomBytes(1, 512));
    faults->addRule({.operation = FaultRule::Write, .fileSuffix = "disk.vmdk", .always = true});
    disk = nullptr;
    const auto log = takeLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log[0].level, ILogSink::Level_Error);
    EXPECT_EQ(log[0].message, "Exception ignored in the destructor of tessel::CVMDKDisk; data may be lost");
    EXPECT_EQ(log[0].error, "Cannot write to file: Injected fault");
    faults->clearRules();
    EXPECT_THAT(listFiles(), ElementsAre("disk.vmdk"));
    EXPECT_EQ(readAt(*open(), 0, 512), zeroBytes(512));
}

// --- Real files ---

TEST_F(CVMDKDiskLockTest, TwoDisksOfOneProcessExcludeEachOtherOnRealFiles) {
    const CTemporaryFolder folder;
    const CURI disk = folder.getURI("disk.vmdk");
    const CURI lock = folder.getURI("disk.vmdk.lock");
    const String lockPath = lock.toString(true);
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const auto openNative = [&](IIOStream::Access access) {
        return P<CVMDKDisk>(new CVMDKDisk(native.get(), disk, access, "", -1, nullptr, nullptr));
    };
    const auto expectLockedFor = [&](IIOStream::Access access) {
        EXPECT_FILE_SYSTEM_ERROR(openNative(access), CFileSystemError::Problem_Locked,
                                 "Cannot lock \"" + lockPath + "\": It is locked by another user or process.",
                                 {{"uri", lockPath}});
    };
    P<CVMDKDisk> writer =
        CVMDKDisk::create(native.get(), disk, 8 * MiB, "", false, -1, -1, "", noParent, false);
    EXPECT_TRUE(native->fileExists(lock));
    expectLockedFor(forReading);
    expectLockedFor(forWriting);
    writer = nullptr;
    EXPECT_FALSE(native->fileExists(lock));

    P<CVMDKDisk> reader = openNative(forReading);
    P<CVMDKDisk> other = openNative(forReading);
    expectLockedFor(forWriting);
    reader = nullptr;
    expectLockedFor(forWriting);
    other = nullptr;
    EXPECT_NO_THROW(openNative(forWriting));
    EXPECT_FALSE(native->fileExists(lock));
}

TEST_F(CVMDKDiskLockTest, MistypedNameLeavesNoRealFileBehind) {
    const CTemporaryFolder folder;
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const CURI uri = folder.getURI("dusk.vmdk");
    for (const auto access : {forReading, forWriting})
        EXPECT_FILE_SYSTEM_ERROR((CVMDKDisk(native.get(), uri, access, "", -1, nullptr, nullptr)),
                                 CFileSystemError::Problem_NotFound,
                                 "Cannot open file: No such file or directory",
                                 {{"uri", uri.toString(true)}});
    EXPECT_TRUE(std::filesystem::is_empty(folder.getPath()));
}
