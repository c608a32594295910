#include "lum/COptimizingIOStream.h"

#include "CFaultFileSystem.h"
#include "CLogRecorder.h"
#include "CRecordingStream.h"
#include "ErrorMatchers.h"
#include "lum/CBufferStream.h"
#include "lum/CDummyWriteBarrier.h"
#include "lum/CMemoryFileSystem.h"

#include <gmock/gmock.h>

#include <string>

using namespace lum;
using namespace tessel::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

using Operation = CRecordingStream::Operation;

Operation readOf(int64 position, int64 size) {
    return {CRecordingStream::Read, position, size};
}
Operation writeOf(int64 position, int64 size) {
    return {CRecordingStream::Write, position, size};
}
const Operation flushOf = {CRecordingStream::Flush};

/// A stream over one that fails on demand, over one that records what gets through, over memory.
class COptimizingIOStreamTest : public ::testing::Test {
protected:
    static constexpr int kibi = 1024;

    void writeAt(int64 position, int size, unsigned char value = 'x') {
        const TBuffer<unsigned char> data = makeData(size, value);
        m_stream->seek(position);
        m_stream->write(data.getData(), size);
    }
    void readAt(int64 position, int size) {
        TBuffer<unsigned char> data(size);
        m_stream->seek(position);
        m_stream->read(data.getData(), size);
    }
    static TBuffer<unsigned char> makeData(int size, unsigned char value) {
        TBuffer<unsigned char> data(size);
        data.fill(value);
        return data;
    }
    /// What the stream below holds, nothing pending.
    std::string contentsBelow() const {
        return std::string(reinterpret_cast<const char*>(m_memory.getData()),
                           static_cast<std::size_t>(m_memory.getUsed()));
    }
    void setContentsBelow(int size) { m_memory.assign(makeData(size, 'o')); }
    TArray<Operation> takeOperations() { return m_below->takeOperations(); }

    /// Refuses writes and flushes while `refuses...` says so.
    class CRefusingStream : public CForwardingStream {
    public:
        using CForwardingStream::CForwardingStream;

        void write(const void* data, int size, IWriteBarrier* barrier) override {
            if (refusesWrites)
                throw CIOError(CIOError::Code_NoSpace, "Full", CProps().add("position", getPosition()));
            CForwardingStream::write(data, size, barrier);
        }
        void flush() override {
            if (refusesFlushes)
                throw CIOError(CIOError::Code_WriteFailed, "No flush");
            CForwardingStream::flush();
        }
        int readLax(void* buffer, int count) override {
            if (getPosition() + count > unreadableFrom)
                throw CIOError(CIOError::Code_ReadFailed, "Unreadable");
            return CForwardingStream::readLax(buffer, count);
        }
        void close() override {
            if (refusesToClose)
                throw CIOError(CIOError::Code_WriteFailed, "No close");
            CForwardingStream::close();
        }

        bool refusesWrites = false;
        bool refusesFlushes = false;
        bool refusesToClose = false;
        int64 unreadableFrom = INT64_MAX;
    };

    CLogRecorder m_log;
    TBuffer<unsigned char> m_memory;
    P<CRecordingStream> m_below{new CRecordingStream(P<IIOStream>(new CBufferStream(&m_memory, 2.0)).get())};
    P<CRefusingStream> m_refusing{new CRefusingStream(m_below.get())};
    P<COptimizingIOStream> m_stream{new COptimizingIOStream(m_refusing.get())};
};

} // namespace

TEST_F(COptimizingIOStreamTest, TakesOverThePositionBelow) {
    m_below->seek(7);
    const COptimizingIOStream stream(m_below.get());
    EXPECT_EQ(stream.getPosition(), 7);
}

TEST_F(COptimizingIOStreamTest, AsksForNoAlignment) {
    EXPECT_EQ(m_stream->getPositionAlignment(), 1);
    EXPECT_EQ(m_stream->getBufferAlignment(), 1);
    EXPECT_EQ(m_stream->getBestPerformanceAlignment(), 4096);
}

// --- reading

