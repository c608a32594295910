#include "lum/CBase.h"

#include "ErrorMatchers.h"
#include "lum/P.h"

#include <gtest/gtest.h>

#include <new>
#include <thread>
#include <vector>

namespace lum {
namespace {

class IThing : public virtual IBase {
public:
    virtual int getNumber() const = 0;
};

class IOtherThing : public virtual IBase {};

class CThing : public CBase, public IThing {
public:
    explicit CThing(int& alive, int number = 0) : m_alive(alive), m_number(number) { ++m_alive; }
    CThing(const CThing& other) : CBase(other), m_alive(other.m_alive), m_number(other.m_number) {
        ++m_alive;
    }
    CThing& operator=(const CThing& other) {
        CBase::operator=(other);
        m_number = other.m_number;
        return *this;
    }
    ~CThing() override { --m_alive; }

    int getNumber() const override { return m_number; }

private:
    int& m_alive;
    int m_number;
};

class CShyThing : public CBase, public IThing {
public:
    int getNumber() const override { return 0; }
    void checkCastAllowed(const std::type_info& target) const override {
        if (target == typeid(IThing))
            throw CError("No thing to others");
    }
};

/// Counts its "deaths" and stays alive, as an object from a pool would.
class CPooledThing : public CBase {
public:
    mutable int deaths = 0;

protected:
    void deleteThis() const noexcept override { ++deaths; }
};

TEST(CBase, LastHolderDestroysTheObject) {
    int alive = 0;
    P<CThing> first(new CThing(alive));
    P<IThing> second = first;
    first = nullptr;
    EXPECT_EQ(alive, 1);
    second = nullptr;
    EXPECT_EQ(alive, 0);
}

TEST(CBase, ObjectWithoutHolderMayLiveOnTheStack) {
    int alive = 0;
    {
        const CThing thing(alive, 5);
        EXPECT_EQ(thing.getNumber(), 5);
    }
    EXPECT_EQ(alive, 0);
}

TEST(CBase, CopyStartsWithoutHolders) {
    int alive = 0;
    const P<CThing> original(new CThing(alive, 7));
    P<CThing> copy(new CThing(*original));
    EXPECT_EQ(copy->getNumber(), 7);
    copy = nullptr;
    EXPECT_EQ(alive, 1);
}

TEST(CBase, AssignmentLeavesTheHolders) {
    int alive = 0;
    const P<CThing> source(new CThing(alive, 7));
    const P<CThing> secondHolderOfSource = source;
    P<CThing> target(new CThing(alive, 1));
    *target = *source;
    EXPECT_EQ(target->getNumber(), 7);
    target = nullptr;
    EXPECT_EQ(alive, 1);
}

TEST(CBase, DeleteThisSaysWhatTheLastReleaseDoes) {
    CPooledThing thing;
    thing.addRef();
    thing.addRef();
    thing.release();
    EXPECT_EQ(thing.deaths, 0);
    thing.release();
    EXPECT_EQ(thing.deaths, 1);
}

TEST(CBase, PlacementNewUsesTheGivenMemory) {
    int alive = 0;
    alignas(CThing) unsigned char memory[sizeof(CThing)];
    const CThing* const thing = new (memory) CThing(alive, 3);
    EXPECT_EQ(static_cast<const void*>(thing), memory);
    EXPECT_EQ(thing->getNumber(), 3);
    thing->~CThing();
    EXPECT_EQ(alive, 0);
}

TEST(CBase, CountsHoldersOfSeveralThreads) {
    int alive = 0;
    P<CThing> thing(new CThing(alive));
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([thing] {
                for (int n = 0; n < 10000; ++n)
                    P<CThing> holder(thing);
            });
    }
    EXPECT_EQ(alive, 1);
    thing = nullptr;
    EXPECT_EQ(alive, 0);
}

TEST(CBase, EveryCastIsAllowedAtFirst) {
    int alive = 0;
    const P<IThing> thing(new CThing(alive));
    EXPECT_TRUE(castTo<CThing>(thing));
    EXPECT_FALSE(castTo<IOtherThing>(thing));
    EXPECT_FALSE(castTo<CThing>(P<IThing>()));
}

TEST(CBase, ClassCanRefuseACast) {
    const P<CBase> thing(new CShyThing);
    EXPECT_TRUE(castTo<CShyThing>(thing));
    EXPECT_LUM_ERROR(castTo<IThing>(thing), CError, -1, "No thing to others");
}

} // namespace
} // namespace lum
