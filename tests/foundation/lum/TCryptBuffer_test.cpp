#include "../AllocationHook.h"
#include "lum/P.h"
#include "lum/TBuffer.h"

#include <gtest/gtest.h>

#include <optional>

using namespace lum;
using tessel::test::CFreedMemoryProbe;

namespace {

using Contents = std::vector<unsigned char>;

constexpr int keySize = 32;
const Contents key(keySize, 0xc3);
const Contents wiped(keySize, 0);

/// Written through a volatile pointer: the compiler may not leave the writes out because the memory is
/// given back afterwards.
template <class Buffer>
void putKey(Buffer& buffer) {
    buffer.setUsed(keySize);
    volatile unsigned char* const bytes = buffer.getData();
    for (int i = 0; i < keySize; ++i)
        bytes[i] = key[0];
}

/// What `way` leaves in the memory that it makes the buffer give back.
template <class Buffer, class Way>
Contents leftBehind(Way way) {
    std::optional<Buffer> buffer(std::in_place);
    putKey(*buffer);
    const CFreedMemoryProbe probe(buffer->getData(), keySize);
    way(buffer);
    EXPECT_TRUE(probe.wasFreed());
    return probe.getContents();
}

const auto destroy = [](auto& buffer) { buffer.reset(); };
const auto grow = [](auto& buffer) { buffer->setUsed(1 << 20); };
const auto append = [](auto& buffer) {
    const Contents more(1000, 0xff);
    buffer->append(more.data(), 1000);
};
const auto moveAnotherIn = [](auto& buffer) {
    std::remove_reference_t<decltype(*buffer)> other(5);
    *buffer = std::move(other);
};
const auto shrinkThenDestroy = [](auto& buffer) {
    buffer->setUsed(1);
    buffer.reset();
};

TEST(TCryptBuffer, ProbeSeesTheKeyInAPlainBuffer) {
    // What makes the checks below worth something.
    using Buffer = TBuffer<unsigned char>;
    EXPECT_EQ(leftBehind<Buffer>(destroy), key);
    EXPECT_EQ(leftBehind<Buffer>(grow), key);
    EXPECT_EQ(leftBehind<Buffer>(append), key);
    EXPECT_EQ(leftBehind<Buffer>(moveAnotherIn), key);
    EXPECT_EQ(leftBehind<Buffer>(shrinkThenDestroy), key);
}

TEST(TCryptBuffer, WipesItsMemoryWhenItGoes) {
    EXPECT_EQ(leftBehind<TCryptBuffer<unsigned char>>(destroy), wiped);
}

TEST(TCryptBuffer, WipesItsOldMemoryWhenItGrows) {
    EXPECT_EQ(leftBehind<TCryptBuffer<unsigned char>>(grow), wiped);
    EXPECT_EQ(leftBehind<TCryptBuffer<unsigned char>>(append), wiped);
}

TEST(TCryptBuffer, WipesItsMemoryWhenAnotherIsMovedIn) {
    EXPECT_EQ(leftBehind<TCryptBuffer<unsigned char>>(moveAnotherIn), wiped);
}

TEST(TCryptBuffer, WipesWhatLeftTheUsedPartToo) {
    EXPECT_EQ(leftBehind<TCryptBuffer<unsigned char>>(shrinkThenDestroy), wiped);
}

TEST(TCryptBuffer, WipesWhenTheLastHolderLetsGo) {
    P<TCryptBuffer<unsigned char>> buffer(new TCryptBuffer<unsigned char>);
    putKey(*buffer);
    const CFreedMemoryProbe probe(buffer->getData(), keySize);
    buffer = nullptr;
    EXPECT_EQ(probe.getContents(), wiped);
}

TEST(TCryptBuffer, WipesElementsOfAnySize) {
    std::optional<TCryptBuffer<uint64>> buffer(std::in_place, 4);
    volatile uint64* const elements = buffer->getData();
    for (int i = 0; i < 4; ++i)
        elements[i] = 0xc3c3c3c3c3c3c3c3;
    const CFreedMemoryProbe probe(buffer->getData(), keySize);
    buffer.reset();
    EXPECT_EQ(probe.getContents(), wiped);
}

TEST(TCryptBuffer, MoveLeavesNothingBehind) {
    TCryptBuffer<unsigned char> original;
    putKey(original);
    const unsigned char* const memory = original.getData();
    const TCryptBuffer<unsigned char> moved(std::move(original));
    EXPECT_EQ(moved.getData(), memory);
    EXPECT_EQ(original.getAllocated(), 0); // NOLINT(bugprone-use-after-move): it stays usable
}

TEST(TCryptBuffer, BehavesLikeABuffer) {
    TCryptBuffer<unsigned char> buffer(key.data(), keySize);
    const TCryptBuffer<unsigned char> copy(buffer);
    EXPECT_TRUE(copy == buffer);
    buffer[0] = 0;
    EXPECT_FALSE(copy == buffer);
    EXPECT_EQ(copy.getUsed(), keySize);
}

} // namespace
