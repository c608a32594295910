#include "lum/LittleEndian.h"

#include <gtest/gtest.h>

#include <array>

using namespace lum;

namespace {

constexpr std::array<unsigned char, 8> bytes = {0xf1, 0xe2, 0xd3, 0xc4, 0xb5, 0xa6, 0x97, 0x88};

template <class T>
std::array<unsigned char, 10> store(T value) {
    std::array<unsigned char, 10> memory;
    memory.fill(0x77);
    storeLittleEndian(memory.data() + 1, value);
    return memory;
}

TEST(LittleEndian, LoadsTheLowestByteFirst) {
    EXPECT_EQ(loadLittleEndian<uint8>(bytes.data()), 0xf1u);
    EXPECT_EQ(loadLittleEndian<uint16>(bytes.data()), 0xe2f1u);
    EXPECT_EQ(loadLittleEndian<uint32>(bytes.data()), 0xc4d3e2f1u);
    EXPECT_EQ(loadLittleEndian<uint64>(bytes.data()), 0x8897a6b5c4d3e2f1u);
}

TEST(LittleEndian, LoadsFromAnywhere) {
    EXPECT_EQ(loadLittleEndian<uint32>(bytes.data() + 1), 0xb5c4d3e2u);
    EXPECT_EQ(loadLittleEndian<uint16>(bytes.data() + 3), 0xb5c4u);
}

TEST(LittleEndian, StoresTheLowestByteFirst) {
    using Memory = std::array<unsigned char, 10>;
    EXPECT_EQ(store<uint8>(0xf1), (Memory{0x77, 0xf1, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77}));
    EXPECT_EQ(store<uint16>(0xe2f1), (Memory{0x77, 0xf1, 0xe2, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77, 0x77}));
    EXPECT_EQ(store<uint32>(0xc4d3e2f1),
              (Memory{0x77, 0xf1, 0xe2, 0xd3, 0xc4, 0x77, 0x77, 0x77, 0x77, 0x77}));
    EXPECT_EQ(store<uint64>(0x8897a6b5c4d3e2f1),
              (Memory{0x77, 0xf1, 0xe2, 0xd3, 0xc4, 0xb5, 0xa6, 0x97, 0x88, 0x77}));
}

TEST(LittleEndian, WorksAtCompileTime) {
    static_assert(loadLittleEndian<uint32>(bytes.data()) == 0xc4d3e2f1);
    constexpr auto stored = [] {
        std::array<unsigned char, 2> memory{};
        storeLittleEndian<uint16>(memory.data(), 0x0102);
        return memory;
    }();
    static_assert(stored[0] == 2 && stored[1] == 1);
    EXPECT_EQ(stored[0], 2);
}

} // namespace
