#include "Compare.h"

#include "Errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <vector>

using namespace tessel;
using namespace tessel::cli;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace tessel::cli {

bool operator==(const UDifference& a, const UDifference& b) {
    return a.position == b.position && a.sizeBytes == b.sizeBytes;
}

void PrintTo(const UDifference& range, std::ostream* out) {
    *out << range.position << "+" << range.sizeBytes;
}

} // namespace tessel::cli

namespace {

constexpr int64 MiB = 1 << 20;

/// An image of zeros, parts of which are held, and which counts what is read.
class CFakeSource : public ISource {
public:
    explicit CFakeSource(int64 size) : m_size(size) {}

    void hold(int64 start, int64 size, unsigned char value) {
        m_parts.push_back({start, std::vector<unsigned char>(static_cast<std::size_t>(size), value)});
    }
    void set(int64 position, unsigned char value) {
        for (Part& part : m_parts)
            if (position >= part.start && position < part.end())
                part.bytes[static_cast<std::size_t>(position - part.start)] = value;
    }
    void failToRead() { m_fails = true; }
    int64 getReadBytes() const { return m_read; }

    int64 getSizeBytes() const override { return m_size; }
    USourceRun findRun(int64 position) override {
        EXPECT_LT(position, m_size);
        int64 next = m_size;
        for (const Part& part : m_parts) {
            if (position >= part.start && position < part.end())
                return {part.end() - position, true};
            if (part.start > position)
                next = std::min(next, part.start);
        }
        return {next - position, false};
    }
    int read(int64 position, unsigned char* buffer, int count) override {
        EXPECT_LE(position + count, m_size);
        if (m_fails)
            throw CFailure("source", "broken");
        std::fill_n(buffer, count, static_cast<unsigned char>(0));
        for (const Part& part : m_parts)
            for (int i = 0; i < count; ++i)
                if (position + i >= part.start && position + i < part.end())
                    buffer[i] = part.bytes[static_cast<std::size_t>(position + i - part.start)];
        m_read += count;
        return count;
    }

private:
    struct Part {
        int64 start;
        std::vector<unsigned char> bytes;
        int64 end() const { return start + static_cast<int64>(bytes.size()); }
    };

    int64 m_size;
    std::vector<Part> m_parts;
    int64 m_read = 0;
    bool m_fails = false;
};

class CompareTest : public ::testing::Test {
protected:
    UComparison compare(bool all = true) {
        CProgress progress(-1, true);
        m_told.clear();
        return compareSources(m_a, m_b, progress, [&](const UDifference& range) {
            m_told.push_back(range);
            return all;
        });
    }

    CFakeSource m_a{8 * MiB};
    CFakeSource m_b{8 * MiB};
    std::vector<UDifference> m_told;
};

} // namespace

TEST_F(CompareTest, WhatNeitherHoldsIsTheSameAndNotRead) {
    EXPECT_TRUE(compare().isSame());
    EXPECT_THAT(m_told, IsEmpty());
    EXPECT_EQ(m_a.getReadBytes() + m_b.getReadBytes(), 0);
}

TEST_F(CompareTest, OnlyWhatIsHeldIsReadAndOnlyFromTheSideThatHoldsIt) {
    m_a.hold(MiB, 1000, 0);
    m_b.hold(5 * MiB, 2 * MiB + 100, 0);
    EXPECT_TRUE(compare().isSame());
    EXPECT_EQ(m_a.getReadBytes(), 1000);
    EXPECT_EQ(m_b.getReadBytes(), 2 * MiB + 100);
}

TEST_F(CompareTest, DataOfBothSidesAreReadOnce) {
    m_a.hold(1000, 3 * MiB, 7);
    m_b.hold(1000, 3 * MiB, 7);
    EXPECT_TRUE(compare().isSame());
    EXPECT_EQ(m_a.getReadBytes(), 3 * MiB);
    EXPECT_EQ(m_b.getReadBytes(), 3 * MiB);
}

TEST_F(CompareTest, DifferencesAreToldInWholeUnitsThatTouchAsOne) {
    m_a.hold(0, 4 * MiB, 7);
    m_b.hold(0, 4 * MiB, 7);
    for (const int64 position : {int64{1500}, int64{1540}, 2 * MiB - 1, 2 * MiB, 3 * MiB + 511})
        m_b.set(position, 8);
    const UComparison found = compare();
    EXPECT_EQ(found.firstDifference, 1500);
    EXPECT_EQ(found.rangeCount, 3);
    EXPECT_EQ(found.differingBytes, 1024 + 1024 + 512);
    EXPECT_THAT(m_told, ElementsAre(UDifference{1024, 1024}, UDifference{2 * MiB - 512, 1024},
                                    UDifference{3 * MiB, 512}));
}

