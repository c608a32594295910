#include "lum/CLockFile.h"

#include "CFaultFileSystem.h"
#include "CLogRecorder.h"
#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"
#include "lum/CNativeFileSystem.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <random>
#include <thread>

using namespace lum;
using namespace tessel::test;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using Problem = CFileSystemError::Problem;

constexpr auto shared = CLockFile::LockType_Shared;
constexpr auto exclusive = CLockFile::LockType_Exclusive;

/// A medium or folder that may only be read, for whoever uses it through this.
class CReadOnlyFileSystem : public CBase, public IFileSystem {
public:
    CReadOnlyFileSystem(IFileSystem* below, Problem problem) : m_below(below), m_problem(problem) {}

    P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) override {
        if (access == IIOStream::Access_ReadWrite)
            refuse("Cannot open file", uri);
        if (refusesReading)
            refuse("Cannot read file", uri);
        return m_below->openFile(uri, access);
    }
    bool fileExists(const CURI& uri) override { return m_below->fileExists(uri); }
    void deleteFile(const CURI& uri, bool) override { refuse("Cannot delete file", uri); }
    bool isFileOfStream(const CURI& uri, IIOStream& stream) override {
        return m_below->isFileOfStream(uri, stream);
    }

    bool refusesReading = false;

private:
    [[noreturn]] void refuse(const char* message, const CURI& uri) const {
        throw CFileSystemError(m_problem,
                               CError(message, String(), -1, CProps().add("uri", uri.toString(true))));
    }

    P<IFileSystem> m_below;
    Problem m_problem;
};

/// Runs on real files and on those in memory.
class CLockFileTest : public ::testing::TestWithParam<const char*> {
protected:
    CLockFileTest() {
        if (GetParam() == std::string("Native"))
            m_fileSystem = new CNativeFileSystem;
        else
            m_fileSystem = new CMemoryFileSystem;
    }

    P<CLockFile> lock(CLockFile::LockType type, bool deleteOnRelease = true) {
        return new CLockFile(m_fileSystem.get(), m_uri, type, false, deleteOnRelease);
    }
    bool canLock(CLockFile::LockType type) {
        try {
            lock(type);
            return true;
        } catch (const CFileSystemError& error) {
            EXPECT_EQ(error.getProblem(), Problem::Problem_Locked);
            return false;
        }
    }
    bool fileExists() { return m_fileSystem->fileExists(m_uri); }
    P<IIOStream> open() { return m_fileSystem->openFile(m_uri, IIOStream::Access_ReadWrite); }

    CLogRecorder m_log;
    CTemporaryFolder m_folder;
    P<IFileSystem> m_fileSystem;
    const CURI m_uri = m_folder.getURI("disk.vmdk.lock");
    const String m_name = m_uri.toString(true);
    const String m_lockedMessage = "Cannot lock \"" + m_name + "\": It is locked by another user or process.";
};

std::string kindOf(const ::testing::TestParamInfo<const char*>& kind) {
    return kind.param;
}

} // namespace

INSTANTIATE_TEST_SUITE_P(All, CLockFileTest, ::testing::Values("Native", "Memory"), kindOf);

