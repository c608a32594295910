#include "disk/CSectorSet.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

namespace tessel::test {

TEST(CSectorSetTest, IsEmptyAtFirst) {
    const CSectorSet set;
    EXPECT_EQ(set.getCount(), 0);
    EXPECT_FALSE(set.containsAny(0, 100000));
}

TEST(CSectorSetTest, HoldsTheRunsThatWereAdded) {
    CSectorSet set;
    set.add(60, 10);
    set.add(int64{1} << 32, 1);
    EXPECT_EQ(set.getCount(), 11);
    EXPECT_FALSE(set.contains(59));
    EXPECT_TRUE(set.contains(60));
    EXPECT_TRUE(set.contains(69));
    EXPECT_FALSE(set.contains(70));
    EXPECT_TRUE(set.contains(int64{1} << 32));
    EXPECT_TRUE(set.containsAny(0, 61));
    EXPECT_FALSE(set.containsAny(0, 60));
    EXPECT_FALSE(set.containsAny(70, 5000));
    EXPECT_FALSE(set.containsAny(60, 0));
}

TEST(CSectorSetTest, CountsNumbersThatAreAddedTwiceOnce) {
    CSectorSet set;
    set.add(4000, 200);
    set.add(4090, 300);
    EXPECT_EQ(set.getCount(), 390);
}

TEST(CSectorSetTest, AgreesWithAPlainSet) {
    CSectorSet set;
    std::set<int64> model;
    std::mt19937 random(1);
    for (int i = 0; i < 2000; ++i) {
        const auto first = static_cast<int64>(random() % 20000);
        const auto count = static_cast<int64>(random() % 200);
        const auto next = model.lower_bound(first);
        EXPECT_EQ(set.containsAny(first, count), next != model.end() && *next < first + count);
        if (i % 4 != 0)
            continue;
        set.add(first, count % 20);
        for (int64 n = first; n < first + count % 20; ++n)
            model.insert(n);
        EXPECT_EQ(set.getCount(), static_cast<int64>(model.size()));
    }
}

} // namespace tessel::test
