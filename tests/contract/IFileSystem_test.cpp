#include "lum/IFileSystem.h"

#include "ErrorMatchers.h"
#include "FileSystems.h"

#include <gtest/gtest.h>

#include <string>

using namespace lum;
using namespace tessel::test;

namespace {

using Problem = CFileSystemError::Problem;

/// What every file system promises.
class IFileSystemContract : public ::testing::TestWithParam<FileSystemKind> {
protected:
    CURI uri(const char* name) const { return m_setUp.folder << String(name); }
    IFileSystem& fileSystem() const { return *m_setUp.fileSystem; }
    const wchar_t* strangeName() const { return m_setUp.strangeName; }

    P<IIOStream> open(const char* name) {
        return fileSystem().openFile(uri(name), IIOStream::Access_ReadWrite);
    }
    P<IIOStream> openForReading(const char* name) {
        return fileSystem().openFile(uri(name), IIOStream::Access_Read);
    }
    void put(const char* name, const std::string& text) {
        open(name)->write(text.data(), static_cast<int>(text.size()));
    }
    static std::string contentsOf(IIOStream& stream) {
        std::string text(static_cast<std::size_t>(stream.getLength()), '\0');
        stream.seek(0);
        stream.read(text.data(), static_cast<int>(text.size()));
        return text;
    }

private:
    FileSystemUnderTest m_setUp = GetParam().make();
};

constexpr auto shared = IStreamBase::LockType_Shared;
constexpr auto exclusive = IStreamBase::LockType_Exclusive;
constexpr const char* lockedMessage = "Cannot lock file: It is locked by another user or process.";

/// True when the range can be locked; the lock goes at once.
bool canLock(IIOStream& stream, int64 start, int64 length, IStreamBase::LockType type) {
    try {
        stream.lockRange(start, length, type);
        return true;
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProblem(), Problem::Problem_Locked);
        return false;
    }
}

} // namespace

INSTANTIATE_TEST_SUITE_P(All, IFileSystemContract, ::testing::ValuesIn(getFileSystemKinds()),
                         [](const auto& kind) { return std::string(kind.param.name); });

TEST_P(IFileSystemContract, WritingAccessCreatesAMissingFile) {
    EXPECT_FALSE(fileSystem().fileExists(uri("a")));
    const P<IIOStream> stream = open("a");
    EXPECT_TRUE(fileSystem().fileExists(uri("a")));
    EXPECT_EQ(stream->getLength(), 0);
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_EQ(stream->getURI(), uri("a"));
}

TEST_P(IFileSystemContract, WritingAccessKeepsWhatAFileHolds) {
    put("a", "hello");
    EXPECT_EQ(contentsOf(*open("a")), "hello");
}

TEST_P(IFileSystemContract, ReadingAccessFindsWhatWasWritten) {
    put("a", "hello");
    const P<IIOStream> stream = openForReading("a");
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_EQ(contentsOf(*stream), "hello");
}

TEST_P(IFileSystemContract, ReadingAccessMakesNothing) {
    EXPECT_FILE_SYSTEM_ERROR(openForReading("a"), Problem::Problem_NotFound,
                             "Cannot open file: No such file or directory",
                             {{"uri", uri("a").toString(true)}});
    EXPECT_FALSE(fileSystem().fileExists(uri("a")));
}

TEST_P(IFileSystemContract, EmptyURINamesNoFile) {
    EXPECT_FILE_SYSTEM_ERROR(fileSystem().openFile(CURI(), IIOStream::Access_ReadWrite),
                             Problem::Problem_NotFound, "Cannot open file: No such file or directory");
    EXPECT_FALSE(fileSystem().fileExists(CURI()));
}

TEST_P(IFileSystemContract, EscapesAndDotsDoNotMakeAnotherName) {
    put("a", "hello");
    EXPECT_TRUE(fileSystem().fileExists(CURI(uri("").toString(false) + "./%61")));
}

