#include "Bytes.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "Streams.h"
#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKDiskIOStream.h"

#include <gtest/gtest.h>

#include <climits>

using namespace lum;
using namespace tessel::test;
using tessel::CVMDKDisk;
using tessel::CVMDKDiskIOStream;

namespace {

/// The smallest disk that there is, and the length of every stream here.
constexpr int length = 8 << 20;

StreamUnderTest makeDiskStream(const String& password, bool compressed, int64 maxFileSize, bool onDemand) {
    const auto files = std::make_shared<P<IFileSystem>>(new CMemoryFileSystem);
    const P<CVMDKDisk> disk = CVMDKDisk::create(files->get(), CURI("memory:///disk.vmdk"), length, password,
                                                compressed, 1, maxFileSize, "", 0xFFFFFFFF, onDemand);
    return {files, P<IIOStream>(new CVMDKDiskIOStream(disk.get())), true};
}

/// Every stream, of one length that is never changed, and disks, which have no other.
std::vector<StreamKind> getFixedLengthStreamKinds() {
    std::vector<StreamKind> kinds = getStreamKinds();
    for (StreamKind& kind : kinds)
        kind.make = [make = kind.make] {
            StreamUnderTest result = make();
            result.stream->setLength(length);
            return result;
        };
    kinds.push_back({"PlainDisk", [] { return makeDiskStream("", false, -1, false); }});
    kinds.push_back({"CompressedDisk", [] { return makeDiskStream("", true, -1, false); }});
    kinds.push_back({"EncryptedDisk", [] { return makeDiskStream("secret", true, -1, false); }});
    kinds.push_back({"SplitDisk", [] { return makeDiskStream("", false, 2 << 20, true); }});
    return kinds;
}

/// What every stream promises that does not rest on a change of its length.
class FixedLengthStreamContract : public ::testing::TestWithParam<StreamKind> {
protected:
    IIOStream& stream() { return *m_setUp.stream; }
    void putAt(int64 position, const std::string& text) {
        stream().seek(position);
        stream().write(text.data(), static_cast<int>(text.size()));
    }
    std::string getAt(int64 position, int count) {
        stream().seek(position);
        std::string text(static_cast<std::size_t>(count), '?');
        stream().read(text.data(), count);
        return text;
    }

    CLogRecorder m_log; // first, so that it sees what the stream's destructor logs
    StreamUnderTest m_setUp = GetParam().make();
};

} // namespace