TEST_P(CLockFileTest, MakesTheFileAndRemovesItAgain) {
    for (const auto type : {shared, exclusive}) {
        P<CLockFile> lockFile = lock(type);
        EXPECT_TRUE(lockFile->isLocked());
        EXPECT_TRUE(fileExists());
        lockFile = nullptr;
        EXPECT_FALSE(fileExists());
    }
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_P(CLockFileTest, LeavesTheFileWhenNotToldToRemoveIt) {
    for (const auto type : {shared, exclusive}) {
        lock(type, false);
        EXPECT_TRUE(fileExists());
        EXPECT_TRUE(canLock(exclusive));
        EXPECT_FALSE(fileExists());
    }
}

TEST_P(CLockFileTest, WriterExcludesAllOthers) {
    const P<CLockFile> writer = lock(exclusive);
    for (const auto type : {shared, exclusive})
        EXPECT_FILE_SYSTEM_ERROR(lock(type), Problem::Problem_Locked, m_lockedMessage, {{"uri", m_name}});
    EXPECT_TRUE(fileExists());
}

TEST_P(CLockFileTest, ReadersExcludeWritersOnly) {
    const P<CLockFile> reader = lock(shared);
    EXPECT_TRUE(canLock(shared));
    EXPECT_FILE_SYSTEM_ERROR(lock(exclusive), Problem::Problem_Locked, m_lockedMessage, {{"uri", m_name}});
    EXPECT_TRUE(canLock(shared));
    EXPECT_TRUE(fileExists());
}

TEST_P(CLockFileTest, LastReaderRemovesTheFile) {
    P<CLockFile> first = lock(shared);
    P<CLockFile> second = lock(shared);
    first = nullptr;
    EXPECT_TRUE(fileExists());
    EXPECT_FALSE(canLock(exclusive));
    second = nullptr;
    EXPECT_FALSE(fileExists());
    EXPECT_TRUE(canLock(exclusive));
}

TEST_P(CLockFileTest, FileLeftBehindBlocksNobody) {
    open()->write("left behind", 11);
    EXPECT_TRUE(canLock(exclusive));
    EXPECT_FALSE(fileExists());
}

TEST_P(CLockFileTest, FileOfAnotherInItsPlaceIsNotRemoved) {
    for (const auto type : {shared, exclusive}) {
        P<CLockFile> lockFile = lock(type);
        m_fileSystem->deleteFile(m_uri, false);
        open();
        lockFile = nullptr;
        EXPECT_TRUE(fileExists());
    }
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_P(CLockFileTest, WaitsUntilTheOtherLetsGo) {
    P<CLockFile> other = lock(exclusive);
    std::atomic<bool> waiterHasIt = false;
    std::thread waiter([&] {
        const P<CLockFile> lockFile(new CLockFile(m_fileSystem.get(), m_uri, exclusive, true, true));
        waiterHasIt = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(waiterHasIt);
    other = nullptr;
    waiter.join();
    EXPECT_TRUE(waiterHasIt);
    EXPECT_FALSE(fileExists());
}

TEST_P(CLockFileTest, MissingFolderIsTold) {
    if (GetParam() == std::string("Memory")) { // has no folders to miss
        EXPECT_NO_THROW(CLockFile(m_fileSystem.get(), m_uri << String("x"), shared, false, true));
        return;
    }
    const CURI inside = m_folder.getURI("missing") << String("lock");
    for (const auto type : {shared, exclusive})
        EXPECT_FILE_SYSTEM_ERROR(CLockFile(m_fileSystem.get(), inside, type, true, true),
                                 Problem::Problem_NotFound, "Cannot open file: No such file or directory",
                                 {{"uri", inside.toString(true)}});
}

// --- the gate: what a user who comes and one who leaves do to each other

TEST_P(CLockFileTest, WhoComesWaitsWhileAnotherRemovesTheFile) {
    // Somebody has shut the gate and checks whether he is the last one.
    P<IIOStream> remover = open();
    P<IStreamLock> gate = remover->lockRange(1, 1, IStreamBase::LockType_Exclusive);
    std::thread finishing([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        m_fileSystem->deleteFile(m_uri, false);
        remover->close();
    });
    const P<CLockFile> lockFile = lock(shared);
    finishing.join();
    EXPECT_TRUE(lockFile->isLocked());
    EXPECT_TRUE(fileExists());
}

TEST_P(CLockFileTest, WhoLeavesWaitsWhileAnotherComes) {
    P<CLockFile> lockFile = lock(shared);
    const P<IIOStream> coming = open();
    const P<IStreamLock> gate = coming->lockRange(1, 1, IStreamBase::LockType_Shared);
    std::thread finishing([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        gate->unlock();
    });
    lockFile = nullptr;
    finishing.join();
    EXPECT_FALSE(fileExists());
}

TEST_P(CLockFileTest, WhoFindsTheGateShutForLongGivesUp) {
    P<CLockFile> lockFile = lock(shared);
    const P<IIOStream> stopped = open();
    P<IStreamLock> gate = stopped->lockRange(1, 1, IStreamBase::LockType_Exclusive);
    std::thread leaving([&] { lockFile = nullptr; }); // at once with the next, to save time
    EXPECT_FILE_SYSTEM_ERROR(lock(shared), Problem::Problem_Locked, m_lockedMessage, {{"uri", m_name}});
    leaving.join();
    EXPECT_TRUE(fileExists());
    gate = nullptr;
    EXPECT_TRUE(canLock(exclusive));
}

// --- who may not write

TEST_P(CLockFileTest, ReaderOnAReadOnlyMediumLocksAnExistingFile) {
    for (const Problem problem : {Problem::Problem_AccessDenied, Problem::Problem_ReadOnlyMedium}) {
        open();
        const P<CReadOnlyFileSystem> readOnly(new CReadOnlyFileSystem(m_fileSystem.get(), problem));
        P<CLockFile> reader(new CLockFile(readOnly.get(), m_uri, shared, false, true));
        EXPECT_TRUE(reader->isLocked());
        EXPECT_FALSE(canLock(exclusive));
        reader = nullptr;
        EXPECT_TRUE(fileExists());
        EXPECT_TRUE(canLock(exclusive));
        EXPECT_THAT(m_log.takeEntries(), IsEmpty());

        const P<CLockFile> writer = lock(exclusive);
        EXPECT_FILE_SYSTEM_ERROR(CLockFile(readOnly.get(), m_uri, shared, false, true),
                                 Problem::Problem_Locked, m_lockedMessage, {{"uri", m_name}});
    }
}

TEST_P(CLockFileTest, ReaderOnAReadOnlyMediumGoesOnWithoutALockFile) {
    const P<IFileSystem> readOnly(
        new CReadOnlyFileSystem(m_fileSystem.get(), Problem::Problem_ReadOnlyMedium));
    P<CLockFile> reader(new CLockFile(readOnly.get(), m_uri, shared, false, true));
    EXPECT_FALSE(reader->isLocked());
    EXPECT_FALSE(fileExists());
    const auto entries = m_log.takeEntries();
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(entries[0], (CLogRecorder::Entry{ILogSink::Level_Warning,
                                               "Cannot make the lock file \"" + m_name +
                                                   "\": Reading goes on without a lock.",
                                               "Cannot open file", String()}));
    reader = nullptr;
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_P(CLockFileTest, ReaderWhoMayNotEvenReadTheLockFileFails) {
    open();
    const P<CReadOnlyFileSystem> readOnly(
        new CReadOnlyFileSystem(m_fileSystem.get(), Problem::Problem_AccessDenied));
    readOnly->refusesReading = true;
    EXPECT_FILE_SYSTEM_ERROR(CLockFile(readOnly.get(), m_uri, shared, false, true),
                             Problem::Problem_AccessDenied, "Cannot read file", {{"uri", m_name}});
}

TEST_P(CLockFileTest, WriterOnAReadOnlyMediumFails) {
    open();
    const P<IFileSystem> readOnly(
        new CReadOnlyFileSystem(m_fileSystem.get(), Problem::Problem_ReadOnlyMedium));
    EXPECT_FILE_SYSTEM_ERROR(CLockFile(readOnly.get(), m_uri, exclusive, false, true),
                             Problem::Problem_ReadOnlyMedium, "Cannot open file", {{"uri", m_name}});
}

// --- failures

TEST_P(CLockFileTest, FailureToLockIsTold) {
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_fileSystem.get()));
    for (const int nth : {1, 2}) {
        faults->clearRules();
        faults->addRule({.operation = FaultRule::Lock, .kind = FaultRule::FullDisk, .nth = nth});
        EXPECT_FILE_SYSTEM_ERROR(CLockFile(faults.get(), m_uri, exclusive, true, true),
                                 Problem::Problem_NoSpace, "Cannot lock file: Injected fault",
                                 {{"uri", m_name}, {"start", toDecimal(2 - nth)}, {"length", "1"}});
    }
}

TEST_P(CLockFileTest, FailureToRemoveTheFileIsReportedAndTheLockReleased) {
    const P<CFaultFileSystem> faults(new CFaultFileSystem(m_fileSystem.get()));
    faults->addRule({.operation = FaultRule::Delete, .always = true});
    for (const auto type : {shared, exclusive}) {
        CLockFile(faults.get(), m_uri, type, false, true);
        const auto entries = m_log.takeEntries();
        ASSERT_THAT(entries, SizeIs(1));
        EXPECT_EQ(entries[0].level, ILogSink::Level_Warning);
        EXPECT_TRUE(entries[0].message.Contains("lum::CLockFile"));
        EXPECT_EQ(entries[0].error, String("Cannot delete file: Injected fault"));
        EXPECT_TRUE(fileExists());
    }
    EXPECT_TRUE(canLock(exclusive));
}

// --- many users

TEST_P(CLockFileTest, UsersInManyThreadsExcludeEachOtherAndLeaveNothingBehind) {
    constexpr int threads = 6;
    constexpr int rounds = 500;
    std::atomic<int> readers = 0;
    std::atomic<int> writers = 0;
    std::atomic<int> violations = 0;
    std::atomic<int> reads = 0;
    std::atomic<int> writes = 0;
    std::atomic<int> refusals = 0;
    const auto work = [&](unsigned seed) {
        std::mt19937 random(seed);
        for (int i = 0; i < rounds; ++i) {
            const bool writing = random() % 4 == 0;
            try {
                const P<CLockFile> lockFile = lock(writing ? exclusive : shared);
                ++(writing ? writers : readers);
                violations += writers > (writing ? 1 : 0);
                violations += writing && readers > 0;
                if (random() % 8 == 0)
                    std::this_thread::yield();
                violations += writers > (writing ? 1 : 0);
                violations += writing && readers > 0;
                --(writing ? writers : readers);
                ++(writing ? writes : reads);
            } catch (const CFileSystemError& error) {
                violations += error.getProblem() != Problem::Problem_Locked;
                ++refusals;
            }
        }
    };
    std::vector<std::thread> workers;
    for (unsigned seed = 1; seed <= threads; ++seed)
        workers.emplace_back(work, seed);
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(violations, 0);
    EXPECT_EQ(reads + writes + refusals, threads * rounds);
    EXPECT_GT(reads, 0);
    EXPECT_GT(writes, 0);
    EXPECT_FALSE(fileExists());
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_P(CLockFileTest, ReadersInManyThreadsNeverRefuseEachOther) {
    constexpr int threads = 4;
    constexpr int rounds = 500;
    std::atomic<int> refusals = 0;
    const auto work = [&] {
        for (int i = 0; i < rounds; ++i)
            refusals += !canLock(shared);
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < threads; ++i)
        workers.emplace_back(work);
    for (std::thread& worker : workers)
        worker.join();
    EXPECT_EQ(refusals, 0);
    EXPECT_FALSE(fileExists());
}
