#include "CFaultFileSystem.h"

#include "ErrorMatchers.h"
#include "lum/CMemoryFileSystem.h"

#include <gtest/gtest.h>

using namespace lum;
using namespace tessel::test;

namespace {

const CURI uriA(String("memory:/folder/a.bin"));
const CURI uriB(String("memory:/folder/b.bin"));
const String nameA("memory:/folder/a.bin");

class CFaultFileSystemTest : public ::testing::Test {
protected:
    P<IIOStream> open(const CURI& uri = uriA) { return m_faults->openFile(uri, IIOStream::Access_ReadWrite); }

    /// True when writing `size` bytes at `position` fails.
    static bool failsToWrite(IIOStream& stream, int64 position, int size = 10) {
        const TBuffer<unsigned char> data(size);
        stream.seek(position);
        try {
            stream.write(data.getData(), size);
            return false;
        } catch (const CIOError&) {
            return true;
        }
    }

    P<CMemoryFileSystem> m_memory{new CMemoryFileSystem};
    P<CFaultFileSystem> m_faults{new CFaultFileSystem(m_memory.get())};
};

} // namespace

TEST_F(CFaultFileSystemTest, ChangesNothingWithoutRules) {
    const P<IIOStream> stream = open();
    stream->write("hello", 5);
    stream->flush();
    stream->seek(0);
    char text[5] = {};
    stream->read(text, 5);
    EXPECT_EQ(std::string(text, 5), "hello");
    EXPECT_EQ(m_faults->getHits(), 0);
    EXPECT_EQ(m_faults->getOperations(), 4);
}

TEST_F(CFaultFileSystemTest, FailsTheNthOperationOnce) {
    m_faults->addRule({.operation = FaultRule::Write, .nth = 2});
    const P<IIOStream> stream = open();
    EXPECT_FALSE(failsToWrite(*stream, 0));
    EXPECT_TRUE(failsToWrite(*stream, 0));
    EXPECT_FALSE(failsToWrite(*stream, 0));
    EXPECT_EQ(m_faults->getHits(), 1);
}

TEST_F(CFaultFileSystemTest, FailsAlwaysFromTheNthOn) {
    m_faults->addRule({.operation = FaultRule::Write, .nth = 2, .always = true});
    const P<IIOStream> stream = open();
    EXPECT_FALSE(failsToWrite(*stream, 0));
    EXPECT_TRUE(failsToWrite(*stream, 0));
    EXPECT_TRUE(failsToWrite(*stream, 0));
    m_faults->clearRules();
    EXPECT_FALSE(failsToWrite(*stream, 0));
}

TEST_F(CFaultFileSystemTest, FailsOnlyTheFilesNamed) {
    m_faults->addRule({.fileSuffix = "b.bin"});
    const P<IIOStream> stream = open(uriA);
    EXPECT_FALSE(failsToWrite(*stream, 0));
    EXPECT_FILE_SYSTEM_ERROR(open(uriB), CFileSystemError::Problem_AccessDenied,
                             "Cannot open file: Injected fault", {{"uri", uriB.toString(true)}});
}

TEST_F(CFaultFileSystemTest, FailsOnlyTransfersThatTouchTheRange) {
    m_faults->addRule({.operation = FaultRule::Write, .rangeStart = 100, .rangeEnd = 200, .always = true});
    const P<IIOStream> stream = open();
    EXPECT_FALSE(failsToWrite(*stream, 90));
    EXPECT_TRUE(failsToWrite(*stream, 91));
    EXPECT_TRUE(failsToWrite(*stream, 199));
    EXPECT_FALSE(failsToWrite(*stream, 200));
}

TEST_F(CFaultFileSystemTest, FailsEveryOperationInTurn) {
    const auto run = [this] {
        const P<IIOStream> stream = open();
        stream->write("hello", 5);
        stream->flush();
        stream->seek(0);
        char text[5];
        stream->read(text, 5);
        stream->setLength(2);
        stream->lockRange(0, 1, IStreamBase::LockType_Shared);
        m_faults->deleteFile(uriA, false);
    };
    run();
    const int operations = m_faults->getOperations();
    EXPECT_EQ(operations, 7);
    for (int n = 1; n <= operations; ++n) {
        m_faults->clearRules();
        m_faults->addRule({.nth = n});
        EXPECT_THROW(run(), CError) << n;
        EXPECT_EQ(m_faults->getHits(), n);
    }
    m_faults->clearRules();
    m_faults->addRule({.nth = operations + 1});
    EXPECT_NO_THROW(run());
}

TEST_F(CFaultFileSystemTest, RefusedWriteChangesNothingAndIsToldAgainByTheNextFlush) {
    const P<IIOStream> stream = open();
    m_faults->addRule({.operation = FaultRule::Write});
    EXPECT_LUM_ERROR(stream->write("hello", 5), CIOError, 2, "Cannot write to file: Injected fault",
                     {{"uri", nameA}, {"position", "0"}, {"bytesToWrite", "5"}});
    EXPECT_EQ(stream->getLength(), 0);
    EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot write to file: Injected fault",
                     {{"uri", nameA}, {"position", "0"}, {"bytesToWrite", "5"}});
    EXPECT_NO_THROW(stream->flush());
}

