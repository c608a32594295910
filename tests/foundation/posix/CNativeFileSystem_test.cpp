#include "lum/CNativeFileSystem.h"

#include "CLogRecorder.h"
#include "CSystemCallFaults.h"
#include "CTemporaryFolder.h"
#include "ErrorMatchers.h"
#include "lum/CBufferStream.h"
#include "lum/CMemoryFileSystem.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

using namespace lum;
using namespace tessel::test;
using ::testing::SizeIs;

namespace {

using Problem = CFileSystemError::Problem;
using Faults = CSystemCallFaults;

/// What only the computer's own files do. What they share with others is in the contract's tests.
class CNativeFileSystemTest : public ::testing::Test {
protected:
    CURI uri(const char* name = "file") const { return m_folder.getURI(name); }
    String name(const char* file = "file") const { return uri(file).toString(true); }
    P<IIOStream> open(const char* file = "file") {
        return m_fileSystem->openFile(uri(file), IIOStream::Access_ReadWrite);
    }
    P<IIOStream> openForReading(const char* file = "file") {
        return m_fileSystem->openFile(uri(file), IIOStream::Access_Read);
    }
    P<IIOStream> openNew(const std::string& text, const char* file = "file") {
        P<IIOStream> stream = open(file);
        stream->write(text.data(), static_cast<int>(text.size()));
        return stream;
    }
    std::string contents(const char* file = "file") const {
        std::ifstream in(m_folder.getPath(file), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    /// Expects that opening fails with this system error.
    void expectOpenFails(int error, Problem problem, const char* reason) {
        const CSystemCallFaults faults({{.call = Faults::Open, .error = error, .times = -1}});
        EXPECT_FILE_SYSTEM_ERROR(open(), problem, String("Cannot open file: ") + reason, {{"uri", name()}});
    }

    CTemporaryFolder m_folder;
    P<CNativeFileSystem> m_fileSystem{new CNativeFileSystem};
};

} // namespace

// --- names

TEST_F(CNativeFileSystemTest, RelativeReferencesStartAtTheCurrentFolder) {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(m_folder.getPath());
    const P<IIOStream> stream = m_fileSystem->openFile(CURI(String("a%20b")), IIOStream::Access_ReadWrite);
    stream->flush();
    std::filesystem::current_path(before);
    EXPECT_TRUE(std::filesystem::exists(m_folder.getPath("a b")));
    EXPECT_EQ(stream->getURI(), CURI(String("a%20b")));
}

TEST_F(CNativeFileSystemTest, OtherSchemesAndHostsAreNotSupported) {
    for (const char* const text : {"http://example.org/a", "file://server/share/a"}) {
        const CURI other{String(text)};
        const P<IIOStream> stream = open();
        const auto expectNotSupported = [&](const std::function<void()>& action) {
            const auto error = catchError(action);
            const auto* const fileSystemError = dynamic_cast<const CFileSystemError*>(error.get());
            ASSERT_TRUE(fileSystemError);
            EXPECT_EQ(fileSystemError->getProblem(), Problem::Problem_NotSupported);
            EXPECT_EQ(fileSystemError->getProps().getEntries()[0], CProps::Entry("uri", text));
        };
        expectNotSupported([&] { m_fileSystem->openFile(other, IIOStream::Access_Read); });
        expectNotSupported([&] { m_fileSystem->fileExists(other); });
        expectNotSupported([&] { m_fileSystem->deleteFile(other, true); });
        expectNotSupported([&] { m_fileSystem->isFileOfStream(other, *stream); });
    }
}

TEST_F(CNativeFileSystemTest, NamesThatHoldNULAreRefused) {
    const P<IIOStream> stream = open("a");
    const CURI bad(m_folder.getURI("a").toString(false) + "%00b");
    EXPECT_THROW(m_fileSystem->openFile(bad, IIOStream::Access_ReadWrite), CBadPathError);
    EXPECT_THROW(m_fileSystem->fileExists(bad), CBadPathError);
    EXPECT_THROW(m_fileSystem->isFileOfStream(bad, *stream), CBadPathError);
    EXPECT_THROW(m_fileSystem->deleteFile(bad, true), CBadPathError);
    EXPECT_TRUE(m_fileSystem->fileExists(uri("a")));
}

// --- what is no file

TEST_F(CNativeFileSystemTest, FoldersAreNoFiles) {
    std::filesystem::create_directory(m_folder.getPath("folder"));
    for (const auto access : {IIOStream::Access_Read, IIOStream::Access_ReadWrite})
        EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->openFile(uri("folder"), access), Problem::Problem_NotAFile,
                                 "Cannot open file: Is a directory", {{"uri", name("folder")}});
    EXPECT_TRUE(m_fileSystem->fileExists(uri("folder")));
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->deleteFile(uri("folder"), true), Problem::Problem_NotAFile,
                             "Cannot delete file: Is a directory", {{"uri", name("folder")}});
}

