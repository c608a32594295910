#include "lum/IIOStream.h"

#include "Bytes.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "Streams.h"

#include <gmock/gmock.h>

#include <climits>
#include <string>

using namespace lum;
using namespace tessel::test;
using ::testing::IsEmpty;

namespace {

/// What every stream promises.
class IIOStreamContract : public ::testing::TestWithParam<StreamKind> {
protected:
    IIOStream& stream() { return *m_setUp.stream; }

    /// Parameters of an error: "uri" first, where the stream is on a file.
    void expectProps(const CError& error, std::vector<CProps::Entry> props) {
        if (m_setUp.onFile)
            props.insert(props.begin(), {"uri", stream().getURI().toString(true)});
        EXPECT_EQ(error.getProps().getEntries(), props);
    }
    void expectIOError(int code, const char* message, const std::vector<CProps::Entry>& props,
                       const std::function<void()>& action) {
        const auto error = catchError(action);
        ASSERT_TRUE(error);
        EXPECT_TRUE(dynamic_cast<const CIOError*>(error.get()));
        EXPECT_EQ(error->getCode(), code);
        EXPECT_EQ(error->getMessage(), String(message));
        expectProps(*error, props);
    }
    void expectInvalidArg(const char* source, const char* message, const std::function<void()>& action) {
        const auto error = catchError(action);
        ASSERT_TRUE(error);
        const auto* const invalidArg = dynamic_cast<const CInvalidArgError*>(error.get());
        ASSERT_TRUE(invalidArg);
        EXPECT_EQ(invalidArg->getSource(), String(source));
        EXPECT_EQ(error->getMessage(), String(message));
        expectProps(*error, {});
    }

    void put(const std::string& text) { stream().write(text.data(), static_cast<int>(text.size())); }
    void putAt(int64 position, const std::string& text) {
        stream().seek(position);
        put(text);
    }
    std::string get(int count) {
        std::string text(static_cast<std::size_t>(count), '?');
        stream().read(text.data(), count);
        return text;
    }
    std::string getAt(int64 position, int count) {
        stream().seek(position);
        return get(count);
    }
    std::string getAll() { return getAt(0, static_cast<int>(stream().getLength())); }

    CLogRecorder m_log; // first, so that it sees what the stream's destructor logs
    StreamUnderTest m_setUp = GetParam().make();
};

std::string zeros(int count) {
    return std::string(static_cast<std::size_t>(count), '\0');
}

} // namespace