TEST_F(CFaultFileSystemTest, CloseTellsOfARefusedWriteNobodyFlushed) {
    const P<IIOStream> stream = open();
    m_faults->addRule({.operation = FaultRule::Write});
    EXPECT_TRUE(failsToWrite(*stream, 0));
    EXPECT_THROW(stream->close(), CIOError);
    EXPECT_NO_THROW(stream->close());
}

TEST_F(CFaultFileSystemTest, ShortWriteLeavesHalf) {
    const P<IIOStream> stream = open();
    m_faults->addRule({.operation = FaultRule::Write, .kind = FaultRule::Short});
    EXPECT_TRUE(failsToWrite(*stream, 4, 10));
    EXPECT_EQ(stream->getLength(), 9);
    EXPECT_EQ(stream->getPosition(), 4);
}

TEST_F(CFaultFileSystemTest, TornWriteLeavesEverySecondSector) {
    const P<IIOStream> stream = open();
    const std::string ones(2000, '1');
    const std::string twos(1500, '2');
    stream->write(ones.data(), 2000);
    m_faults->addRule({.operation = FaultRule::Write, .kind = FaultRule::Torn});
    stream->seek(100);
    EXPECT_THROW(stream->write(twos.data(), 1500), CIOError);
    EXPECT_EQ(stream->getPosition(), 100);
    std::string found(2000, '0');
    stream->seek(0);
    stream->read(found.data(), 2000);
    EXPECT_EQ(found, std::string(512, '1') + std::string(512, '2') + std::string(512, '1') +
                         std::string(64, '2') + std::string(400, '1'));
}

TEST_F(CFaultFileSystemTest, FullDisk) {
    const P<IIOStream> stream = open();
    m_faults->addRule({.kind = FaultRule::FullDisk, .always = true});
    EXPECT_LUM_ERROR(stream->write("hello", 5), CIOError, 8, "Cannot write to file: Injected fault",
                     {{"uri", nameA}, {"position", "0"}, {"bytesToWrite", "5"}});
    EXPECT_LUM_ERROR(stream->setLength(7), CIOError, 8,
                     "Cannot change the length of the file: Injected fault",
                     {{"uri", nameA}, {"length", "7"}});
    EXPECT_FILE_SYSTEM_ERROR(open(uriB), CFileSystemError::Problem_NoSpace,
                             "Cannot open file: Injected fault", {{"uri", uriB.toString(true)}});
}

TEST_F(CFaultFileSystemTest, ReadsFail) {
    const P<IIOStream> stream = open();
    stream->write("abcdefgh", 8);
    char text[8] = {};
    const auto expectFault = [&](auto read) {
        m_faults->addRule({.operation = FaultRule::Read, .kind = FaultRule::Short});
        stream->seek(0);
        EXPECT_LUM_ERROR(read(), CIOError, 1, "Cannot read from file: Injected fault",
                         {{"uri", nameA}, {"position", "0"}, {"bytesToRead", "8"}});
        EXPECT_EQ(std::string(text), "abcd");
        EXPECT_EQ(stream->getPosition(), 0);
    };
    expectFault([&] { stream->read(text, 8); });
    expectFault([&] { stream->readLax(text, 8); });
    expectFault([&] { stream->readAvailable(text, 8); });
    EXPECT_EQ(stream->readLax(text, 8), 8);
    stream->seek(0);
    EXPECT_EQ(stream->readAvailable(text, 8), 8);
}

TEST_F(CFaultFileSystemTest, FlushSetLengthLockAndDeleteFail) {
    const P<IIOStream> stream = open();
    m_faults->addRule({.operation = FaultRule::Flush});
    EXPECT_LUM_ERROR(stream->flush(), CIOError, 2, "Cannot flush file: Injected fault", {{"uri", nameA}});

    m_faults->addRule({.operation = FaultRule::SetLength, .kind = FaultRule::Short});
    EXPECT_LUM_ERROR(stream->setLength(100), CIOError, 2,
                     "Cannot change the length of the file: Injected fault",
                     {{"uri", nameA}, {"length", "100"}});
    EXPECT_EQ(stream->getLength(), 50);

    m_faults->addRule({.operation = FaultRule::Lock, .rangeStart = 5});
    EXPECT_NO_THROW(stream->lockRange(4, 1, IStreamBase::LockType_Shared));
    EXPECT_FILE_SYSTEM_ERROR(stream->lockRange(4, 0, IStreamBase::LockType_Shared),
                             CFileSystemError::Problem_Locked, "Cannot lock file: Injected fault",
                             {{"uri", nameA}, {"start", "4"}, {"length", "0"}});

    m_faults->addRule({.operation = FaultRule::Delete});
    EXPECT_FILE_SYSTEM_ERROR(m_faults->deleteFile(uriA, true), CFileSystemError::Problem_AccessDenied,
                             "Cannot delete file: Injected fault", {{"uri", nameA}});
    EXPECT_TRUE(m_faults->fileExists(uriA));
}

TEST_F(CFaultFileSystemTest, KnowsItsOwnStreams) {
    const P<IIOStream> stream = open();
    EXPECT_TRUE(m_faults->isFileOfStream(uriA, *stream));
    EXPECT_FALSE(m_faults->isFileOfStream(uriB, *stream));
    const P<IIOStream> foreign = m_memory->openFile(uriA, IIOStream::Access_Read);
    EXPECT_INVALID_ARG_ERROR(m_faults->isFileOfStream(uriA, *foreign), "CFaultFileSystem::isFileOfStream",
                             "The stream was not opened by this file system.", {{"uri", nameA}});
}