TEST_F(CNativeFileSystemTest, PipesAreNoFilesAndHoldNobodyUp) {
    ASSERT_EQ(::mkfifo(m_folder.getPath("pipe").c_str(), 0600), 0);
    for (const auto access : {IIOStream::Access_Read, IIOStream::Access_ReadWrite})
        EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->openFile(uri("pipe"), access), Problem::Problem_NotAFile,
                                 "Cannot open file: Not a regular file", {{"uri", name("pipe")}});
    EXPECT_TRUE(m_fileSystem->fileExists(uri("pipe")));
}

TEST_F(CNativeFileSystemTest, DevicesAndSocketsAreNoFiles) {
    EXPECT_FILE_SYSTEM_ERROR(
        m_fileSystem->openFile(nativePathToURI("/dev/null"), IIOStream::Access_ReadWrite),
        Problem::Problem_NotAFile, "Cannot open file: Not a regular file", {{"uri", "file:///dev/null"}});

    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder.getPath("socket");
    ASSERT_LT(path.size(), sizeof address.sun_path);
    path.copy(address.sun_path, path.size());
    ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_FILE_SYSTEM_ERROR(open("socket"), Problem::Problem_NotAFile,
                             "Cannot open file: No such device or address", {{"uri", name("socket")}});
    ::close(socket);
}

TEST_F(CNativeFileSystemTest, FilesAreNoFolders) {
    openNew("x");
    const CURI inside = uri() << String("inner");
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->openFile(inside, IIOStream::Access_ReadWrite),
                             Problem::Problem_NotFound, "Cannot open file: Not a directory",
                             {{"uri", inside.toString(true)}});
    EXPECT_FALSE(m_fileSystem->fileExists(inside));
    EXPECT_NO_THROW(m_fileSystem->deleteFile(inside, true));
    EXPECT_FALSE(m_fileSystem->isFileOfStream(inside, *open()));
}

TEST_F(CNativeFileSystemTest, FoldersAreNotMade) {
    const CURI inside = uri("missing") << String("file");
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->openFile(inside, IIOStream::Access_ReadWrite),
                             Problem::Problem_NotFound, "Cannot open file: No such file or directory",
                             {{"uri", inside.toString(true)}});
}

// --- links

TEST_F(CNativeFileSystemTest, LinksLeadToTheirFile) {
    const P<IIOStream> stream = openNew("hello", "target");
    std::filesystem::create_symlink(m_folder.getPath("target"), m_folder.getPath("link"));
    EXPECT_EQ(openForReading("link")->getLength(), 5);
    EXPECT_TRUE(m_fileSystem->isFileOfStream(uri("link"), *stream));
    m_fileSystem->deleteFile(uri("link"), false);
    EXPECT_TRUE(m_fileSystem->fileExists(uri("target")));
}

TEST_F(CNativeFileSystemTest, LinkThatLeadsNowhereIsSomething) {
    std::filesystem::create_symlink("missing", m_folder.getPath("link"));
    EXPECT_TRUE(m_fileSystem->fileExists(uri("link")));
    EXPECT_FILE_SYSTEM_ERROR(openForReading("link"), Problem::Problem_NotFound,
                             "Cannot open file: No such file or directory", {{"uri", name("link")}});
    const P<IIOStream> stream = openNew("x", "link");
    stream->flush();
    EXPECT_EQ(contents("missing"), "x");
}