TEST_F(COptimizingIOStreamTest, SmallReadsInSequenceReadAhead) {
    setContentsBelow(1024 * kibi);
    m_stream->seek(0);
    unsigned char buffer[512];
    for (int i = 0; i < 2048; ++i)
        m_stream->read(buffer, 512);
    const auto operations = takeOperations();
    EXPECT_LE(operations.size(), 1024u / 64 + 2);
    for (const Operation& operation : operations)
        EXPECT_LE(operation.size, 64 * kibi);
}

TEST_F(COptimizingIOStreamTest, ScatteredSmallReadsReadLittleMoreThanAsked) {
    setContentsBelow(1024 * kibi);
    for (const int64 position : {500'000, 100'000, 300'001, 200'000, 4096}) {
        readAt(position, 500);
        const auto operations = takeOperations();
        ASSERT_THAT(operations, SizeIs(1));
        EXPECT_EQ(operations[0].position, position);
        EXPECT_GE(operations[0].size, 500);
        EXPECT_LT(operations[0].size, 500 + 4096);
    }
}

TEST_F(COptimizingIOStreamTest, SmallReadWithinTheBufferAsksNothingBelow) {
    setContentsBelow(64 * kibi);
    readAt(4096, 100);
    takeOperations();
    readAt(4097, 1000);
    readAt(8191, 1);
    EXPECT_THAT(takeOperations(), IsEmpty());
    readAt(8192, 1);
    EXPECT_THAT(takeOperations(), SizeIs(1));
}

TEST_F(COptimizingIOStreamTest, LargeReadGoesPastTheBuffer) {
    setContentsBelow(256 * kibi);
    readAt(1000, 32 * kibi);
    EXPECT_THAT(takeOperations(), ElementsAre(readOf(1000, 32 * kibi)));
    readAt(1000, 32 * kibi); // nothing was kept
    EXPECT_THAT(takeOperations(), ElementsAre(readOf(1000, 32 * kibi)));
}

TEST_F(COptimizingIOStreamTest, LargeReadTakesFirstWhatIsInTheBuffer) {
    setContentsBelow(256 * kibi);
    readAt(4096, 10);
    takeOperations();
    readAt(8000, 64 * kibi);
    EXPECT_THAT(takeOperations(), ElementsAre(readOf(8192, 64 * kibi - 192)));
}

TEST_F(COptimizingIOStreamTest, ReadAheadStopsAtTheEnd) {
    setContentsBelow(1000);
    m_stream->seek(0);
    unsigned char buffer[400];
    m_stream->read(buffer, 400);
    m_stream->read(buffer, 400);
    EXPECT_EQ(m_stream->readLax(buffer, 400), 200);
    EXPECT_EQ(m_stream->readLax(buffer, 400), 0);
}

TEST_F(COptimizingIOStreamTest, WhatCannotBeReadAheadCostsNothingBeforeIt) {
    setContentsBelow(64 * kibi);
    m_refusing->unreadableFrom = 1000;
    readAt(0, 600);
    readAt(600, 400);
    EXPECT_LUM_ERROR(readAt(600, 401), CIOError, 1, "Unreadable");
    EXPECT_LUM_ERROR(readAt(990, 32 * kibi), CIOError, 1, "Unreadable");
    m_refusing->unreadableFrom = INT64_MAX;
    EXPECT_NO_THROW(readAt(990, 400));
}

TEST_F(COptimizingIOStreamTest, LockingForgetsWhatOthersMayHaveChanged) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    const CURI uri(String("memory:/a"));
    const P<IIOStream> other = fileSystem->openFile(uri, IIOStream::Access_ReadWrite);
    other->write("old", 3);
    COptimizingIOStream stream(fileSystem->openFile(uri, IIOStream::Access_ReadWrite).get());
    char text[3];
    stream.read(text, 3);
    other->seek(0);
    other->write("new", 3);
    const P<IStreamLock> lock = stream.lockRange(0, 0, IStreamBase::LockType_Shared);
    stream.seek(0);
    stream.read(text, 3);
    EXPECT_EQ(std::string(text, 3), "new");
}

