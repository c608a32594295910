#include "Copy.h"

#include "Errors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

using namespace tessel;
using namespace tessel::cli;

namespace {

using Bytes = std::vector<unsigned char>;

/// Numbered blocks of 64 bytes, and zeros in the second half of every 256 KiB.
Bytes makeImage(int size) {
    Bytes bytes(static_cast<std::size_t>(size));
    for (std::size_t block = 0; block * 64 < bytes.size(); ++block)
        if (block * 64 / 131072 % 2 == 0)
            bytes[block * 64] = static_cast<unsigned char>(block % 251 + 1);
    return bytes;
}

class CFakeSource : public ISource {
public:
    explicit CFakeSource(int size, bool knowsSize = true)
        : m_knowsSize(knowsSize), m_bytes(makeImage(size)) {}

    const Bytes& getBytes() const { return m_bytes; }
    void failAt(int64 position) { m_failAt = position; }

    int64 getSizeBytes() const override { return m_knowsSize ? getLength() : -1; }
    USourceRun findRun(int64 position) override {
        if (!m_knowsSize)
            return {INT64_MAX / 2, true};
        return {131072 - position % 131072, position / 131072 % 2 == 0};
    }
    int read(int64 position, unsigned char* buffer, int count) override {
        EXPECT_GE(position, m_next) << "what was read already, or out of order";
        const int got = static_cast<int>(std::clamp<int64>(getLength() - position, 0, count));
        std::copy_n(m_bytes.begin() + position, got, buffer);
        if (position + got > m_failAt)
            throw CFailure("source", "broken");
        m_next = position + got;
        return got;
    }

private:
    int64 getLength() const { return static_cast<int64>(m_bytes.size()); }

    bool m_knowsSize;
    Bytes m_bytes;
    int64 m_next = 0;
    int64 m_failAt = INT64_MAX;
};

class CFakeSink : public ISink {
public:
    const Bytes& getBytes() const { return m_bytes; }
    int64 getFinishedSize() const { return m_finishedSize; }
    std::size_t getThreadCount() const { return m_threads.size(); }
    void failAt(int64 position) { m_failAt = position; }
    void failToPrepareAt(int64 position) { m_failToPrepareAt = position; }

    void prepare(CPiece& piece) override {
        const std::lock_guard lock(m_mutex);
        m_threads.insert(std::this_thread::get_id());
        if (piece.getPosition() + piece.getSizeBytes() > m_failToPrepareAt)
            throw CFailure("preparing", "broken");
    }
    void write(CPiece& piece) override {
        EXPECT_EQ(piece.getPosition(), static_cast<int64>(m_bytes.size()));
        EXPECT_EQ(piece.getPosition() % copyAlignment, 0);
        if (piece.getPosition() + piece.getSizeBytes() > m_failAt)
            throw CFailure("sink", "broken");
        m_bytes.insert(m_bytes.end(), piece.getBytes(), piece.getBytes() + piece.getSizeBytes());
    }
    void writeZeros(int64 position, int64 sizeBytes) override {
        EXPECT_EQ(position, static_cast<int64>(m_bytes.size()));
        m_bytes.resize(m_bytes.size() + static_cast<std::size_t>(sizeBytes));
    }
    void finish(int64 sizeBytes) override { m_finishedSize = sizeBytes; }

private:
    std::mutex m_mutex;
    std::set<std::thread::id> m_threads;
    Bytes m_bytes;
    int64 m_finishedSize = -1;
    int64 m_failAt = INT64_MAX;
    int64 m_failToPrepareAt = INT64_MAX;
};

constexpr int MiB = 1 << 20;

class CopyTest : public ::testing::TestWithParam<int> {
protected:
    int64 copyAll(CFakeSource& source, int64 size = -1) {
        CProgress progress(-1, true);
        return copy(source, m_sink, size, GetParam(), progress);
    }
    std::string failureOf(CFakeSource& source) {
        try {
            copyAll(source);
        } catch (const CFailure& failure) {
            return failure.what();
        }
        return "nothing";
    }

    CFakeSink m_sink;
};

} // namespace

TEST_P(CopyTest, CopiesEveryByteInOrder) {
    for (const int size : {1, 65536, 131073, 5 * MiB + 1000}) {
        CFakeSource source(size);
        CFakeSink sink;
        CProgress progress(-1, true);
        EXPECT_EQ(copy(source, sink, -1, GetParam(), progress), size);
        EXPECT_TRUE(sink.getBytes() == source.getBytes()) << size;
        EXPECT_EQ(sink.getFinishedSize(), size);
    }
}