TEST_F(CNativeFileSystemTest, LinksInACircleCannotBeFollowed) {
    std::filesystem::create_symlink("b", m_folder.getPath("a"));
    std::filesystem::create_symlink("a", m_folder.getPath("b"));
    const P<IIOStream> stream = open();
    EXPECT_FILE_SYSTEM_ERROR(open("a"), Problem::Problem_Other,
                             "Cannot open file: Too many levels of symbolic links", {{"uri", name("a")}});
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->isFileOfStream(uri("a"), *stream), Problem::Problem_Other,
                             "Cannot look up file: Too many levels of symbolic links", {{"uri", name("a")}});
    const CURI inside = uri("a") << String("x");
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->fileExists(inside), Problem::Problem_Other,
                             "Cannot look up file: Too many levels of symbolic links",
                             {{"uri", inside.toString(true)}});
}

// --- opening

TEST_F(CNativeFileSystemTest, OpenedFilesStayWithThisProgram) {
    const P<IIOStream> stream = open();
    int found = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry.path(), ignored) != m_folder.getPath("file"))
            continue;
        ++found;
        const int descriptor = std::stoi(entry.path().filename());
        EXPECT_EQ(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(::fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    }
    EXPECT_EQ(found, 1);
}

TEST_F(CNativeFileSystemTest, TellsWhyAFileCannotBeOpened) {
    expectOpenFails(EACCES, Problem::Problem_AccessDenied, "Permission denied");
    expectOpenFails(EPERM, Problem::Problem_AccessDenied, "Operation not permitted");
    expectOpenFails(EEXIST, Problem::Problem_AlreadyExists, "File exists");
    expectOpenFails(EROFS, Problem::Problem_ReadOnlyMedium, "Read-only file system");
    expectOpenFails(ENOSPC, Problem::Problem_NoSpace, "No space left on device");
    expectOpenFails(EDQUOT, Problem::Problem_NoSpace, "Disk quota exceeded");
    expectOpenFails(EAGAIN, Problem::Problem_Locked, "Resource temporarily unavailable");
    expectOpenFails(ETXTBSY, Problem::Problem_Locked, "Text file busy");
    expectOpenFails(EINVAL, Problem::Problem_NotSupported, "Invalid argument");
    expectOpenFails(EMFILE, Problem::Problem_Other, "Too many open files");
    expectOpenFails(12345, Problem::Problem_Other, "Error 12345");
}

TEST_F(CNativeFileSystemTest, InterruptedOpenIsTriedAgain) {
    const CSystemCallFaults faults({{.call = Faults::Open, .error = EINTR, .times = 3}});
    EXPECT_NO_THROW(open());
}

TEST_F(CNativeFileSystemTest, LooksAtWhatItHasOpened) {
    openNew("x");
    for (const auto call : {Faults::Stat, Faults::SetFlags}) {
        const CSystemCallFaults faults({{.call = call, .error = EIO}});
        EXPECT_FILE_SYSTEM_ERROR(open(), Problem::Problem_Other, "Cannot open file: Input/output error",
                                 {{"uri", name()}});
        EXPECT_EQ(faults.count(Faults::Close), 1);
    }
}

// --- transfers

TEST_F(CNativeFileSystemTest, ShortAndInterruptedTransfersGoOn) {
    const CSystemCallFaults faults({{.call = Faults::Write, .error = EINTR, .times = 2},
                                    {.call = Faults::Write, .limit = 3, .times = 2},
                                    {.call = Faults::Write, .error = EINTR},
                                    {.call = Faults::Read, .limit = 2, .times = 2},
                                    {.call = Faults::Read, .error = EINTR, .times = 2}});
    const P<IIOStream> stream = openNew("hello world");
    EXPECT_EQ(faults.count(Faults::Write), 6);
    EXPECT_EQ(contents(), "hello world");
    char text[11] = {};
    stream->seek(0);
    stream->read(text, 11);
    EXPECT_EQ(std::string(text, 11), "hello world");
    EXPECT_EQ(faults.count(Faults::Read), 5);
}