// --- writing

TEST_F(COptimizingIOStreamTest, NeighbouringSmallWritesAreJoined) {
    for (int i = 0; i < 100; ++i)
        writeAt(i * 100, 100);
    EXPECT_THAT(takeOperations(), IsEmpty());
    EXPECT_EQ(m_stream->getLength(), 10'000);
    m_stream->flush();
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(0, 10'000), flushOf));
}

TEST_F(COptimizingIOStreamTest, RewritingPendingBytesJoinsThem) {
    writeAt(100, 100, 'a');
    writeAt(150, 100, 'b');
    writeAt(120, 10, 'c');
    m_stream->flush();
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(100, 150), flushOf));
    EXPECT_EQ(contentsBelow(), std::string(100, '\0') + std::string(20, 'a') + std::string(10, 'c') +
                                   std::string(20, 'a') + std::string(100, 'b'));
}

TEST_F(COptimizingIOStreamTest, WritesReachBelowInTheirOrder) {
    writeAt(1000, 10);
    writeAt(5000, 10);
    writeAt(5010, 10);
    writeAt(0, 10);
    m_stream->flush();
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(1000, 10), writeOf(5000, 20), writeOf(0, 10), flushOf));
}

TEST_F(COptimizingIOStreamTest, WriteBeforePendingBytesIsNotJoined) {
    writeAt(1000, 10);
    writeAt(995, 10);
    m_stream->flush();
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(1000, 10), writeOf(995, 10), flushOf));
}

TEST_F(COptimizingIOStreamTest, JoinedWritesAreLimited) {
    for (int i = 0; i < 100; ++i)
        writeAt(i * 20 * kibi, 20 * kibi);
    m_stream->flush();
    const auto operations = takeOperations();
    EXPECT_THAT(operations, SizeIs(34 + 1));
    EXPECT_EQ(operations[0], writeOf(0, 60 * kibi));
    EXPECT_EQ(operations[33], writeOf(99 * 20 * kibi, 20 * kibi));
}

TEST_F(COptimizingIOStreamTest, LargeWritePushesOutPendingOnesFirst) {
    writeAt(0, 10);
    writeAt(10, 32 * kibi);
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(0, 10), writeOf(10, 32 * kibi)));
}

TEST_F(COptimizingIOStreamTest, BarriersKeepTheOrderBelow) {
    writeAt(0, 10);
    const P<IWriteBarrier> barrier = m_stream->createWriteBarrier(nullptr);
    writeAt(10, 10);
    m_stream->write("abc", 3, barrier.get());
    EXPECT_THAT(takeOperations(),
                ElementsAre(writeOf(0, 10), Operation{CRecordingStream::Barrier}, writeOf(10, 10),
                            Operation{CRecordingStream::WriteWithBarrier, 20, 3}));
}

TEST_F(COptimizingIOStreamTest, SetLengthFollowsTheWritesBeforeIt) {
    writeAt(0, 10);
    m_stream->setLength(5);
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(0, 10), Operation{CRecordingStream::SetLength, 5}));
    EXPECT_EQ(m_stream->getLength(), 5);
}

TEST_F(COptimizingIOStreamTest, CloseWritesWhatIsPendingAndClosesBelow) {
    writeAt(0, 10);
    m_stream->close();
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(0, 10)));
    EXPECT_THROW(m_below->getLength(), CIOError);
}

TEST_F(COptimizingIOStreamTest, DestructorWritesWhatIsPendingAndLeavesTheStreamBelowOpen) {
    writeAt(0, 10);
    m_stream = nullptr;
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(0, 10)));
    EXPECT_EQ(m_below->getLength(), 10);
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(COptimizingIOStreamTest, ReadsAndLengthTellOfPendingWrites) {
    setContentsBelow(100);
    writeAt(50, 10, 'p');
    writeAt(95, 10, 'q');
    EXPECT_EQ(m_stream->getLength(), 105);
    EXPECT_THAT(takeOperations(), ElementsAre(writeOf(50, 10)));
    TBuffer<unsigned char> data(105);
    m_stream->seek(0);
    m_stream->read(data.getData(), 105);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.getData()), 105),
              std::string(50, 'o') + std::string(10, 'p') + std::string(35, 'o') + std::string(10, 'q'));
    // Reading writes nothing.
    for (const Operation& operation : takeOperations())
        EXPECT_EQ(operation.kind, CRecordingStream::Read);
}

