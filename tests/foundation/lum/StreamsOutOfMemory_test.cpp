#include "../AllocationHook.h"
#include "lum/CBufferStream.h"
#include "lum/CFileSystemError.h"
#include "lum/CMemoryFileSystem.h"
#include "lum/COptimizingIOStream.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <string>

using namespace lum;
using namespace tessel::test;

// What runs out of memory has changed nothing.

namespace {

const CURI uri(String("memory:/folder/a"));

/// Runs `action` with its first, second ... allocation failing, and `check` after each failure, until it
/// needs no more of them. Returns how many failures there were.
int failEachAllocation(const std::function<void()>& action, const std::function<void()>& check) {
    for (int n = 1;; ++n) {
        try {
            const CFailingAllocation failing(n);
            action();
            return n - 1;
        } catch (const std::bad_alloc&) {
        }
        check();
    }
}

std::string contentsOf(IIOStream& stream) {
    std::string text(static_cast<std::size_t>(stream.getLength()), '\0');
    const int64 position = stream.getPosition();
    stream.seek(0);
    stream.read(text.data(), static_cast<int>(text.size()));
    stream.seek(position);
    return text;
}

/// A write over the end of what a stream holds.
void expectWriteIsWholeOrNotAtAll(IIOStream& stream, int size) {
    const std::string before(10, 'a');
    const std::string added(static_cast<std::size_t>(size), 'b');
    stream.write(before.data(), 10);
    stream.seek(5);
    const int failures = failEachAllocation([&] { stream.write(added.data(), size); },
                                            [&] {
                                                EXPECT_EQ(stream.getPosition(), 5);
                                                EXPECT_EQ(contentsOf(stream), before);
                                            });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(stream.getPosition(), 5 + size);
    EXPECT_TRUE(contentsOf(stream) == before.substr(0, 5) + added);
}

} // namespace

TEST(StreamsOutOfMemory, FileInMemoryIsMadeWholeOrNotAtAll) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    P<IIOStream> stream;
    const int failures =
        failEachAllocation([&] { stream = fileSystem->openFile(uri, IIOStream::Access_ReadWrite); },
                           [&] { EXPECT_FALSE(fileSystem->fileExists(uri)); });
    EXPECT_GT(failures, 0);
    EXPECT_TRUE(fileSystem->isFileOfStream(uri, *stream));
}

TEST(StreamsOutOfMemory, WriteToAFileInMemory) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    expectWriteIsWholeOrNotAtAll(*fileSystem->openFile(uri, IIOStream::Access_ReadWrite), 200'000);
}

TEST(StreamsOutOfMemory, WriteToABuffer) {
    TBuffer<unsigned char> buffer;
    CBufferStream stream(&buffer, 1.0);
    expectWriteIsWholeOrNotAtAll(stream, 1000);
}

TEST(StreamsOutOfMemory, WriteThatIsJoined) {
    TBuffer<unsigned char> buffer;
    COptimizingIOStream stream(P<IIOStream>(new CBufferStream(&buffer, 1.0)).get());
    const int failures = failEachAllocation([&] { stream.write("hello", 5); },
                                            [&] {
                                                EXPECT_EQ(stream.getPosition(), 0);
                                                EXPECT_EQ(stream.getLength(), 0);
                                            });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(contentsOf(stream), "hello");
}

TEST(StreamsOutOfMemory, FlushKeepsWhatItCannotWrite) {
    TBuffer<unsigned char> buffer;
    COptimizingIOStream stream(P<IIOStream>(new CBufferStream(&buffer, 1.0)).get());
    stream.write("hello", 5);
    const int failures =
        failEachAllocation([&] { stream.flush(); }, [&] { EXPECT_EQ(contentsOf(stream), "hello"); });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(buffer.getUsed(), 5);
}

TEST(StreamsOutOfMemory, ReadThatFillsTheBuffer) {
    TBuffer<unsigned char> buffer(100);
    COptimizingIOStream stream(P<IIOStream>(new CBufferStream(&buffer, 1.0)).get());
    char text[10];
    const int failures =
        failEachAllocation([&] { stream.read(text, 10); }, [&] { EXPECT_EQ(stream.getPosition(), 0); });
    EXPECT_GT(failures, 0);
    EXPECT_EQ(stream.getPosition(), 10);
}

TEST(StreamsOutOfMemory, RangeThatCouldNotBeLockedIsFree) {
    const P<CMemoryFileSystem> fileSystem(new CMemoryFileSystem);
    const P<IIOStream> stream = fileSystem->openFile(uri, IIOStream::Access_ReadWrite);
    const P<IIOStream> other = fileSystem->openFile(uri, IIOStream::Access_ReadWrite);
    P<IStreamLock> lock;
    const int failures = failEachAllocation(
        [&] { lock = stream->lockRange(0, 10, IStreamBase::LockType_Exclusive); },
        [&] { EXPECT_NO_THROW(other->lockRange(0, 10, IStreamBase::LockType_Exclusive)); });
    EXPECT_GT(failures, 0);
    EXPECT_THROW(other->lockRange(0, 10, IStreamBase::LockType_Exclusive), CFileSystemError);
}