TEST_F(CNativeFileSystemTest, FailedReadTellsWhy) {
    const P<IIOStream> stream = openNew("hello");
    stream->seek(1);
    char text[4];
    const CSystemCallFaults faults({{.call = Faults::Read, .error = EIO, .times = 2}});
    EXPECT_LUM_ERROR(stream->read(text, 4), CIOError, 1, "Cannot read from file: Input/output error",
                     {{"uri", name()}, {"position", "1"}, {"bytesToRead", "4"}});
    EXPECT_EQ(stream->getPosition(), 1);
    EXPECT_LUM_ERROR(stream->readLax(text, 4), CIOError, 1, "Cannot read from file: Input/output error",
                     {{"uri", name()}, {"position", "1"}, {"bytesToRead", "4"}});
    EXPECT_NO_THROW(stream->read(text, 4));
}

TEST_F(CNativeFileSystemTest, ReadingFromAFileThatRefusesIt) {
    // A regular file, as far as can be told, of which nothing can be read at its start.
    const P<IIOStream> stream =
        m_fileSystem->openFile(nativePathToURI("/proc/self/mem"), IIOStream::Access_Read);
    char byte = 0;
    EXPECT_LUM_ERROR(stream->read(&byte, 1), CIOError, 1, "Cannot read from file: Input/output error",
                     {{"uri", "file:///proc/self/mem"}, {"position", "0"}, {"bytesToRead", "1"}});
}

TEST_F(CNativeFileSystemTest, FailedWriteTellsWhyAndIsToldOnceMoreByTheNextFlush) {
    const struct {
        int error;
        int code;
        const char* message;
    } rows[] = {
        {EIO, 2, "Cannot write to file: Input/output error"},
        {ENOSPC, 8, "Cannot write to file: No space left on device"},
        {EDQUOT, 8, "Cannot write to file: Disk quota exceeded"},
        {EFBIG, 8, "Cannot write to file: File too large"},
    };
    for (const auto& row : rows) {
        const P<IIOStream> stream = open();
        stream->seek(10);
        const CSystemCallFaults faults(
            {{.call = Faults::Write, .limit = 1}, {.call = Faults::Write, .error = row.error}});
        EXPECT_LUM_ERROR(stream->write("hello", 5), CIOError, row.code, row.message,
                         {{"uri", name()}, {"position", "10"}, {"bytesToWrite", "5"}});
        EXPECT_EQ(stream->getPosition(), 10);
        EXPECT_LUM_ERROR(stream->flush(), CIOError, row.code, row.message,
                         {{"uri", name()}, {"position", "10"}, {"bytesToWrite", "5"}});
        EXPECT_EQ(faults.count(Faults::SyncData), 1); // the rest is made durable all the same
        EXPECT_NO_THROW(stream->flush());
    }
}

TEST_F(CNativeFileSystemTest, WriteThatMakesNoProgressFails) {
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults({{.call = Faults::Write, .limit = 0}});
    EXPECT_LUM_ERROR(stream->write("hello", 5), CIOError, 2, "Cannot write to file: Input/output error",
                     {{"uri", name()}, {"position", "0"}, {"bytesToWrite", "5"}});
    EXPECT_THROW(stream->flush(), CIOError);
}

TEST_F(CNativeFileSystemTest, DestructorReportsAFailedWriteThatNobodyFlushed) {
    CLogRecorder log;
    P<IIOStream> stream = open();
    const CSystemCallFaults faults({{.call = Faults::Write, .error = ENOSPC}});
    EXPECT_THROW(stream->write("hello", 5), CIOError);
    stream = nullptr;
    const auto entries = log.takeEntries();
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(entries[0].level, ILogSink::Level_Error);
    EXPECT_TRUE(entries[0].message.Contains("lum::CFileStream"));
    EXPECT_EQ(entries[0].error, String("Cannot write to file: No space left on device"));
}