TEST_P(IFileSystemContract, NamesMayHoldAnyCharacter) {
    for (const wchar_t* const name : {L"with blank", L"50%", strangeName(), L"\x00e4\x20ac"}) {
        const CURI file = uri("folder").getParent() << String(name);
        fileSystem().openFile(file, IIOStream::Access_ReadWrite)->write("x", 1);
        EXPECT_TRUE(fileSystem().fileExists(file));
        EXPECT_EQ(fileSystem().openFile(file, IIOStream::Access_Read)->getLength(), 1);
    }
}

TEST_P(IFileSystemContract, StreamsOnOneFileSeeEachOthersChanges) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IIOStream> reader = openForReading("a");
    a->write("hello", 5);
    EXPECT_EQ(b->getLength(), 5);
    EXPECT_EQ(b->getPosition(), 0);
    b->seek(1);
    b->write("E", 1);
    EXPECT_EQ(contentsOf(*a), "hEllo");
    EXPECT_EQ(contentsOf(*reader), "hEllo");
    b->setLength(2);
    EXPECT_EQ(contentsOf(*a), "hE");
}

TEST_P(IFileSystemContract, ReadingAccessRefusesEveryChange) {
    put("a", "hello");
    const P<IIOStream> stream = openForReading("a");
    const String name = uri("a").toString(true);
    stream->seek(2);
    EXPECT_LUM_ERROR(stream->write("x", 1), CIOError, 2,
                     "Cannot write to file: It was opened for reading only.",
                     {{"uri", name}, {"position", "2"}, {"bytesToWrite", "1"}});
    EXPECT_LUM_ERROR(stream->setLength(9), CIOError, 2,
                     "Cannot change the length of the file: It was opened for reading only.",
                     {{"uri", name}, {"length", "9"}});
    EXPECT_EQ(stream->getPosition(), 2);
    EXPECT_EQ(contentsOf(*stream), "hello");
    // What was refused is told once more, then there is nothing to flush.
    EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot write to file: It was opened for reading only.",
                     {{"uri", name}, {"position", "2"}, {"bytesToWrite", "1"}});
    EXPECT_NO_THROW(stream->flush());
}

TEST_P(IFileSystemContract, CloseTellsOfARefusedWriteThatNobodyFlushed) {
    put("a", "hello");
    const P<IIOStream> stream = openForReading("a");
    EXPECT_THROW(stream->write("x", 1), CIOError);
    EXPECT_THROW(stream->close(), CIOError);
    EXPECT_NO_THROW(stream->close());
    EXPECT_THROW(stream->getLength(), CIOError);
}

TEST_P(IFileSystemContract, DeletedFileIsGone) {
    put("a", "hello");
    put("b", "other");
    fileSystem().deleteFile(uri("a"), false);
    EXPECT_FALSE(fileSystem().fileExists(uri("a")));
    EXPECT_TRUE(fileSystem().fileExists(uri("b")));
}

TEST_P(IFileSystemContract, DeletingAMissingFile) {
    EXPECT_NO_THROW(fileSystem().deleteFile(uri("a"), true));
    EXPECT_FILE_SYSTEM_ERROR(fileSystem().deleteFile(uri("a"), false), Problem::Problem_NotFound,
                             "Cannot delete file: No such file or directory",
                             {{"uri", uri("a").toString(true)}});
}

TEST_P(IFileSystemContract, DeletedFileLivesOnForThoseWhoHaveItOpen) {
    put("a", "hello");
    const P<IIOStream> old = open("a");
    const P<IIOStream> other = open("a");
    fileSystem().deleteFile(uri("a"), false);
    put("a", "new");
    old->write("H", 1);
    EXPECT_EQ(contentsOf(*other), "Hello");
    EXPECT_EQ(contentsOf(*openForReading("a")), "new");
}