TEST_F(CompareTest, RunsThatBeginWithinAUnitDoNotCutItsRange) {
    m_a.hold(100, 3000, 1);
    const UComparison found = compare();
    EXPECT_EQ(found.firstDifference, 100);
    EXPECT_THAT(m_told, ElementsAre(UDifference{0, 3584}));
    m_b.hold(0, 700, 0);
    EXPECT_EQ(compare().differingBytes, 3584);
    EXPECT_THAT(m_told, ElementsAre(UDifference{0, 3584}));
}

TEST_F(CompareTest, DataOnOneSideDifferFromWhatTheOtherDoesNotHold) {
    m_b.hold(2 * MiB, 4096, 0);
    m_b.set(2 * MiB + 600, 1);
    EXPECT_EQ(compare().firstDifference, 2 * MiB + 600);
    EXPECT_THAT(m_told, ElementsAre(UDifference{2 * MiB + 512, 512}));
    EXPECT_EQ(m_a.getReadBytes(), 0);
}

TEST_F(CompareTest, BehindTheShorterOnesEndAreZeros) {
    CFakeSource longer(10 * MiB + 700);
    CProgress progress(-1, true);
    const auto ignore = [](const UDifference&) { return true; };
    longer.hold(9 * MiB, 4096, 0);
    EXPECT_TRUE(compareSources(m_a, longer, progress, ignore).isSame());
    EXPECT_TRUE(compareSources(longer, m_a, progress, ignore).isSame());
    longer.hold(10 * MiB + 600, 100, 5);
    for (const bool isFirst : {true, false}) {
        std::vector<UDifference> told;
        const UComparison found = compareSources(isFirst ? longer : m_a, isFirst ? m_a : longer, progress,
                                                 [&](const UDifference& range) {
                                                     told.push_back(range);
                                                     return true;
                                                 });
        EXPECT_EQ(found.firstDifference, 10 * MiB + 600);
        EXPECT_THAT(told, ElementsAre(UDifference{10 * MiB + 512, 188})); // not beyond the end
    }
}

TEST_F(CompareTest, EndsBehindTheRangeThatIsEnough) {
    m_a.hold(0, 8 * MiB, 1);
    m_b.hold(0, 8 * MiB, 1);
    m_b.set(5000, 2);
    m_b.set(7000, 2);
    m_b.set(7 * MiB, 2);
    const UComparison found = compare(false);
    EXPECT_EQ(found.firstDifference, 5000);
    EXPECT_EQ(found.rangeCount, 1);
    EXPECT_THAT(m_told, ElementsAre(UDifference{4608, 512}));
    EXPECT_EQ(m_a.getReadBytes(), MiB);
}

TEST_F(CompareTest, EndsAtTheFirstEqualUnitBehindTheOnlyRange) {
    m_a.hold(0, 8 * MiB, 1);
    m_b.hold(0, 8 * MiB, 1);
    m_b.set(5000, 2);
    const UComparison found = compare(false);
    EXPECT_EQ(found.rangeCount, 1);
    EXPECT_EQ(found.differingBytes, 512);
    EXPECT_THAT(m_told, ElementsAre(UDifference{4608, 512}));
    EXPECT_EQ(m_a.getReadBytes(), MiB);
    EXPECT_EQ(m_b.getReadBytes(), MiB);
}

TEST_F(CompareTest, ARangeUpToTheEndOfAPieceNeedsOneMorePiece) {
    m_a.hold(0, 8 * MiB, 1);
    m_b.hold(0, 8 * MiB, 1);
    m_b.set(MiB - 1, 2);
    EXPECT_EQ(compare(false).differingBytes, 512);
    EXPECT_EQ(m_a.getReadBytes(), 2 * MiB);
    m_b.set(MiB, 2);
    EXPECT_EQ(compare(false).differingBytes, 1024);
    EXPECT_THAT(m_told, ElementsAre(UDifference{MiB - 512, 1024}));
}

TEST_F(CompareTest, WhatNeitherHoldsEndsARange) {
    m_a.hold(0, 512, 1);
    m_a.hold(4 * MiB, 4 * MiB, 1);
    EXPECT_EQ(compare(false).differingBytes, 512);
    EXPECT_EQ(m_a.getReadBytes(), 512);
}

TEST_F(CompareTest, PartsOfAUnitThatAreEqualEndNoRange) {
    // The second unit comes in three parts, of which the last one alone differs.
    m_a.hold(0, 600, 1);
    m_b.hold(512, 88, 1);
    m_a.hold(900, 100, 1);
    EXPECT_EQ(compare(false).rangeCount, 1);
    EXPECT_THAT(m_told, ElementsAre(UDifference{0, 1024}));
}

TEST_F(CompareTest, FailuresReachTheCaller) {
    m_b.hold(MiB, 1000, 1);
    m_b.failToRead();
    EXPECT_THROW(compare(), CFailure);
}

TEST_F(CompareTest, EmptyImagesAreTheSame) {
    CFakeSource nothing(0);
    CProgress progress(-1, true);
    EXPECT_TRUE(compareSources(nothing, nothing, progress, [](const UDifference&) { return true; }).isSame());
}