INSTANTIATE_TEST_SUITE_P(All, FixedLengthStreamContract, ::testing::ValuesIn(getFixedLengthStreamKinds()),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(FixedLengthStreamContract, BeginsWithZerosAtItsStart) {
    EXPECT_EQ(stream().getLength(), length);
    stream().seek(0);
    EXPECT_FALSE(stream().isEndOfStream());
    EXPECT_EQ(stream().isEndOfStream_NonBlocking(), 0);
    EXPECT_TRUE(stream().waitReadable(0));
    EXPECT_EQ(getAt(length - 1000, 1000), std::string(1000, '\0'));
    EXPECT_TRUE(stream().isEndOfStream());
    EXPECT_EQ(stream().isEndOfStream_NonBlocking(), 1);
}

TEST_P(FixedLengthStreamContract, ReadsWhatWasWritten) {
    putAt(100, "hello world");
    EXPECT_EQ(stream().getPosition(), 111);
    putAt(103, "XYZ");
    EXPECT_EQ(getAt(99, 13), std::string("\0helXYZworld\0", 13));
    EXPECT_EQ(stream().getPosition(), 112);
    stream().flush();
    EXPECT_EQ(stream().getPosition(), 112);
    EXPECT_EQ(getAt(100, 11), "helXYZworld");
}

TEST_P(FixedLengthStreamContract, LongTransfers) {
    const std::string text = patternText(300'000, 1);
    putAt(65'000, text);
    EXPECT_EQ(getAt(65'000, 300'000), text);
    putAt(165'000, patternText(50'000, 7));
    stream().flush();
    EXPECT_EQ(getAt(164'999, 50'002),
              text.substr(99'999, 1) + patternText(50'000, 7) + text.substr(150'000, 1));
}

TEST_P(FixedLengthStreamContract, WritesUpToItsEnd) {
    putAt(length - 5, "hello");
    EXPECT_EQ(stream().getPosition(), length);
    EXPECT_TRUE(stream().isEndOfStream());
    EXPECT_EQ(stream().getLength(), length);
    EXPECT_EQ(getAt(length - 6, 6), std::string("\0hello", 6));
}

TEST_P(FixedLengthStreamContract, ExactReadAcrossTheEndFails) {
    char buffer[10] = {};
    stream().seek(length - 5);
    const auto error = catchError([&] { stream().read(buffer, 6); });
    ASSERT_TRUE(error);
    EXPECT_TRUE(dynamic_cast<const CIOError*>(error.get()));
    EXPECT_EQ(error->getCode(), CIOError::Code_UnexpectedEnd);
}

TEST_P(FixedLengthStreamContract, LaxReadStopsAtTheEnd) {
    putAt(length - 5, "hello");
    char buffer[100'000] = {};
    stream().seek(length - 2);
    EXPECT_EQ(stream().readLax(buffer, 10), 2);
    EXPECT_EQ(std::string(buffer, 2), "lo");
    EXPECT_EQ(stream().getPosition(), length);
    EXPECT_EQ(stream().readLax(buffer, 10), 0);
    stream().seek(length - 4);
    EXPECT_EQ(stream().readAvailable(buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "ello");
    EXPECT_EQ(stream().readAvailable(buffer, 1), 0);
}

TEST_P(FixedLengthStreamContract, TransfersOfNothing) {
    stream().seek(10);
    stream().write(nullptr, 0);
    stream().read(nullptr, 0);
    EXPECT_EQ(stream().readLax(nullptr, 0), 0);
    EXPECT_EQ(stream().getPosition(), 10);
    stream().seek(length);
    stream().write(nullptr, 0);
    stream().read(nullptr, 0);
    stream().flush();
    EXPECT_EQ(stream().getLength(), length);
}

TEST_P(FixedLengthStreamContract, NegativePositionIsRefused) {
    stream().seek(2);
    for (const int64 position : {int64{-1}, INT64_MIN}) {
        const auto error = catchError([&] { stream().seek(position); });
        ASSERT_TRUE(error);
        EXPECT_TRUE(dynamic_cast<const CIOError*>(error.get()));
        EXPECT_EQ(error->getCode(), 7);
    }
    EXPECT_EQ(stream().getPosition(), 2);
}

TEST_P(FixedLengthStreamContract, NegativeCountsAreRefused) {
    char byte = 0;
    stream().seek(3);
    const std::vector<std::function<void()>> uses = {
        [&] { stream().read(&byte, -1); },
        [&] { stream().readLax(&byte, -2); },
        [&] { stream().readAvailable(&byte, -3); },
        [&] { stream().write(&byte, -4); },
    };
    for (const auto& use : uses) {
        const auto error = catchError(use);
        ASSERT_TRUE(error);
        EXPECT_TRUE(dynamic_cast<const CInvalidArgError*>(error.get()));
    }
    EXPECT_NO_THROW(stream().flush());
    EXPECT_EQ(stream().getPosition(), 3);
}

TEST_P(FixedLengthStreamContract, KeptBufferMayBeChangedAfterTheCall) {
    stream().seek(0);
    TBuffer<unsigned char> buffer(reinterpret_cast<const unsigned char*>("hello"), 5);
    stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer, 1, 3));
    buffer.fill('x');
    EXPECT_EQ(stream().getPosition(), 3);
    EXPECT_EQ(getAt(0, 4), std::string("ell\0", 4));
}

TEST_P(FixedLengthStreamContract, WritesMayNameBarriers) {
    putAt(0, "a");
    const P<IWriteBarrier> first = stream().createWriteBarrier(nullptr);
    ASSERT_TRUE(first);
    stream().write("b", 1, first.get());
    const P<IWriteBarrier> second = stream().createWriteBarrier(first.get());
    const TBuffer<unsigned char> buffer(reinterpret_cast<const unsigned char*>("c"), 1);
    stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer), second.get());
    EXPECT_EQ(getAt(0, 3), "abc");
}

TEST_P(FixedLengthStreamContract, UseAfterCloseFails) {
    const CURI uri = stream().getURI();
    stream().close();
    char byte = 0;
    const TBuffer<unsigned char> buffer(1);
    const std::vector<std::function<void()>> uses = {
        [&] { stream().getLength(); },
        [&] { stream().getPosition(); },
        [&] { stream().seek(0); },
        [&] { stream().read(&byte, 1); },
        [&] { stream().readLax(&byte, 1); },
        [&] { stream().readAvailable(&byte, 1); },
        [&] { stream().waitReadable(0); },
        [&] { stream().isEndOfStream(); },
        [&] { stream().isEndOfStream_NonBlocking(); },
        [&] { stream().write(&byte, 1); },
        [&] { stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer)); },
        [&] { stream().createWriteBarrier(nullptr); },
        [&] { stream().flush(); },
    };
    for (std::size_t i = 0; i < uses.size(); ++i) {
        SCOPED_TRACE(i);
        const auto error = catchError(uses[i]);
        ASSERT_TRUE(error);
        EXPECT_TRUE(dynamic_cast<const CIOError*>(error.get()));
        EXPECT_EQ(error->getCode(), 10);
    }
    EXPECT_NO_THROW(stream().close());
    EXPECT_EQ(stream().getURI(), uri);
}

TEST_P(FixedLengthStreamContract, LivesAndDiesInSilence) {
    putAt(0, "hello");
    m_setUp.stream = nullptr;
    // A disk tells those who debug what it finds; nothing of it is a warning.
    for (const CLogRecorder::Entry& entry : m_log.takeEntries())
        EXPECT_LT(entry.level, ILogSink::Level_Warning) << entry.message.toUTF8Lossy();
}