TEST_F(CNativeFileSystemTest, FailedChangeOfLengthTellsWhy) {
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults({{.call = Faults::Truncate, .error = EINTR},
                                    {.call = Faults::Truncate, .error = EIO},
                                    {.call = Faults::Truncate, .error = EFBIG}});
    EXPECT_LUM_ERROR(stream->setLength(7), CIOError, 2,
                     "Cannot change the length of the file: Input/output error",
                     {{"uri", name()}, {"length", "7"}});
    EXPECT_LUM_ERROR(stream->setLength(7), CIOError, 8,
                     "Cannot change the length of the file: File too large",
                     {{"uri", name()}, {"length", "7"}});
    stream->setLength(7);
    EXPECT_EQ(stream->getLength(), 7);
}

TEST_F(CNativeFileSystemTest, LengthThatCannotBeToldTellsWhy) {
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults({{.call = Faults::Stat, .error = EIO}});
    EXPECT_LUM_ERROR(stream->getLength(), CIOError, 1,
                     "Cannot find the length of the file: Input/output error", {{"uri", name()}});
}

TEST_F(CNativeFileSystemTest, BlockDevicesAreFilesOfAFixedLength) {
    openNew("hello");
    const CSystemCallFaults faults(
        {{.call = Faults::Stat, .asBlockDevice = true}, {.call = Faults::Seek, .error = EIO}});
    const P<IIOStream> stream = open();
    EXPECT_LUM_ERROR(stream->getLength(), CIOError, 1,
                     "Cannot find the length of the file: Input/output error", {{"uri", name()}});
    EXPECT_EQ(stream->getLength(), 5);
    EXPECT_EQ(faults.count(Faults::Seek), 2);
    EXPECT_LUM_ERROR(stream->setLength(3), CIOError, 13,
                     "Cannot change the length of the file: It is a device",
                     {{"uri", name()}, {"length", "3"}});
    stream->write("H", 1);
    EXPECT_EQ(contents(), "Hello");
}

// --- flushing

TEST_F(CNativeFileSystemTest, FirstFlushOfANewFileFlushesItsFolderToo) {
    const P<IIOStream> stream = openNew("hello");
    const CSystemCallFaults faults(
        {{.call = Faults::SyncData, .error = EINTR}, {.call = Faults::Sync, .error = EINTR}});
    stream->flush();
    EXPECT_EQ(faults.count(Faults::SyncData), 2);
    EXPECT_EQ(faults.count(Faults::Sync), 2);
    EXPECT_EQ(faults.count(Faults::Close), 1); // the folder
    stream->flush();
    EXPECT_EQ(faults.count(Faults::SyncData), 3);
    EXPECT_EQ(faults.count(Faults::Sync), 2);
}

TEST_F(CNativeFileSystemTest, FlushOfAnOldFileLeavesItsFolderAlone) {
    openNew("hello");
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults({});
    stream->flush();
    EXPECT_EQ(faults.count(Faults::SyncData), 1);
    EXPECT_EQ(faults.count(Faults::Sync), 0);
}

TEST_F(CNativeFileSystemTest, FlushOfAStreamForReadingAsksNothing) {
    openNew("hello");
    const P<IIOStream> stream = openForReading();
    const CSystemCallFaults faults({});
    stream->flush();
    EXPECT_EQ(faults.count(Faults::SyncData), 0);
}

TEST_F(CNativeFileSystemTest, FlushWithoutWaitingAsksNothing) {
    m_fileSystem = new CNativeFileSystem(false);
    const CSystemCallFaults faults({{.call = Faults::SyncData, .error = EIO}});
    const P<IIOStream> stream = openNew("hello");
    EXPECT_EQ(faults.count(Faults::Open), 2); // the file is missing, the file is made
    stream->flush();
    EXPECT_EQ(faults.count(Faults::SyncData), 0);
}