TEST_F(COptimizingIOStreamTest, PendingBytesAreReadWithoutAskingBelow) {
    writeAt(1000, 100);
    readAt(1020, 50);
    EXPECT_THAT(takeOperations(), IsEmpty());
    m_stream->seek(1000);
    EXPECT_TRUE(m_stream->waitReadable(0));
    EXPECT_EQ(m_stream->isEndOfStream_NonBlocking(), 0);
}

// --- failures

TEST_F(COptimizingIOStreamTest, PendingWriteThatFailsIsKeptAndTriedAgain) {
    m_refusing->refusesWrites = true;
    writeAt(10, 5, 'a');
    EXPECT_LUM_ERROR(writeAt(100, 5, 'b'), CIOError, 8, "Full", {{"position", "10"}});
    EXPECT_EQ(m_stream->getPosition(), 100);
    EXPECT_EQ(m_stream->getLength(), 15);
    readAt(10, 5);

    m_refusing->refusesWrites = false;
    writeAt(100, 5, 'c'); // the first one gets through on the way
    EXPECT_LUM_ERROR(m_stream->flush(), CIOError, 8, "Full", {{"position", "10"}});
    EXPECT_NO_THROW(m_stream->flush());
    EXPECT_EQ(contentsBelow(),
              std::string(10, '\0') + std::string(5, 'a') + std::string(85, '\0') + std::string(5, 'c'));
}

TEST_F(COptimizingIOStreamTest, FlushThrowsUntilThePendingWriteGetsThrough) {
    m_refusing->refusesWrites = true;
    writeAt(10, 5);
    for (int i = 0; i < 3; ++i)
        EXPECT_LUM_ERROR(m_stream->flush(), CIOError, 8, "Full", {{"position", "10"}});
    m_refusing->refusesWrites = false;
    EXPECT_NO_THROW(m_stream->flush());
    EXPECT_EQ(contentsBelow().size(), 15u);
}

TEST_F(COptimizingIOStreamTest, SmallWriteToAStreamForReadingIsToldByFlushAndByTheDestructor) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    const CURI uri(String("memory:/a"));
    fileSystem->openFile(uri, IIOStream::Access_ReadWrite)->write("old", 3);
    P<IIOStream> stream(new COptimizingIOStream(fileSystem->openFile(uri, IIOStream::Access_Read).get()));
    stream->write("new", 3);
    for (int i = 0; i < 2; ++i)
        EXPECT_LUM_ERROR(stream->flush(), CIOError, 2,
                         "Cannot write to file: It was opened for reading only.",
                         {{"uri", "memory:/a"}, {"position", "0"}, {"bytesToWrite", "3"}});
    stream = nullptr;
    EXPECT_THAT(m_log.takeEntries(), Not(IsEmpty()));
}

TEST_F(COptimizingIOStreamTest, FailedLargeWriteIsToldByItsCallAndByTheNextFlush) {
    m_refusing->refusesWrites = true;
    EXPECT_LUM_ERROR(writeAt(0, 40 * kibi), CIOError, 8, "Full", {{"position", "0"}});
    m_refusing->refusesWrites = false;
    EXPECT_EQ(m_stream->getPosition(), 0);
    EXPECT_LUM_ERROR(m_stream->flush(), CIOError, 8, "Full", {{"position", "0"}});
    EXPECT_NO_THROW(m_stream->flush());
    EXPECT_EQ(m_stream->getLength(), 0);
}

