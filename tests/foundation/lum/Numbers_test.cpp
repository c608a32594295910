#include "lum/Numbers.h"

#include "lum/TWipingAllocator.h"

#include <gtest/gtest.h>

#include <vector>

using namespace lum;

namespace {

constexpr int64 largest = INT64_MAX;
constexpr int64 smallest = INT64_MIN;

TEST(Numbers, DividesRoundingUp) {
    EXPECT_EQ(divideRoundingUp(0, 512), 0);
    EXPECT_EQ(divideRoundingUp(1, 512), 1);
    EXPECT_EQ(divideRoundingUp(511, 512), 1);
    EXPECT_EQ(divideRoundingUp(512, 512), 1);
    EXPECT_EQ(divideRoundingUp(513, 512), 2);
    EXPECT_EQ(divideRoundingUp(largest, 1), largest);
    EXPECT_EQ(divideRoundingUp(largest, 2), largest / 2 + 1);
    EXPECT_EQ(divideRoundingUp(largest, largest), 1);
}

TEST(Numbers, RoundsUp) {
    EXPECT_EQ(roundUp(0, 512), 0);
    EXPECT_EQ(roundUp(1, 512), 512);
    EXPECT_EQ(roundUp(512, 512), 512);
    EXPECT_EQ(roundUp(513, 512), 1024);
    EXPECT_EQ(roundUp(10, 3), 12);
    EXPECT_EQ(roundUp(largest, 1), largest);
}

TEST(Numbers, AddsWhatFits) {
    int64 result = 0;
    EXPECT_TRUE(tryAdd(2, 3, result));
    EXPECT_EQ(result, 5);
    EXPECT_TRUE(tryAdd(largest, 0, result));
    EXPECT_EQ(result, largest);
    EXPECT_TRUE(tryAdd(largest - 1, 1, result));
    EXPECT_EQ(result, largest);
    EXPECT_TRUE(tryAdd(smallest + 1, -1, result));
    EXPECT_EQ(result, smallest);
    EXPECT_TRUE(tryAdd(largest, smallest, result));
    EXPECT_EQ(result, -1);
}

TEST(Numbers, RefusesSumsThatDoNotFit) {
    int64 result = 7;
    EXPECT_FALSE(tryAdd(largest, 1, result));
    EXPECT_FALSE(tryAdd(1, largest, result));
    EXPECT_FALSE(tryAdd(smallest, -1, result));
    EXPECT_FALSE(tryAdd(smallest, smallest, result));
    EXPECT_EQ(result, 7);
}

TEST(Numbers, MultipliesWhatFits) {
    int64 result = 1;
    EXPECT_TRUE(tryMultiply(0, largest, result));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(tryMultiply(largest, 0, result));
    EXPECT_EQ(result, 0);
    EXPECT_TRUE(tryMultiply(1, largest, result));
    EXPECT_EQ(result, largest);
    EXPECT_TRUE(tryMultiply(int64(1) << 31, int64(1) << 31, result));
    EXPECT_EQ(result, int64(1) << 62);
}

TEST(Numbers, RefusesProductsThatDoNotFit) {
    int64 result = 7;
    EXPECT_FALSE(tryMultiply(2, largest / 2 + 1, result));
    EXPECT_FALSE(tryMultiply(largest, 2, result));
    EXPECT_FALSE(tryMultiply(int64(1) << 32, int64(1) << 31, result));
    EXPECT_EQ(result, 7);
}

TEST(IsZeroMemory, NothingIsZero) {
    EXPECT_TRUE(isZeroMemory(nullptr, 0));
}

TEST(IsZeroMemory, FindsASingleByteAnywhere) {
    for (std::size_t size = 1; size <= 70; ++size) {
        std::vector<unsigned char> memory(size);
        EXPECT_TRUE(isZeroMemory(memory.data(), size)) << size;
        for (std::size_t i = 0; i < size; ++i) {
            memory[i] = 0x80;
            EXPECT_FALSE(isZeroMemory(memory.data(), size)) << size << " bytes, byte " << i;
            memory[i] = 0;
        }
    }
}

TEST(IsZeroMemory, LooksNoFurtherThanItsSize) {
    std::vector<unsigned char> memory(100);
    for (std::size_t size = 0; size < memory.size(); ++size) {
        memory[size] = 1;
        EXPECT_TRUE(isZeroMemory(memory.data(), size)) << size;
        memory[size] = 0;
    }
}

TEST(IsZeroMemory, NeedsNoAlignment) {
    std::vector<unsigned char> memory(4096 + 8);
    for (std::size_t offset = 0; offset < 8; ++offset) {
        EXPECT_TRUE(isZeroMemory(memory.data() + offset, 4096));
        memory[offset + 4095] = 1;
        EXPECT_FALSE(isZeroMemory(memory.data() + offset, 4096));
        memory[offset + 4095] = 0;
    }
}

TEST(IsZeroMemory, EqualBytesThatAreNotZeroAreNotZero) {
    const std::vector<unsigned char> memory(64, 0xff);
    EXPECT_FALSE(isZeroMemory(memory.data(), memory.size()));
}

TEST(WipeMemory, SetsExactlyItsBytesToZero) {
    std::vector<unsigned char> memory(64, 0xa5);
    wipeMemory(memory.data() + 8, 48);

    EXPECT_TRUE(isZeroMemory(memory.data() + 8, 48));
    EXPECT_EQ(memory[7], 0xa5);
    EXPECT_EQ(memory[56], 0xa5);
}

TEST(WipeMemory, OfNothingDoesNothing) {
    wipeMemory(nullptr, 0);
    unsigned char byte = 1;
    wipeMemory(&byte, 0);
    EXPECT_EQ(byte, 1);
}

} // namespace
