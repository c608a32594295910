#include "lum/TBuffer.h"

#include "../AllocationHook.h"
#include "lum/Numbers.h"
#include "lum/P.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <vector>

using namespace lum;

namespace {

using Bytes = TBuffer<unsigned char>;

const unsigned char oneTwoThree[] = {1, 2, 3};
const unsigned char fourFive[] = {4, 5};

TEST(TBuffer, IsEmptyAtFirst) {
    const Bytes buffer;
    EXPECT_TRUE(buffer.isEmpty());
    EXPECT_EQ(buffer.getUsed(), 0);
    EXPECT_EQ(buffer.getAllocated(), 0);
}

TEST(TBuffer, OfASizeIsZeroed) {
    const Bytes buffer(1000);
    EXPECT_EQ(buffer.getUsed(), 1000);
    EXPECT_FALSE(buffer.isEmpty());
    EXPECT_TRUE(isZeroMemory(buffer.getData(), 1000));
}

TEST(TBuffer, TakesACopyOfElements) {
    const Bytes buffer(oneTwoThree, 3);
    EXPECT_EQ(buffer.getUsed(), 3);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(buffer[2], 3);
    EXPECT_NE(buffer.getData(), oneTwoThree);
    EXPECT_TRUE(Bytes(nullptr, 0).isEmpty());
}

TEST(TBuffer, CountsElementsNotBytes) {
    TBuffer<uint32> buffer(2);
    buffer[1] = 0xffffffff;
    EXPECT_EQ(buffer.getUsed(), 2);
    EXPECT_EQ(buffer.getData()[1], 0xffffffff);
    EXPECT_EQ(buffer[0], 0u);
}

TEST(TBuffer, AllocatesWithoutTouchingContents) {
    Bytes buffer(oneTwoThree, 3);
    buffer.ensureAllocated(100);
    EXPECT_EQ(buffer.getAllocated(), 100);
    EXPECT_EQ(buffer, Bytes(oneTwoThree, 3));
    buffer.ensureAllocated(50);
    EXPECT_EQ(buffer.getAllocated(), 100);
}

TEST(TBuffer, GrownElementsAreZero) {
    Bytes buffer(oneTwoThree, 3);
    buffer.setUsed(10);
    EXPECT_EQ(buffer[2], 3);
    EXPECT_TRUE(isZeroMemory(buffer.getData() + 3, 7));
}

TEST(TBuffer, ElementsThatComeBackKeepWhatTheyHeld) {
    Bytes buffer(oneTwoThree, 3);
    buffer.setUsed(1);
    EXPECT_EQ(buffer.getUsed(), 1);
    EXPECT_EQ(buffer.getAllocated(), 3);
    buffer.setUsed(3);
    EXPECT_EQ(buffer, Bytes(oneTwoThree, 3));
}

TEST(TBuffer, AssignReplacesContents) {
    Bytes buffer(oneTwoThree, 3);
    buffer.assign(fourFive, 2);
    EXPECT_EQ(buffer, Bytes(fourFive, 2));
    buffer.assign(Bytes(oneTwoThree, 3));
    EXPECT_EQ(buffer, Bytes(oneTwoThree, 3));
    buffer.assign(nullptr, 0);
    EXPECT_TRUE(buffer.isEmpty());
}

TEST(TBuffer, AppendAddsAtTheEnd) {
    Bytes buffer;
    buffer.append(oneTwoThree, 3);
    buffer.append(nullptr, 0);
    buffer.append(fourFive, 2);
    const unsigned char expected[] = {1, 2, 3, 4, 5};
    EXPECT_EQ(buffer, Bytes(expected, 5));
}

TEST(TBuffer, AppendGrowsByMoreThanItNeeds) {
    Bytes buffer(oneTwoThree, 3);
    buffer.append(fourFive, 1);
    EXPECT_EQ(buffer.getAllocated(), 6);
    const unsigned char* const memory = buffer.getData();
    buffer.append(fourFive, 2);
    EXPECT_EQ(buffer.getData(), memory);
    EXPECT_EQ(buffer.getUsed(), 6);
}

TEST(TBuffer, AppendOverwritesWhatLeftTheUsedPart) {
    Bytes buffer(oneTwoThree, 3);
    buffer.setUsed(1);
    buffer.append(fourFive, 2);
    const unsigned char expected[] = {1, 4, 5};
    EXPECT_EQ(buffer, Bytes(expected, 3));
}

TEST(TBuffer, FillSetsTheUsedPartOnly) {
    Bytes buffer(oneTwoThree, 3);
    buffer.setUsed(2);
    buffer.fill(9);
    buffer.setUsed(3);
    const unsigned char expected[] = {9, 9, 3};
    EXPECT_EQ(buffer, Bytes(expected, 3));
}

TEST(TBuffer, CopyIsIndependent) {
    Bytes original(oneTwoThree, 3);
    Bytes copy(original);
    Bytes assigned;
    assigned = original;
    original[0] = 99;
    EXPECT_EQ(copy, Bytes(oneTwoThree, 3));
    EXPECT_EQ(assigned, Bytes(oneTwoThree, 3));
}

TEST(TBuffer, CopyTakesTheUsedPartOnly) {
    Bytes original(oneTwoThree, 3);
    original.setUsed(2);
    const Bytes copy(original);
    EXPECT_EQ(copy.getUsed(), 2);
    EXPECT_EQ(copy.getAllocated(), 2);
}

TEST(TBuffer, AssignmentToItselfChangesNothing) {
    Bytes buffer(oneTwoThree, 3);
    const Bytes& same = buffer;
    buffer = same;
    EXPECT_EQ(buffer, Bytes(oneTwoThree, 3));
    Bytes& movable = buffer;
    buffer = std::move(movable);
    EXPECT_EQ(buffer, Bytes(oneTwoThree, 3));
}

TEST(TBuffer, MoveTakesTheMemory) {
    Bytes original(oneTwoThree, 3);
    const unsigned char* const memory = original.getData();
    Bytes moved(std::move(original));
    EXPECT_EQ(moved.getData(), memory);
    EXPECT_EQ(moved, Bytes(oneTwoThree, 3));
    EXPECT_TRUE(original.isEmpty()); // NOLINT(bugprone-use-after-move): it stays usable
    EXPECT_EQ(original.getAllocated(), 0);

    Bytes assigned(fourFive, 2);
    assigned = std::move(moved);
    EXPECT_EQ(assigned.getData(), memory);
    EXPECT_EQ(assigned, Bytes(oneTwoThree, 3));
    EXPECT_TRUE(moved.isEmpty()); // NOLINT(bugprone-use-after-move): it stays usable
    moved.append(fourFive, 2);
    EXPECT_EQ(moved, Bytes(fourFive, 2));
}

TEST(TBuffer, ComparesUsedContents) {
    Bytes a(oneTwoThree, 3);
    Bytes b(oneTwoThree, 3);
    b.ensureAllocated(50);
    EXPECT_TRUE(a == b);
    b[2] = 4;
    EXPECT_FALSE(a == b);
    a.setUsed(2);
    b.setUsed(2);
    EXPECT_TRUE(a == b);
    b.setUsed(1);
    EXPECT_FALSE(a == b);
    EXPECT_TRUE(Bytes() == Bytes());
}

TEST(TBuffer, IsCounted) {
    P<Bytes> buffer(new Bytes(oneTwoThree, 3));
    const P<Bytes> other = buffer;
    buffer = nullptr;
    EXPECT_EQ(other->getUsed(), 3);
}

TEST(TBuffer, RefusesWhatNoMemoryCanHoldAndStaysAsItIs) {
    TBuffer<uint16> buffer(2);
    buffer[1] = 7;
    EXPECT_THROW(buffer.ensureAllocated(INT64_MAX), std::length_error);
    EXPECT_THROW(buffer.setUsed(INT64_MAX), std::length_error);
    EXPECT_EQ(buffer.getUsed(), 2);
    EXPECT_EQ(buffer[1], 7);
}

TEST(TBuffer, StaysAsItIsWhenMemoryRunsOut) {
    const Bytes expected(oneTwoThree, 3);
    Bytes buffer(expected);
    const auto expectFailure = [&](const auto& action) {
        {
            const tessel::test::CFailingAllocation failure(1);
            EXPECT_THROW(action(), std::bad_alloc);
        }
        EXPECT_EQ(buffer, expected);
    };
    expectFailure([&] { buffer.ensureAllocated(100); });
    expectFailure([&] { buffer.setUsed(100); });
    expectFailure([&] { buffer.append(fourFive, 2); });
    const std::vector<unsigned char> more(100);
    expectFailure([&] { buffer.assign(more.data(), 100); });
}

} // namespace