TEST_F(COptimizingIOStreamTest, FlushThrowsTheFirstOfSeveralFailures) {
    m_refusing->refusesWrites = true;
    EXPECT_THROW(writeAt(111, 40 * kibi), CIOError);
    EXPECT_THROW(writeAt(222, 40 * kibi), CIOError);
    m_refusing->refusesFlushes = true;
    EXPECT_LUM_ERROR(m_stream->flush(), CIOError, 8, "Full", {{"position", "111"}});
    EXPECT_LUM_ERROR(m_stream->flush(), CIOError, 2, "No flush");
    m_refusing->refusesFlushes = false;
    EXPECT_NO_THROW(m_stream->flush());
}

TEST_F(COptimizingIOStreamTest, LargeWriteWaitsForThePendingOneBeforeIt) {
    m_refusing->refusesWrites = true;
    writeAt(0, 10, 'a');
    EXPECT_THROW(writeAt(10, 40 * kibi, 'b'), CIOError);
    m_refusing->refusesWrites = false;
    EXPECT_THROW(m_stream->flush(), CIOError);
    EXPECT_EQ(contentsBelow(), std::string(10, 'a'));
}

TEST_F(COptimizingIOStreamTest, SetLengthWaitsForThePendingWriteBeforeIt) {
    m_refusing->refusesWrites = true;
    writeAt(0, 10);
    EXPECT_THROW(m_stream->setLength(5), CIOError);
    EXPECT_EQ(m_stream->getLength(), 10);
    EXPECT_THAT(takeOperations(), IsEmpty());
    m_refusing->refusesWrites = false;
}

TEST_F(COptimizingIOStreamTest, BytesReadBeforeAFailedWriteAreNotBelieved) {
    // The write is done by half below.
    const P<CMemoryFileSystem> memory(new CMemoryFileSystem);
    const P<CFaultFileSystem> faults(new CFaultFileSystem(memory.get()));
    const P<IIOStream> below = faults->openFile(CURI(String("memory:/a")), IIOStream::Access_ReadWrite);
    below->setLength(100'000);
    COptimizingIOStream stream(below.get());
    stream.seek(0);
    char text[4];
    stream.read(text, 4);
    faults->addRule({.operation = FaultRule::Write, .kind = FaultRule::Short});
    const TBuffer<unsigned char> data = makeData(40 * kibi, 'x');
    stream.seek(0);
    EXPECT_THROW(stream.write(data.getData(), 40 * kibi), CIOError);
    stream.read(text, 4);
    EXPECT_EQ(std::string(text, 4), "xxxx");
    EXPECT_THROW(stream.flush(), CIOError);
}

TEST_F(COptimizingIOStreamTest, CloseThrowsWhatFailedAndClosesAllTheSame) {
    m_refusing->refusesWrites = true;
    m_refusing->refusesToClose = true;
    writeAt(10, 5);
    EXPECT_LUM_ERROR(m_stream->close(), CIOError, 8, "Full", {{"position", "10"}});
    EXPECT_NO_THROW(m_stream->close());
    EXPECT_LUM_ERROR(m_stream->flush(), CIOError, 10, "Stream is closed.");
    m_stream = nullptr;
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_F(COptimizingIOStreamTest, CloseThrowsWhatTheStreamBelowThrows) {
    m_refusing->refusesToClose = true;
    EXPECT_LUM_ERROR(m_stream->close(), CIOError, 2, "No close");
    EXPECT_NO_THROW(m_stream->close());
}

TEST_F(COptimizingIOStreamTest, DestructorReportsAPendingWriteThatFails) {
    m_refusing->refusesWrites = true;
    writeAt(10, 5);
    m_stream = nullptr;
    const auto entries = m_log.takeEntries();
    ASSERT_THAT(entries, SizeIs(1));
    EXPECT_EQ(entries[0].level, ILogSink::Level_Error);
    EXPECT_TRUE(entries[0].message.Contains("lum::COptimizingIOStream"));
    EXPECT_EQ(entries[0].error, String("Full"));
}

TEST_F(COptimizingIOStreamTest, DestructorReportsAFailureThatNobodyFlushed) {
    m_refusing->refusesWrites = true;
    EXPECT_THROW(writeAt(10, 40 * kibi), CIOError);
    m_stream = nullptr;
    EXPECT_THAT(m_log.takeEntries(), SizeIs(1));
}