TEST_F(CNativeFileSystemTest, AfterAFailedFlushEveryLaterOneFails) {
    const P<IIOStream> stream = openNew("hello");
    const CSystemCallFaults faults({{.call = Faults::SyncData, .error = EIO}});
    for (int i = 0; i < 3; ++i)
        EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot flush file: Input/output error",
                         {{"uri", name()}});
    EXPECT_EQ(faults.count(Faults::SyncData), 1);
    EXPECT_NO_THROW(open()->flush()); // another handle knows nothing of it
}

TEST_F(CNativeFileSystemTest, FlushForWhichThereIsNoSpaceSaysSo) {
    const P<IIOStream> stream = openNew("hello");
    const CSystemCallFaults faults({{.call = Faults::SyncData, .error = ENOSPC}});
    EXPECT_LUM_ERROR(stream->flush(), CIOError, 8, "Cannot flush file: No space left on device",
                     {{"uri", name()}});
}

TEST_F(CNativeFileSystemTest, FailedFlushOfTheFolderIsAFailedFlush) {
    const P<IIOStream> stream = openNew("hello");
    const CSystemCallFaults faults({{.call = Faults::Sync, .error = EIO}});
    for (int i = 0; i < 2; ++i)
        EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot flush file: Input/output error",
                         {{"uri", name()}});
}

TEST_F(CNativeFileSystemTest, FoldersThatCannotBeFlushedAreNotMissed) {
    {
        const P<IIOStream> stream = openNew("hello", "a");
        const CSystemCallFaults faults({{.call = Faults::Sync, .error = EINVAL}});
        EXPECT_NO_THROW(stream->flush());
        EXPECT_EQ(faults.count(Faults::Sync), 1);
    }
    {
        // The file was moved or deleted at once.
        const CSystemCallFaults faults({{.call = Faults::RealPath, .error = ENOENT}});
        const P<IIOStream> stream = openNew("hello", "c");
        EXPECT_NO_THROW(stream->flush());
        EXPECT_EQ(faults.count(Faults::RealPath), 1);
        EXPECT_EQ(faults.count(Faults::Sync), 0);
    }
    {
        // The file is missing, the file is made, its folder may not be opened.
        const CSystemCallFaults faults(
            {{.call = Faults::Open, .times = 2}, {.call = Faults::Open, .error = EACCES}});
        const P<IIOStream> stream = openNew("hello", "b");
        EXPECT_NO_THROW(stream->flush());
        EXPECT_EQ(faults.count(Faults::Sync), 0);
    }
}

TEST_F(CNativeFileSystemTest, FolderThatCannotBeOpenedForWantOfMeansIsToldByTheFirstFlush) {
    {
        // The file is missing, the file is made, there are no descriptors left for its folder.
        const CSystemCallFaults faults(
            {{.call = Faults::Open, .times = 2}, {.call = Faults::Open, .error = EMFILE}});
        const P<IIOStream> stream = openNew("hello", "a");
        const auto error = catchError([&] { stream->flush(); });
        ASSERT_TRUE(error);
        EXPECT_TRUE(matchesError(*error, typeid(CIOError), 2, "Cannot flush file: Too many open files",
                                 {{"uri", name("a")}}));
    }
    {
        const CSystemCallFaults faults({{.call = Faults::RealPath, .error = EIO}});
        const P<IIOStream> stream = openNew("hello", "b");
        EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot flush file: Input/output error",
                         {{"uri", name("b")}});
    }
    EXPECT_EQ(contents("a"), "hello");
    EXPECT_EQ(contents("b"), "hello");
    EXPECT_NO_THROW(open("a")->flush()) << "its name is durable as far as later openers know";
}

// --- closing, locking, looking up

