#include "tessel/CVMDKReverseIncrementalWriter.h"

#include "DiskTest.h"

#include <type_traits>

using namespace tessel;
using namespace tessel::test;

namespace {

class CVMDKReverseIncrementalWriterTest : public DiskTest {
protected:
    using Writer = CVMDKReverseIncrementalWriter;

    CVMDKReverseIncrementalWriterTest() : m_disk(create()), m_data(new TBuffer<unsigned char>(3)) {}

    void fill(Writer& writer) {
        writer.firstPath = CWindowsPath("C:\\disks\\a.vmdk");
        writer.secondPath = CWindowsPath("D:\\disks\\b.vmdk");
        writer.disk = m_disk;
        writer.postponedGrains.push_back({1, m_data, -2});
        writer.postponedGrains.push_back({INT64_MAX, nullptr, INT64_MIN});
        writer.value = 0x123456789ABCDEF;
    }
    void expectFilled(const Writer& writer) {
        EXPECT_EQ(writer.firstPath.toString(), "C:\\disks\\a.vmdk");
        EXPECT_EQ(writer.secondPath.toString(), "D:\\disks\\b.vmdk");
        EXPECT_EQ(writer.disk, m_disk);
        ASSERT_EQ(writer.postponedGrains.size(), 2U);
        const auto& first = writer.postponedGrains.front();
        EXPECT_EQ(first.first, 1);
        EXPECT_EQ(first.data, m_data); // shared, not copied
        EXPECT_EQ(first.second, -2);
        const auto& second = writer.postponedGrains.back();
        EXPECT_EQ(second.first, INT64_MAX);
        EXPECT_EQ(second.data, nullptr);
        EXPECT_EQ(second.second, INT64_MIN);
        EXPECT_EQ(writer.value, 0x123456789ABCDEF);
    }

    P<CVMDKDisk> m_disk;
    P<TBuffer<unsigned char>> m_data;
};

} // namespace

TEST_F(CVMDKReverseIncrementalWriterTest, BeginsEmpty) {
    const Writer writer;
    EXPECT_TRUE(writer.firstPath.isEmpty());
    EXPECT_TRUE(writer.secondPath.isEmpty());
    EXPECT_EQ(writer.disk, nullptr);
    EXPECT_TRUE(writer.postponedGrains.empty());
    EXPECT_EQ(writer.value, 0);
}

TEST_F(CVMDKReverseIncrementalWriterTest, CopyTakesEveryMemberAndLeavesTheOriginal) {
    Writer original;
    fill(original);
    const Writer copy(original);
    expectFilled(copy);
    expectFilled(original);
    original.postponedGrains.front().first = 99;
    original.postponedGrains.pop_back();
    original.value = 0;
    expectFilled(copy);
}

TEST_F(CVMDKReverseIncrementalWriterTest, AssignmentReplacesEveryMember) {
    Writer original;
    fill(original);
    Writer assigned;
    assigned.firstPath = CWindowsPath("E:\\x");
    assigned.postponedGrains.resize(7);
    assigned.value = -1;
    assigned = original;
    expectFilled(assigned);
    expectFilled(original);
    const Writer& itself = assigned;
    assigned = itself;
    expectFilled(assigned);
}

TEST_F(CVMDKReverseIncrementalWriterTest, MoveTakesEveryMember) {
    Writer original;
    fill(original);
    const auto* const grain = &original.postponedGrains.front();
    Writer moved(std::move(original));
    expectFilled(moved);
    EXPECT_EQ(&moved.postponedGrains.front(), grain); // the list's elements, not copies of them
    EXPECT_EQ(original.disk, nullptr);                // NOLINT(bugprone-use-after-move): what is left of it
    EXPECT_TRUE(original.postponedGrains.empty());

    Writer assigned;
    assigned.postponedGrains.resize(7);
    assigned = std::move(moved);
    expectFilled(assigned);
    EXPECT_EQ(&assigned.postponedGrains.front(), grain);
    EXPECT_EQ(moved.disk, nullptr); // NOLINT(bugprone-use-after-move): what is left of it
    static_assert(std::is_nothrow_move_constructible_v<Writer>);
    static_assert(std::is_nothrow_move_assignable_v<Writer>);
}

TEST_F(CVMDKReverseIncrementalWriterTest, LetsGoOfTheDiskWhenItGoes) {
    P<Writer> writer(new Writer);
    fill(*writer);
    m_disk = nullptr;
    P<Writer> copy(new Writer(*writer));
    writer = nullptr;
    EXPECT_TRUE(exists("disk.vmdk.lock"));
    copy = nullptr;
    EXPECT_FALSE(exists("disk.vmdk.lock"));
}

TEST_F(CVMDKReverseIncrementalWriterTest, CopyOfAGrainSharesItsData) {
    using Grain = Writer::UPostponedGrain;
    const Grain original{5, m_data, 6};
    const Grain copy = original;
    EXPECT_EQ(copy.first, 5);
    EXPECT_EQ(copy.data, m_data);
    EXPECT_EQ(copy.second, 6);
    const Grain none;
    EXPECT_EQ(none.first, 0);
    EXPECT_EQ(none.data, nullptr);
    EXPECT_EQ(none.second, 0);
}
