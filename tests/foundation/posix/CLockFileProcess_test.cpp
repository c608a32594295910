#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "lum/CLockFile.h"
#include "lum/CNativeFileSystem.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace lum;
using namespace tessel::test;

TEST(CLockFileProcess, LockOfAProcessThatWasKilledIsGone) {
    const CTemporaryFolder folder;
    const CURI uri = folder.getURI("disk.vmdk.lock");
    const P<IFileSystem> fileSystem(new CNativeFileSystem);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const P<CLockFile> lockFile(
            new CLockFile(fileSystem.get(), uri, CLockFile::LockType_Exclusive, false, true));
        const char byte = 'x';
        const bool told = ::write(ready[1], &byte, 1) == 1;
        while (told)
            ::pause();
        ::_exit(1);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_FILE_SYSTEM_ERROR(CLockFile(fileSystem.get(), uri, CLockFile::LockType_Shared, false, true),
                             CFileSystemError::Problem_Locked,
                             "Cannot lock \"" + uri.toString(true) +
                                 "\": It is locked by another user or process.",
                             {{"uri", uri.toString(true)}});

    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ::close(ready[0]);
    ::close(ready[1]);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(fileSystem->fileExists(uri));
    EXPECT_NO_THROW(CLockFile(fileSystem.get(), uri, CLockFile::LockType_Exclusive, false, true));
    EXPECT_FALSE(fileSystem->fileExists(uri));
}

TEST(CLockFileProcess, ForkedProcessDoesNotKeepALockThatWasReleased) {
    const CTemporaryFolder folder;
    const P<IFileSystem> fileSystem(new CNativeFileSystem);
    const P<IIOStream> stream = fileSystem->openFile(folder.getURI("a"), IIOStream::Access_ReadWrite);
    const P<IIOStream> other = fileSystem->openFile(folder.getURI("a"), IIOStream::Access_ReadWrite);
    const P<IStreamLock> lock = stream->lockRange(0, 1, IStreamBase::LockType_Exclusive);

    const pid_t child = ::fork(); // has the file open, too
    ASSERT_GE(child, 0);
    while (child == 0)
        ::pause();
    EXPECT_THROW(other->lockRange(0, 1, IStreamBase::LockType_Shared), CFileSystemError);
    stream->close();
    EXPECT_NO_THROW(other->lockRange(0, 1, IStreamBase::LockType_Exclusive));

    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}