TEST_P(CopyTest, FindsTheEndOfASourceOfUnknownSize) {
    CFakeSource source(3 * MiB + 1000, false);
    EXPECT_EQ(copyAll(source), 3 * MiB + 1000);
    EXPECT_TRUE(m_sink.getBytes() == source.getBytes());
}

TEST_P(CopyTest, CutsTheSource) {
    CFakeSource source(3 * MiB);
    EXPECT_EQ(copyAll(source, 2 * MiB + 5), 2 * MiB + 5);
    EXPECT_TRUE(m_sink.getBytes() ==
                Bytes(source.getBytes().begin(), source.getBytes().begin() + 2 * MiB + 5));
}

TEST_P(CopyTest, LetsZerosFollow) {
    for (const bool knowsSize : {true, false}) {
        CFakeSource source(2 * MiB + 5, knowsSize);
        CFakeSink sink;
        CProgress progress(-1, true);
        EXPECT_EQ(copy(source, sink, 3 * MiB + 7, GetParam(), progress), 2 * MiB + 5);
        Bytes expected = source.getBytes();
        expected.resize(3 * MiB + 7);
        EXPECT_TRUE(sink.getBytes() == expected);
        EXPECT_EQ(sink.getFinishedSize(), 3 * MiB + 7);
    }
}

TEST_P(CopyTest, TellsTheFirstFailureOfTheCopy) {
    struct {
        int64 source;
        int64 preparing;
        int64 sink;
        const char* told;
    } const rows[] = {
        {6 * MiB, INT64_MAX, INT64_MAX, "source: broken"},
        {INT64_MAX, 6 * MiB, INT64_MAX, "preparing: broken"},
        {INT64_MAX, INT64_MAX, 6 * MiB, "sink: broken"},
        {5 * MiB, 3 * MiB, 4 * MiB, "preparing: broken"},
        {3 * MiB, 4 * MiB, 5 * MiB, "source: broken"},
        {5 * MiB, 4 * MiB, 3 * MiB, "sink: broken"},
        {0, 0, 0, "source: broken"},
        {INT64_MAX, 0, 0, "preparing: broken"},
    };
    for (const auto& row : rows) {
        CFakeSource source(8 * MiB);
        source.failAt(row.source);
        CFakeSink sink;
        sink.failToPrepareAt(row.preparing);
        sink.failAt(row.sink);
        CProgress progress(-1, true);
        std::string told = "nothing";
        try {
            copy(source, sink, -1, GetParam(), progress);
        } catch (const CFailure& failure) {
            told = failure.what();
        }
        EXPECT_EQ(told, row.told);
        EXPECT_EQ(sink.getFinishedSize(), -1);
    }
}

/// Of which two threads prepare pieces at the same time: the first waits for the second.
class CMeetingSink : public CFakeSink {
public:
    bool haveMet() const { return m_haveMet; }

    void prepare(CPiece&) override {
        std::unique_lock lock(m_meeting);
        ++m_here;
        m_changed.notify_all();
        // Whoever waits in vain tells by it, however slow the machine is.
        if (m_changed.wait_for(lock, std::chrono::seconds(60), [this] { return m_here > 1 || m_haveMet; }))
            m_haveMet = true;
        --m_here;
    }

private:
    std::mutex m_meeting;
    std::condition_variable m_changed;
    int m_here = 0;
    bool m_haveMet = false;
};

TEST(CopyThreadsTest, PreparesPiecesAtTheSameTime) {
    CFakeSource source(8 * MiB);
    CMeetingSink sink;
    CProgress progress(-1, true);
    copy(source, sink, -1, 2, progress);
    EXPECT_TRUE(sink.haveMet());
    EXPECT_TRUE(sink.getBytes() == source.getBytes());
}

TEST_P(CopyTest, UsesNoMoreThreadsThanJobs) {
    CFakeSource source(8 * MiB);
    copyAll(source);
    EXPECT_GE(m_sink.getThreadCount(), 1U);
    EXPECT_LE(m_sink.getThreadCount(), static_cast<std::size_t>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Jobs, CopyTest, ::testing::Values(1, 2, 7, 64));