TEST_P(IFileSystemContract, KnowsWhichFileAStreamIsOn) {
    put("b", "");
    const P<IIOStream> stream = open("a");
    EXPECT_TRUE(fileSystem().isFileOfStream(uri("a"), *stream));
    EXPECT_TRUE(fileSystem().isFileOfStream(uri("a"), *openForReading("a")));
    EXPECT_FALSE(fileSystem().isFileOfStream(uri("b"), *stream));
    EXPECT_FALSE(fileSystem().isFileOfStream(uri("missing"), *stream));

    fileSystem().deleteFile(uri("a"), false);
    EXPECT_FALSE(fileSystem().isFileOfStream(uri("a"), *stream));
    const P<IIOStream> next = open("a");
    EXPECT_FALSE(fileSystem().isFileOfStream(uri("a"), *stream));
    EXPECT_TRUE(fileSystem().isFileOfStream(uri("a"), *next));

    next->close();
    EXPECT_LUM_ERROR(fileSystem().isFileOfStream(uri("a"), *next), CIOError, 10, "Stream is closed.",
                     {{"uri", uri("a").toString(true)}});
}

TEST_P(IFileSystemContract, SharedLocksLetEachOtherBe) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IIOStream> c = openForReading("a");
    const P<IStreamLock> lock = a->lockRange(0, 10, shared);
    EXPECT_TRUE(canLock(*b, 0, 10, shared));
    EXPECT_TRUE(canLock(*c, 0, 10, shared));
    EXPECT_FALSE(canLock(*b, 0, 10, exclusive));
}

TEST_P(IFileSystemContract, ExclusiveLockExcludesOthers) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IStreamLock> lock = a->lockRange(0, 10, exclusive);
    EXPECT_FALSE(canLock(*b, 0, 10, shared));
    EXPECT_FILE_SYSTEM_ERROR(b->lockRange(5, 1, exclusive), Problem::Problem_Locked, lockedMessage,
                             {{"uri", uri("a").toString(true)}, {"start", "5"}, {"length", "1"}});
    EXPECT_TRUE(canLock(*open("b"), 0, 10, exclusive));
}

TEST_P(IFileSystemContract, LocksExcludeWithinTheirRangeOnly) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IStreamLock> lock = a->lockRange(10, 10, exclusive);
    EXPECT_TRUE(canLock(*b, 0, 10, exclusive));
    EXPECT_FALSE(canLock(*b, 0, 11, exclusive));
    EXPECT_FALSE(canLock(*b, 19, 1, exclusive));
    EXPECT_TRUE(canLock(*b, 20, 1, exclusive));
    EXPECT_FALSE(canLock(*b, 12, 3, exclusive));
    EXPECT_FALSE(canLock(*b, 0, 100, exclusive));
}

TEST_P(IFileSystemContract, LengthZeroLocksAllThatFollows) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IStreamLock> lock = a->lockRange(10, 0, exclusive);
    EXPECT_TRUE(canLock(*b, 0, 10, exclusive));
    EXPECT_FALSE(canLock(*b, 10, 1, exclusive));
    EXPECT_FALSE(canLock(*b, INT64_MAX - 5, 1, exclusive));
    EXPECT_FALSE(canLock(*b, 100, 0, exclusive));
}

TEST_P(IFileSystemContract, UnlockReleasesTheRange) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IStreamLock> first = a->lockRange(0, 10, exclusive);
    const P<IStreamLock> second = a->lockRange(10, 10, exclusive);
    first->unlock();
    EXPECT_TRUE(canLock(*b, 0, 10, exclusive));
    EXPECT_FALSE(canLock(*b, 10, 10, exclusive));
    const P<IStreamLock> taken = b->lockRange(0, 10, exclusive);
    first->unlock(); // again: not what others hold
    EXPECT_FALSE(canLock(*a, 0, 10, exclusive));
}