INSTANTIATE_TEST_SUITE_P(All, IIOStreamContract, ::testing::ValuesIn(getStreamKinds()),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(IIOStreamContract, BeginsEmptyAtItsStart) {
    EXPECT_EQ(stream().getLength(), 0);
    EXPECT_EQ(stream().getPosition(), 0);
    EXPECT_TRUE(stream().isEndOfStream());
    EXPECT_EQ(stream().isEndOfStream_NonBlocking(), 1);
    EXPECT_TRUE(stream().waitReadable(0));
    char byte = 0;
    EXPECT_EQ(stream().readLax(&byte, 1), 0);
}

TEST_P(IIOStreamContract, ReadsWhatWasWritten) {
    put("hello");
    EXPECT_EQ(stream().getPosition(), 5);
    EXPECT_EQ(stream().getLength(), 5);
    EXPECT_EQ(getAt(1, 3), "ell");
    EXPECT_EQ(stream().getPosition(), 4);
    EXPECT_FALSE(stream().isEndOfStream());
    EXPECT_EQ(stream().isEndOfStream_NonBlocking(), 0);
    EXPECT_TRUE(stream().waitReadable(0));
    EXPECT_EQ(get(1), "o");
    EXPECT_TRUE(stream().isEndOfStream());
}

TEST_P(IIOStreamContract, OverwritesInPlace) {
    put("hello world");
    putAt(3, "XYZ");
    EXPECT_EQ(getAll(), "helXYZworld");
    putAt(9, "1234");
    EXPECT_EQ(getAll(), "helXYZwor1234");
}

TEST_P(IIOStreamContract, KeepsWhatWasWrittenOverAFlush) {
    put("hello");
    stream().flush();
    stream().flush();
    EXPECT_EQ(stream().getPosition(), 5);
    EXPECT_EQ(getAll(), "hello");
}

TEST_P(IIOStreamContract, LongTransfers) {
    const std::string text = patternText(300'000);
    put(text);
    EXPECT_EQ(getAll(), text);
    EXPECT_EQ(getAt(65'530, 70'000), text.substr(65'530, 70'000));
    putAt(100'000, patternText(50'000));
    EXPECT_EQ(getAt(99'999, 50'002), text.substr(99'999, 1) + patternText(50'000) + text.substr(150'000, 1));
}

TEST_P(IIOStreamContract, GapBeforeAWriteReadsAsZeros) {
    put("ab");
    putAt(100'000, "cd");
    EXPECT_EQ(stream().getLength(), 100'002);
    EXPECT_EQ(getAll(), "ab" + zeros(99'998) + "cd");
}

TEST_P(IIOStreamContract, SeekPastTheEndChangesNothing) {
    put("ab");
    stream().seek(1000);
    EXPECT_EQ(stream().getPosition(), 1000);
    EXPECT_EQ(stream().getLength(), 2);
    EXPECT_TRUE(stream().isEndOfStream());
    char byte = 0;
    EXPECT_EQ(stream().readLax(&byte, 1), 0);
    EXPECT_EQ(stream().getPosition(), 1000);
}

TEST_P(IIOStreamContract, ExactReadFailsAcrossAndAtTheEnd) {
    put("hello");
    char buffer[8];
    stream().seek(3);
    expectIOError(4, "Unexpected end of data.", {{"position", "3"}, {"bytesToRead", "3"}},
                  [&] { stream().read(buffer, 3); });
    EXPECT_EQ(stream().getPosition(), 3);
    stream().seek(5);
    expectIOError(4, "Unexpected end of data.", {{"position", "5"}, {"bytesToRead", "1"}},
                  [&] { stream().read(buffer, 1); });
    stream().seek(INT64_MAX);
    expectIOError(4, "Unexpected end of data.", {{"position", toDecimal(INT64_MAX)}, {"bytesToRead", "8"}},
                  [&] { stream().read(buffer, 8); });
}

TEST_P(IIOStreamContract, LaxReadStopsAtTheEnd) {
    put("hello");
    char buffer[100'000] = {};
    stream().seek(3);
    EXPECT_EQ(stream().readLax(buffer, 10), 2);
    EXPECT_EQ(std::string(buffer, 2), "lo");
    EXPECT_EQ(stream().getPosition(), 5);
    EXPECT_EQ(stream().readLax(buffer, 10), 0);
    stream().seek(1);
    EXPECT_EQ(stream().readAvailable(buffer, sizeof buffer), 4);
    EXPECT_EQ(std::string(buffer, 4), "ello");
    EXPECT_EQ(stream().readAvailable(buffer, 1), 0);
}

TEST_P(IIOStreamContract, LaxReadNearTheLastPositionFindsTheEnd) {
    char buffer[16];
    for (const int64 position : {INT64_MAX, INT64_MAX - 7, INT64_MAX - 100'000}) {
        stream().seek(position);
        EXPECT_EQ(stream().readLax(buffer, 16), 0);
        EXPECT_EQ(stream().getPosition(), position);
    }
}

TEST_P(IIOStreamContract, TransfersOfNothing) {
    stream().seek(10);
    stream().write(nullptr, 0);
    EXPECT_EQ(stream().getLength(), 0);
    stream().read(nullptr, 0);
    EXPECT_EQ(stream().readLax(nullptr, 0), 0);
    EXPECT_EQ(stream().getPosition(), 10);
    stream().seek(INT64_MAX);
    stream().write(nullptr, 0);
    stream().flush();
    EXPECT_EQ(stream().getLength(), 0);
}

TEST_P(IIOStreamContract, WriteBeyondTheLastPositionFails) {
    stream().seek(INT64_MAX - 3);
    expectIOError(8, "Write exceeds the largest possible length.",
                  {{"position", toDecimal(INT64_MAX - 3)}, {"bytesToWrite", "4"}}, [&] { put("abcd"); });
    EXPECT_EQ(stream().getPosition(), INT64_MAX - 3);
    EXPECT_EQ(stream().getLength(), 0);
}

TEST_P(IIOStreamContract, NegativePositionIsRefused) {
    put("hello");
    stream().seek(2);
    expectIOError(7, "Invalid stream position.", {{"position", "-1"}}, [&] { stream().seek(-1); });
    expectIOError(7, "Invalid stream position.", {{"position", toDecimal(INT64_MIN)}},
                  [&] { stream().seek(INT64_MIN); });
    EXPECT_EQ(stream().getPosition(), 2);
}

TEST_P(IIOStreamContract, NegativeCountsAreRefused) {
    char byte = 0;
    expectInvalidArg("IInStream::read", "Invalid count: -1", [&] { stream().read(&byte, -1); });
    expectInvalidArg("IInStream::read", "Invalid count: -2", [&] { stream().readLax(&byte, -2); });
    expectInvalidArg("IInStream::read", "Invalid count: -3", [&] { stream().readAvailable(&byte, -3); });
    expectInvalidArg("IOutStream::write", "Invalid count: -4", [&] { stream().write(&byte, -4); });
    expectInvalidArg("IOutStream::setLength", "Invalid length: -5", [&] { stream().setLength(-5); });
    EXPECT_NO_THROW(stream().flush());
    EXPECT_EQ(stream().getLength(), 0);
}

TEST_P(IIOStreamContract, SetLengthCuts) {
    put("hello");
    stream().setLength(2);
    EXPECT_EQ(stream().getLength(), 2);
    EXPECT_EQ(stream().getPosition(), 5);
    EXPECT_EQ(getAll(), "he");
    stream().setLength(0);
    EXPECT_EQ(stream().getLength(), 0);
}

TEST_P(IIOStreamContract, SetLengthGrowsWithZeros) {
    put("hello");
    stream().setLength(100'000);
    EXPECT_EQ(stream().getLength(), 100'000);
    EXPECT_EQ(stream().getPosition(), 5);
    EXPECT_EQ(getAll(), "hello" + zeros(99'995));
}

TEST_P(IIOStreamContract, WhatWasCutOffDoesNotComeBack) {
    put(patternText(200'000));
    stream().setLength(70'000);
    stream().setLength(200'000);
    EXPECT_EQ(getAll(), patternText(70'000) + zeros(130'000));
    stream().setLength(10);
    putAt(20, "x");
    EXPECT_EQ(getAll(), patternText(10) + zeros(10) + "x");
}

TEST_P(IIOStreamContract, KeptBufferMayBeChangedAfterTheCall) {
    TBuffer<unsigned char> buffer(reinterpret_cast<const unsigned char*>("hello"), 5);
    stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer, 1, 3));
    buffer.fill('x');
    EXPECT_EQ(getAll(), "ell");
    stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer, 0, 0));
    EXPECT_EQ(stream().getLength(), 3);
}

TEST_P(IIOStreamContract, WritesMayNameBarriers) {
    put("a");
    const P<IWriteBarrier> first = stream().createWriteBarrier(nullptr);
    ASSERT_TRUE(first);
    stream().write("b", 1, first.get());
    const P<IWriteBarrier> second = stream().createWriteBarrier(first.get());
    const TBuffer<unsigned char> buffer(reinterpret_cast<const unsigned char*>("c"), 1);
    stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer), second.get());
    EXPECT_EQ(getAll(), "abc");
}

TEST_P(IIOStreamContract, UseAfterCloseFails) {
    put("hello");
    const CURI uri = stream().getURI();
    stream().close();
    char byte = 0;
    const TBuffer<unsigned char> buffer(1);
    const std::vector<std::function<void()>> uses = {
        [&] { stream().getLength(); },
        [&] { stream().getPosition(); },
        [&] { stream().seek(0); },
        [&] { stream().lockRange(0, 1, IStreamBase::LockType_Shared); },
        [&] { stream().read(&byte, 1); },
        [&] { stream().read(&byte, 0); },
        [&] { stream().readLax(&byte, 1); },
        [&] { stream().readAvailable(&byte, 1); },
        [&] { stream().waitReadable(0); },
        [&] { stream().isEndOfStream(); },
        [&] { stream().isEndOfStream_NonBlocking(); },
        [&] { stream().write(&byte, 1); },
        [&] { stream().write(&byte, 0); },
        [&] { stream().writeKeepBuffer(TConstBufferSlice<unsigned char>(buffer)); },
        [&] { stream().createWriteBarrier(nullptr); },
        [&] { stream().flush(); },
        [&] { stream().setLength(1); },
    };
    for (std::size_t i = 0; i < uses.size(); ++i) {
        SCOPED_TRACE(i);
        expectIOError(10, "Stream is closed.", {}, uses[i]);
    }
    EXPECT_NO_THROW(stream().close());
    EXPECT_EQ(stream().getURI(), uri);
}

TEST_P(IIOStreamContract, LivesAndDiesInSilence) {
    put("hello");
    m_setUp.stream = nullptr;
    EXPECT_THAT(m_log.takeEntries(), IsEmpty());
}

TEST_P(IIOStreamContract, PositionsBeyond4GiB) {
    if (!m_setUp.onFile) {
        // A buffer holds all its bytes: it has no such positions, and can only tell that it ends before.
        char byte = 0;
        stream().seek(int64(1) << 40);
        EXPECT_EQ(stream().readLax(&byte, 1), 0);
        return;
    }
    const int64 tebi = int64(1) << 40;
    putAt(tebi + 3, "far");
    EXPECT_EQ(stream().getLength(), tebi + 6);
    EXPECT_EQ(getAt(tebi, 6), zeros(3) + "far");
    EXPECT_EQ(getAt((int64(1) << 32) - 2, 4), zeros(4));
    putAt((int64(1) << 32) - 2, "four");
    EXPECT_EQ(getAt((int64(1) << 32) - 3, 6), zeros(1) + "four" + zeros(1));
    EXPECT_EQ(getAt(0, 4), zeros(4));
    stream().setLength(tebi + 4);
    EXPECT_EQ(getAt(tebi, 4), zeros(3) + "f");
    stream().setLength(2 * tebi);
    EXPECT_EQ(stream().getLength(), 2 * tebi);
    EXPECT_EQ(getAt(2 * tebi - 4, 4), zeros(4));
}
