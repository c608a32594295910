#include "lum/TMostRecentlyUsedCache.h"

#include "../AllocationHook.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <vector>

using namespace lum;
using tessel::test::CFailingAllocation;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class CValue : public CBase {
public:
    explicit CValue(int number) : m_number(number) { ++s_alive; }
    ~CValue() override {
        --s_alive;
        if (m_onDestruction)
            m_onDestruction();
    }

    int getNumber() const { return m_number; }
    void setOnDestruction(std::function<void()> action) { m_onDestruction = std::move(action); }

    static int s_alive;

private:
    int m_number;
    std::function<void()> m_onDestruction;
};
int CValue::s_alive = 0;

using Cache = TMostRecentlyUsedCache<int, CValue>;

void put(Cache& cache, int key) {
    cache.set(key, new CValue(key * 10));
}

void fill(Cache& cache, int count) {
    for (int key = 1; key <= count; ++key)
        put(cache, key);
}

std::vector<int> keysOf(const Cache& cache) {
    std::vector<int> keys;
    cache.forEach([&](int key, CValue&) { keys.push_back(key); });
    return keys;
}

/// Puts an entry while the nth allocation fails. True when there were fewer.
bool insertWithFailure(Cache& cache, int key, int n) {
    const P<CValue> value(new CValue(key * 10));
    const CFailingAllocation failure(n);
    try {
        cache.set(key, value.get());
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

/// The entries in the order in which they would be evicted. Spoils the cache.
std::vector<int> evictionOrder(Cache& cache, TList<P<CValue>>& removed) {
    removed.clear();
    cache.clear();
    std::vector<int> numbers;
    for (const P<CValue>& value : removed)
        numbers.push_back(value->getNumber());
    removed.clear();
    return numbers;
}

class TMostRecentlyUsedCacheTest : public ::testing::Test {
protected:
    void TearDown() override {
        removed.clear();
        EXPECT_EQ(CValue::s_alive, 0) << "a value was kept";
    }

    TList<P<CValue>> removed;
};

TEST_F(TMostRecentlyUsedCacheTest, IsEmptyAtFirst) {
    Cache cache(3);
    EXPECT_EQ(cache.getCount(), 0);
    EXPECT_EQ(cache.getLimit(), 3);
    EXPECT_TRUE(cache.getAutoEnforceLimit());
    EXPECT_EQ(cache.get(1), nullptr);
    cache.remove(1);
    cache.clear();
    cache.enforceLimit();
    EXPECT_EQ(cache.getCount(), 0);
}

TEST_F(TMostRecentlyUsedCacheTest, GivesBackWhatWasSet) {
    Cache cache(3);
    const P<CValue> value(new CValue(10));
    cache.set(1, value.get());
    EXPECT_EQ(cache.get(1), value);
    EXPECT_EQ(cache.get(2), nullptr);
    EXPECT_EQ(cache.getCount(), 1);
}

TEST_F(TMostRecentlyUsedCacheTest, EvictsTheEntryUsedLongestAgo) {
    Cache cache(3);
    fill(cache, 4);
    EXPECT_THAT(keysOf(cache), ElementsAre(2, 3, 4));
    put(cache, 5);
    EXPECT_THAT(keysOf(cache), ElementsAre(3, 4, 5));
    EXPECT_EQ(CValue::s_alive, 3);
}

TEST_F(TMostRecentlyUsedCacheTest, HitMovesToTheFront) {
    Cache cache(3);
    fill(cache, 3);
    EXPECT_EQ(cache.get(1)->getNumber(), 10);
    put(cache, 4);
    EXPECT_THAT(keysOf(cache), ElementsAre(1, 3, 4));
}

TEST_F(TMostRecentlyUsedCacheTest, MissChangesNothing) {
    Cache cache(3, &removed);
    fill(cache, 3);
    EXPECT_EQ(cache.get(99), nullptr);
    EXPECT_THAT(evictionOrder(cache, removed), ElementsAre(10, 20, 30));
}

TEST_F(TMostRecentlyUsedCacheTest, EvictionFollowsUse) {
    Cache cache(5, &removed);
    fill(cache, 5);
    cache.get(2);
    cache.get(1);
    cache.get(2);
    put(cache, 4);
    EXPECT_THAT(evictionOrder(cache, removed), ElementsAre(30, 50, 10, 20, 40));
}

TEST_F(TMostRecentlyUsedCacheTest, ReplacingMovesToTheFrontWithoutEviction) {
    Cache cache(3, &removed);
    fill(cache, 3);
    cache.set(1, new CValue(11));
    EXPECT_EQ(cache.getCount(), 3);
    EXPECT_EQ(cache.get(1)->getNumber(), 11);
    EXPECT_THAT(removed, IsEmpty()) << "a replaced value was not evicted";
    EXPECT_EQ(CValue::s_alive, 3);
    EXPECT_THAT(evictionOrder(cache, removed), ElementsAre(20, 30, 11));
}

TEST_F(TMostRecentlyUsedCacheTest, ReplacingByTheSameValueKeepsIt) {
    Cache cache(3);
    put(cache, 1);
    const P<CValue> value = cache.get(1);
    cache.set(1, value.get());
    EXPECT_EQ(cache.get(1), value);
    EXPECT_EQ(cache.getCount(), 1);
}

TEST_F(TMostRecentlyUsedCacheTest, WithoutAutomaticEnforcementItGrows) {
    Cache cache(1024);
    cache.setAutoEnforceLimit(false);
    EXPECT_FALSE(cache.getAutoEnforceLimit());
    fill(cache, 2000);
    EXPECT_EQ(cache.getCount(), 2000);

    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(cache.getCount(), 1024);
    EXPECT_EQ(keysOf(cache).front(), 977);
    EXPECT_EQ(keysOf(cache).back(), 2000);
}

TEST_F(TMostRecentlyUsedCacheTest, SwitchingOnWhatIsOnDoesNothing) {
    Cache cache(2, &removed);
    fill(cache, 2);
    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(cache.getCount(), 2);
    EXPECT_THAT(removed, IsEmpty());

    cache.setAutoEnforceLimit(false);
    cache.setAutoEnforceLimit(false);
    fill(cache, 5);
    EXPECT_EQ(cache.getCount(), 5);
}

TEST_F(TMostRecentlyUsedCacheTest, EnforcesOnDemand) {
    Cache cache(2);
    cache.setAutoEnforceLimit(false);
    fill(cache, 5);
    cache.enforceLimit();
    EXPECT_THAT(keysOf(cache), ElementsAre(4, 5));
    EXPECT_FALSE(cache.getAutoEnforceLimit());
}

TEST_F(TMostRecentlyUsedCacheTest, HitNeverEnforces) {
    Cache cache(2);
    cache.setAutoEnforceLimit(false);
    fill(cache, 5);
    cache.get(1);
    EXPECT_EQ(cache.getCount(), 5);
    cache.setAutoEnforceLimit(true);
    EXPECT_THAT(keysOf(cache), ElementsAre(1, 5));
}

TEST_F(TMostRecentlyUsedCacheTest, LimitZeroKeepsNothing) {
    Cache cache(0, &removed);
    put(cache, 1);
    EXPECT_EQ(cache.getCount(), 0);
    EXPECT_EQ(cache.get(1), nullptr);
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed.front()->getNumber(), 10);
}

TEST_F(TMostRecentlyUsedCacheTest, NegativeLimitCountsAsZero) {
    Cache cache(-5);
    EXPECT_EQ(cache.getLimit(), 0);
    put(cache, 1);
    EXPECT_EQ(cache.getCount(), 0);
}

TEST_F(TMostRecentlyUsedCacheTest, RemovedListReceivesWhatIsTakenOut) {
    Cache cache(2, &removed);
    fill(cache, 3);
    ASSERT_EQ(removed.size(), 1u);
    EXPECT_EQ(removed.back()->getNumber(), 10);
    cache.remove(3);
    ASSERT_EQ(removed.size(), 2u);
    EXPECT_EQ(removed.back()->getNumber(), 30);
    cache.clear();
    ASSERT_EQ(removed.size(), 3u);
    EXPECT_EQ(removed.back()->getNumber(), 20);
}

TEST_F(TMostRecentlyUsedCacheTest, RemovedListReceivesNothingFromTheDestructor) {
    {
        Cache cache(2, &removed);
        fill(cache, 2);
    }
    EXPECT_THAT(removed, IsEmpty());
    EXPECT_EQ(CValue::s_alive, 0);
}

TEST_F(TMostRecentlyUsedCacheTest, RemoveLeavesTheOthersInOrder) {
    Cache cache(9, &removed);
    fill(cache, 4);
    cache.remove(2);
    cache.remove(77);
    EXPECT_EQ(cache.getCount(), 3);
    EXPECT_EQ(cache.get(2), nullptr);
    EXPECT_THAT(evictionOrder(cache, removed), ElementsAre(10, 30, 40));
}

TEST_F(TMostRecentlyUsedCacheTest, CanBeUsedAgainWhenCleared) {
    Cache cache(2);
    fill(cache, 2);
    cache.clear();
    EXPECT_EQ(cache.getCount(), 0);
    EXPECT_EQ(CValue::s_alive, 0);
    fill(cache, 3);
    EXPECT_THAT(keysOf(cache), ElementsAre(2, 3));
}

TEST_F(TMostRecentlyUsedCacheTest, VisitsInKeyOrderAndLeavesTheOrderOfUse) {
    Cache cache(9, &removed);
    for (const int key : {3, 1, 4, 2})
        put(cache, key);

    std::vector<int> visited;
    cache.forEach([&](int key, CValue& value) { visited.push_back(key * 100 + value.getNumber()); });
    EXPECT_THAT(visited, ElementsAre(110, 220, 330, 440));
    EXPECT_THAT(evictionOrder(cache, removed), ElementsAre(30, 10, 40, 20));
}

TEST_F(TMostRecentlyUsedCacheTest, VisitEndsWithTheFirstException) {
    Cache cache(9);
    fill(cache, 3);
    int visits = 0;
    EXPECT_THROW(cache.forEach([&](int, CValue&) {
        if (++visits == 2)
            throw std::runtime_error("enough");
    }),
                 std::runtime_error);
    EXPECT_EQ(visits, 2);
    EXPECT_EQ(cache.getCount(), 3);
}

TEST_F(TMostRecentlyUsedCacheTest, ValueHeldElsewhereSurvivesItsEviction) {
    Cache cache(1);
    put(cache, 1);
    const P<CValue> held = cache.get(1);
    put(cache, 2);
    EXPECT_EQ(cache.get(1), nullptr);
    EXPECT_EQ(held->getNumber(), 10);
}

/// Values whose destructors look into the cache, and what they see there.
class TMostRecentlyUsedCacheReentry : public TMostRecentlyUsedCacheTest {
protected:
    void putWatching(int key) {
        P<CValue> value(new CValue(key * 10));
        value->setOnDestruction([this, key] { look(key); });
        cache->set(key, value.get());
    }

    void look(int key) {
        sightings.push_back(key);
        seenItself = seenItself || (cache->get(key) && cache->get(key)->getNumber() == key * 10);
        EXPECT_EQ(cache->getCount(), static_cast<int>(keysOf(*cache).size()));
        for (const int other : keysOf(*cache))
            EXPECT_TRUE(cache->get(other));
    }

    void TearDown() override {
        if (cache)
            cache->clear();
        cache = nullptr;
        TMostRecentlyUsedCacheTest::TearDown();
    }

    P<Cache> cache{new Cache(2)};
    std::vector<int> sightings;
    bool seenItself = false;
};

TEST_F(TMostRecentlyUsedCacheReentry, OnEviction) {
    for (int key = 1; key <= 3; ++key)
        putWatching(key);
    EXPECT_THAT(sightings, ElementsAre(1));
    EXPECT_FALSE(seenItself);
    EXPECT_THAT(keysOf(*cache), ElementsAre(2, 3));
}

TEST_F(TMostRecentlyUsedCacheReentry, OnReplacement) {
    putWatching(1);
    put(*cache, 1);
    EXPECT_THAT(sightings, ElementsAre(1));
    EXPECT_EQ(cache->get(1)->getNumber(), 10);
    EXPECT_EQ(cache->getCount(), 1);
}

TEST_F(TMostRecentlyUsedCacheReentry, OnRemoval) {
    putWatching(1);
    putWatching(2);
    cache->remove(1);
    EXPECT_THAT(sightings, ElementsAre(1));
    EXPECT_FALSE(seenItself);
    EXPECT_THAT(keysOf(*cache), ElementsAre(2));
}

TEST_F(TMostRecentlyUsedCacheReentry, OnClearing) {
    putWatching(1);
    putWatching(2);
    cache->clear();
    EXPECT_THAT(sightings, ElementsAre(1, 2));
    EXPECT_FALSE(seenItself);
    EXPECT_EQ(cache->getCount(), 0);
}

TEST_F(TMostRecentlyUsedCacheReentry, OnTheCachesOwnEnd) {
    putWatching(1);
    putWatching(2);
    Cache* const raw = cache.get();
    P<Cache> last;
    last.swap(cache);
    // The fixture's pointer is null now; what the destructors look into is the cache on its way out.
    std::vector<int> counts;
    for (const int key : {1, 2})
        raw->get(key)->setOnDestruction([&counts, raw] { counts.push_back(raw->getCount()); });
    last = nullptr;
    EXPECT_THAT(counts, ElementsAre(1, 0));
}

TEST_F(TMostRecentlyUsedCacheReentry, DestructorMayPutSomethingIn) {
    P<CValue> value(new CValue(10));
    value->setOnDestruction([this] { put(*cache, 9); });
    cache->set(1, value.get());
    value = nullptr;
    put(*cache, 2);
    put(*cache, 3); // 1 goes, 9 comes, 2 goes
    EXPECT_THAT(keysOf(*cache), ElementsAre(3, 9));
}

TEST_F(TMostRecentlyUsedCacheTest, FailedInsertionLeavesTheCacheAsItWas) {
    Cache cache(9, &removed);
    fill(cache, 2);
    int failures = 0;
    while (!insertWithFailure(cache, 3, failures + 1)) {
        ++failures;
        ASSERT_EQ(cache.getCount(), 2);
        ASSERT_EQ(cache.get(3), nullptr);
    }
    EXPECT_EQ(failures, 2) << "one for the map, one for the order of use";
    EXPECT_THAT(evictionOrder(cache, removed), ElementsAre(10, 20, 30));
}

TEST_F(TMostRecentlyUsedCacheTest, RangeOfKeysIsRemovedAsLongAsTheConditionHolds) {
    Cache cache(10);
    fill(cache, 8);
    cache.get(4);
    std::vector<int> asked;
    cache.removeFrom(3, [&asked](int key) {
        asked.push_back(key);
        return key < 6;
    });
    EXPECT_THAT(asked, ElementsAre(3, 4, 5, 6));
    EXPECT_THAT(keysOf(cache), ElementsAre(1, 2, 6, 7, 8));
    EXPECT_EQ(cache.getCount(), 5);
    EXPECT_EQ(CValue::s_alive, 5) << "the removed ones are let go of";
    put(cache, 3);
    EXPECT_EQ(cache.get(3)->getNumber(), 30);

    cache.removeFrom(9, [](int) { return true; });
    EXPECT_EQ(cache.getCount(), 6);
    cache.removeFrom(1, [](int) { return false; });
    EXPECT_EQ(cache.getCount(), 6);
    cache.removeFrom(0, [](int) { return true; });
    EXPECT_EQ(cache.getCount(), 0);
}

TEST_F(TMostRecentlyUsedCacheTest, RangeIsRemovedWithoutMemoryAndWhateverDestructorsDo) {
    const P<Cache> cache(new Cache(10));
    fill(*cache, 4);
    Cache* const raw = cache.get();
    cache->get(2)->setOnDestruction([raw] { put(*raw, 4); });
    {
        const CFailingAllocation failure(1);
        cache->removeFrom(3, [](int) { return true; });
    }
    EXPECT_THAT(keysOf(*cache), ElementsAre(1, 2));
    cache->removeFrom(2, [](int) { return true; });
    EXPECT_THAT(keysOf(*cache), ElementsAre(1)) << "what came in meanwhile is in the range";
    cache->clear();
}

} // namespace