TEST_F(CNativeFileSystemTest, FailedCloseTellsWhyAndIsACloseAllTheSame) {
    const P<IIOStream> stream = openNew("hello");
    stream->flush();
    const CSystemCallFaults faults({{.call = Faults::Close, .error = EIO}});
    EXPECT_LUM_ERROR(stream->close(), CIOError, 2, "Cannot close file: Input/output error",
                     {{"uri", name()}});
    EXPECT_NO_THROW(stream->close());
    EXPECT_EQ(faults.count(Faults::Close), 1);
    EXPECT_LUM_ERROR(stream->getLength(), CIOError, 10, "Stream is closed.", {{"uri", name()}});
}

TEST_F(CNativeFileSystemTest, CloseTellsOfTheFailedWriteBeforeItsOwnFailure) {
    const P<IIOStream> stream = open();
    stream->flush();
    const CSystemCallFaults faults(
        {{.call = Faults::Write, .error = ENOSPC}, {.call = Faults::Close, .error = EIO}});
    EXPECT_THROW(stream->write("x", 1), CIOError);
    EXPECT_LUM_ERROR(stream->close(), CIOError, 8, "Cannot write to file: No space left on device",
                     {{"uri", name()}, {"position", "0"}, {"bytesToWrite", "1"}});
}

TEST_F(CNativeFileSystemTest, FlushTellsOfTheFailedWriteBeforeItsOwnFailure) {
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults(
        {{.call = Faults::Write, .error = ENOSPC}, {.call = Faults::SyncData, .error = EIO}});
    EXPECT_THROW(stream->write("x", 1), CIOError);
    EXPECT_LUM_ERROR(stream->flush(), CIOError, 8, "Cannot write to file: No space left on device",
                     {{"uri", name()}, {"position", "0"}, {"bytesToWrite", "1"}});
    EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot flush file: Input/output error",
                     {{"uri", name()}});
}

TEST_F(CNativeFileSystemTest, CloseOfAFileForReadingCannotLoseAnything) {
    openNew("hello");
    const P<IIOStream> stream = openForReading();
    const CSystemCallFaults faults({{.call = Faults::Close, .error = EIO}});
    EXPECT_NO_THROW(stream->close());
}

TEST_F(CNativeFileSystemTest, FailedLockTellsWhy) {
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults({{.call = Faults::SetLock, .error = EINTR},
                                    {.call = Faults::SetLock, .error = ENOLCK},
                                    {.call = Faults::SetLock, .error = EACCES}});
    EXPECT_FILE_SYSTEM_ERROR(stream->lockRange(3, 0, IStreamBase::LockType_Shared),
                             Problem::Problem_NotSupported, "Cannot lock file: No locks available",
                             {{"uri", name()}, {"start", "3"}, {"length", "0"}});
    EXPECT_FILE_SYSTEM_ERROR(stream->lockRange(3, 4, IStreamBase::LockType_Shared), Problem::Problem_Locked,
                             "Cannot lock file: It is locked by another user or process.",
                             {{"uri", name()}, {"start", "3"}, {"length", "4"}});
    EXPECT_NO_THROW(stream->lockRange(3, 4, IStreamBase::LockType_Shared));
}

TEST_F(CNativeFileSystemTest, FileOfAStreamThatCannotBeToldIsAnError) {
    const P<IIOStream> stream = open();
    const CSystemCallFaults faults({{.call = Faults::Stat, .error = EIO}});
    EXPECT_FILE_SYSTEM_ERROR(m_fileSystem->isFileOfStream(uri(), *stream), Problem::Problem_Other,
                             "Cannot look up file: Input/output error", {{"uri", name()}});
}

TEST_F(CNativeFileSystemTest, RefusesStreamsOfOthers) {
    const P<CMemoryFileSystem> memory(new CMemoryFileSystem);
    TBuffer<unsigned char> buffer;
    for (const P<IIOStream>& stream : {memory->openFile(uri(), IIOStream::Access_ReadWrite),
                                       P<IIOStream>(new CBufferStream(&buffer, 1.0))})
        EXPECT_INVALID_ARG_ERROR(m_fileSystem->isFileOfStream(uri(), *stream),
                                 "CNativeFileSystem::isFileOfStream",
                                 "The stream was not opened by this file system.", {{"uri", name()}});
}
