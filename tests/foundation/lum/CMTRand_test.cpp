#include "lum/CMTRand.h"

#include "ErrorMatchers.h"
#include "lum/CMutexLock.h"
#include "lum/LittleEndian.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using namespace lum;

namespace {

using Words = std::vector<uint32>;
using Bytes = std::vector<unsigned char>;

Words draw(CMTRand& rand, int count) {
    Words words;
    for (int i = 0; i < count; ++i)
        words.push_back(rand.rand32());
    return words;
}

Bytes drawBytes(CMTRand& rand, int n) {
    Bytes bytes(static_cast<std::size_t>(n));
    rand.randData(bytes.data(), n);
    return bytes;
}

/// The word of the state that MT19937 made this output from.
uint32 untemper(uint32 output) {
    const uint32 afterThird = output ^ (output >> 18);
    const uint32 afterSecond = afterThird ^ ((afterThird << 15) & 0xefc60000);
    uint32 afterFirst = afterSecond;
    for (int i = 0; i < 4; ++i) // each round makes 7 bits more right
        afterFirst = afterSecond ^ ((afterFirst << 7) & 0x9d2c5680);
    uint32 word = afterFirst;
    for (int i = 0; i < 2; ++i) // each round makes 11 bits more right
        word = afterFirst ^ (word >> 11);
    return word;
}

/// How many words follow from those before them by the recurrence of MT19937.
int countWordsThatFollow(const Words& words) {
    Words state;
    for (const uint32 word : words)
        state.push_back(untemper(word));
    int count = 0;
    for (std::size_t i = 0; i + 624 < state.size(); ++i) {
        const uint32 mixed = (state[i] & 0x80000000) | (state[i + 1] & 0x7fffffff);
        const uint32 next = state[i + 397] ^ (mixed >> 1) ^ ((mixed & 1) != 0 ? 0x9908b0df : 0);
        count += state[i + 624] == next ? 1 : 0;
    }
    return count;
}

TEST(CMTRand, GeneratorsDiffer) {
    CMTRand a;
    CMTRand b;
    EXPECT_NE(draw(a, 8), draw(b, 8));
}

TEST(CMTRand, DrawsBothValuesOfEveryBit) {
    CMTRand rand;
    uint32 everSet = 0;
    uint32 alwaysSet = 0xffffffff;
    for (const uint32 word : draw(rand, 1000)) {
        everSet |= word;
        alwaysSet &= word;
    }
    EXPECT_EQ(everSet, 0xffffffff);
    EXPECT_EQ(alwaysSet, 0u);
}

TEST(CMTRand, IsAMersenneTwister) {
    CMTRand rand;
    const Words words = draw(rand, 2000);
    EXPECT_EQ(countWordsThatFollow(words), 2000 - 624);
}

TEST(CMTRand, DataNeverRepeat) {
    CMTRand rand;
    std::set<Bytes> seen;
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(seen.insert(drawBytes(rand, 16)).second);
}

TEST(CMTRand, CopyGoesOnAlike) {
    // So that the next tests say something.
    CMTRand rand;
    CMTRand copy(rand);
    EXPECT_EQ(draw(rand, 700), draw(copy, 700));
}

TEST(CMTRand, DataComeFromAFreshState) {
    CMTRand rand;
    CMTRand copy(rand);
    Bytes fromCopy;
    for (const uint32 word : draw(copy, 700))
        for (int shift = 0; shift < 32; shift += 8)
            fromCopy.push_back(static_cast<unsigned char>(word >> shift));

    const Bytes data = drawBytes(rand, 16);
    EXPECT_EQ(std::search(fromCopy.begin(), fromCopy.end(), data.begin(), data.end()), fromCopy.end());
}

TEST(CMTRand, WordsBehindDataComeFromAFreshState) {
    CMTRand rand;
    CMTRand copy(rand);
    drawBytes(rand, 16);
    const Words behind = draw(rand, 4);
    const Words fromCopy = draw(copy, 1400);
    EXPECT_EQ(std::search(fromCopy.begin(), fromCopy.end(), behind.begin(), behind.end()), fromCopy.end());
}

TEST(CMTRand, WordsDoNotGoOnWhereDataEnded) {
    CMTRand rand;
    drawBytes(rand, 16);
    CMTRand copy(rand); // as it stands behind the data
    EXPECT_NE(draw(rand, 8), draw(copy, 8));
}

TEST(CMTRand, FillsExactlyItsBytes) {
    CMTRand rand;
    for (const int n : {0, 1, 2, 3, 4, 5, 31, 2491, 2492, 2493, 10000}) {
        Bytes bytes(static_cast<std::size_t>(n) + 2, 0xee);
        rand.randData(bytes.data() + 1, n);
        EXPECT_EQ(bytes.front(), 0xee) << n;
        EXPECT_EQ(bytes.back(), 0xee) << n;
        if (n >= 31) {
            const auto untouched = std::count(bytes.begin(), bytes.end(), 0xee) - 2;
            EXPECT_LT(untouched, n / 10 + 5) << n;
            EXPECT_FALSE(std::equal(bytes.end() - 21, bytes.end() - 1, Bytes(20, 0xee).begin())) << n;
        }
    }
}

TEST(CMTRand, LongDataAreMoreThanOneStateTells) {
    // With one state for all of them the word 624 places on would follow from those before it.
    CMTRand rand;
    const Bytes data = drawBytes(rand, 4 * 1300);
    Words words;
    for (std::size_t i = 0; i < data.size(); i += 4)
        words.push_back(loadLittleEndian<uint32>(data.data() + i));
    EXPECT_EQ(countWordsThatFollow(words), 0);
}

TEST(CMTRand, RefusesNegativeSizes) {
    CMTRand rand;
    unsigned char byte = 7;
    EXPECT_INVALID_ARG_ERROR(rand.randData(&byte, -1), "CMTRand::randData", "n must not be negative.",
                             {{"n", "-1"}});
    EXPECT_EQ(byte, 7);
}

TEST(CMTRand, GlobalIsOneForAll) {
    EXPECT_NE(CMTRand::getGlobal(), nullptr);
    EXPECT_EQ(CMTRand::getGlobal(), CMTRand::getGlobal());
    EXPECT_NE(CMTRand::getGlobalInstanceMutex(), nullptr);
    EXPECT_EQ(CMTRand::getGlobalInstanceMutex(), CMTRand::getGlobalInstanceMutex());
}

TEST(CMTRand, GlobalServesThreads) {
    constexpr int threadCount = 4;
    constexpr int drawsPerThread = 100;
    std::mutex guard;
    std::set<Bytes> seen;
    std::vector<std::thread> threads;
    for (int i = 0; i < threadCount; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < drawsPerThread; ++k) {
                Bytes bytes;
                {
                    const CMutexLock lock(CMTRand::getGlobalInstanceMutex());
                    CMTRand::getGlobal()->rand32();
                    bytes = drawBytes(*CMTRand::getGlobal(), 16);
                }
                const std::lock_guard lock(guard);
                seen.insert(bytes);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(seen.size(), static_cast<std::size_t>(threadCount * drawsPerThread));
}

} // namespace