TEST_P(IFileSystemContract, LettingGoOfALockReleasesTheRange) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    P<IStreamLock> lock = a->lockRange(0, 10, exclusive);
    P<IStreamLock> otherHolder = lock;
    lock = nullptr;
    EXPECT_FALSE(canLock(*b, 0, 10, exclusive));
    otherHolder = nullptr;
    EXPECT_TRUE(canLock(*b, 0, 10, exclusive));
}

TEST_P(IFileSystemContract, CloseReleasesItsLocks) {
    const P<IIOStream> a = open("a");
    P<IIOStream> b = open("a");
    const P<IIOStream> c = open("a");
    const P<IStreamLock> lock = a->lockRange(0, 10, exclusive);
    a->close();
    const P<IStreamLock> next = b->lockRange(0, 10, exclusive);
    lock->unlock(); // of a closed stream: releases nothing
    EXPECT_FALSE(canLock(*c, 0, 10, exclusive));
    b = nullptr;
    EXPECT_TRUE(canLock(*c, 0, 10, exclusive));
}

TEST_P(IFileSystemContract, LocksSurviveTheClosingOfOtherStreams) {
    const P<IIOStream> a = open("a");
    const P<IIOStream> b = open("a");
    const P<IStreamLock> lock = a->lockRange(0, 10, exclusive);
    open("a")->close();
    openForReading("a")->close();
    EXPECT_FALSE(canLock(*b, 0, 10, exclusive));
}

TEST_P(IFileSystemContract, RangesOfOneStreamMayNotOverlap) {
    const P<IIOStream> a = open("a");
    const P<IStreamLock> lock = a->lockRange(10, 10, shared);
    EXPECT_FALSE(canLock(*a, 19, 5, shared));
    EXPECT_TRUE(canLock(*a, 20, 5, exclusive));
    lock->unlock();
    EXPECT_TRUE(canLock(*a, 10, 10, exclusive));
}

TEST_P(IFileSystemContract, ExclusiveLockNeedsWritingAccess) {
    put("a", "hello");
    const P<IIOStream> stream = openForReading("a");
    EXPECT_FILE_SYSTEM_ERROR(stream->lockRange(0, 1, exclusive), Problem::Problem_AccessDenied,
                             "Cannot lock file: It was opened for reading only.",
                             {{"uri", uri("a").toString(true)}, {"start", "0"}, {"length", "1"}});
    EXPECT_TRUE(canLock(*stream, 0, 1, shared));
}

TEST_P(IFileSystemContract, LocksDoNotHinderTransfers) {
    const P<IIOStream> a = open("a");
    const P<IStreamLock> lock = a->lockRange(0, 0, exclusive);
    put("a", "hello");
    EXPECT_EQ(contentsOf(*openForReading("a")), "hello");
}

TEST_P(IFileSystemContract, LockOfADeletedFileDoesNotConcernItsSuccessor) {
    const P<IIOStream> old = open("a");
    const P<IStreamLock> lock = old->lockRange(0, 1, exclusive);
    fileSystem().deleteFile(uri("a"), false);
    EXPECT_TRUE(canLock(*open("a"), 0, 1, exclusive));
}

TEST_P(IFileSystemContract, ImpossibleRangesAreRefused) {
    const P<IIOStream> stream = open("a");
    const String name = uri("a").toString(true);
    EXPECT_INVALID_ARG_ERROR(stream->lockRange(-1, 1, shared), "IStreamBase::lockRange", "Invalid range.",
                             {{"uri", name}, {"start", "-1"}, {"length", "1"}});
    EXPECT_INVALID_ARG_ERROR(stream->lockRange(0, -1, shared), "IStreamBase::lockRange", "Invalid range.",
                             {{"uri", name}, {"start", "0"}, {"length", "-1"}});
    EXPECT_INVALID_ARG_ERROR(stream->lockRange(INT64_MAX, 1, shared), "IStreamBase::lockRange",
                             "Invalid range.",
                             {{"uri", name}, {"start", toDecimal(INT64_MAX)}, {"length", "1"}});
}
