#include "lum/P.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

using namespace lum;

namespace {

class IShape : public virtual IBase {
public:
    virtual int getCorners() const = 0;
};

class IColored : public virtual IBase {
public:
    virtual int getColor() const = 0;
};

class CSquare : public CBase, public IShape, public IColored {
public:
    CSquare() { ++s_alive; }
    ~CSquare() override { --s_alive; }
    int getCorners() const override { return 4; }
    int getColor() const override { return 7; }

    static int s_alive;
};
int CSquare::s_alive = 0;

class CPlain : public CBase {};

/// A square that nobody may see as a colored thing, or as a square.
class CShySquare : public CSquare {
public:
    void checkCastAllowed(const std::type_info& target) const override {
        if (target == typeid(IColored) || target == typeid(CSquare))
            throw CError("Cast refused.");
    }
};

class PTest : public ::testing::Test {
protected:
    void TearDown() override { EXPECT_EQ(CSquare::s_alive, 0) << "something was kept"; }
};

TEST_F(PTest, IsNullAtFirst) {
    const P<CSquare> a;
    const P<CSquare> b = nullptr;
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_FALSE(a);
    EXPECT_TRUE(b == nullptr);
    EXPECT_TRUE(a == b);
}

TEST_F(PTest, FirstReferenceOwnsTheObject) {
    {
        const P<CSquare> a(new CSquare);
        EXPECT_TRUE(a);
        EXPECT_FALSE(a == nullptr);
        EXPECT_EQ(a->getCorners(), 4);
        EXPECT_EQ((*a).getColor(), 7);
        EXPECT_EQ(CSquare::s_alive, 1);
    }
    EXPECT_EQ(CSquare::s_alive, 0);
}

TEST_F(PTest, LastHolderDestroys) {
    P<CSquare> a(new CSquare);
    P<CSquare> b = a;
    EXPECT_TRUE(a == b);
    a = nullptr;
    EXPECT_EQ(CSquare::s_alive, 1);
    b = nullptr;
    EXPECT_EQ(CSquare::s_alive, 0);
}

TEST_F(PTest, ARawPointerTakenCountsToo) {
    P<CSquare> a(new CSquare);
    const P<CSquare> kept(a.get());
    a = nullptr;
    EXPECT_EQ(kept->getCorners(), 4);
}

TEST_F(PTest, ConvertsToAnInterface) {
    P<CSquare> square(new CSquare);
    P<IShape> shape = square;
    EXPECT_EQ(shape->getCorners(), 4);
    square = nullptr;
    EXPECT_EQ(CSquare::s_alive, 1);
}

TEST_F(PTest, MoveTakesOver) {
    P<CSquare> a(new CSquare);
    const P<CSquare> b = std::move(a);
    EXPECT_EQ(a.get(), nullptr); // NOLINT(bugprone-use-after-move): promised
    EXPECT_EQ(b->getCorners(), 4);
}

TEST_F(PTest, ConvertingMoveTakesOver) {
    P<CSquare> a(new CSquare);
    CSquare* const raw = a.get();
    const P<IShape> b = std::move(a);
    EXPECT_EQ(a.get(), nullptr); // NOLINT(bugprone-use-after-move): promised
    EXPECT_EQ(b.get(), static_cast<IShape*>(raw));
    const P<IColored> none = P<CSquare>();
    EXPECT_EQ(none, nullptr);
}

TEST_F(PTest, AssignmentLetsGoOfTheOld) {
    P<CSquare> a(new CSquare);
    P<CSquare> b(new CSquare);
    EXPECT_EQ(CSquare::s_alive, 2);
    a = b;
    EXPECT_EQ(CSquare::s_alive, 1);
    b = P<CSquare>(new CSquare);
    EXPECT_EQ(CSquare::s_alive, 2);
    a = std::move(b);
    EXPECT_EQ(CSquare::s_alive, 1);
}

TEST_F(PTest, AssignmentToItselfKeepsTheObject) {
    P<CSquare> a(new CSquare);
    P<CSquare>& same = a;
    a = same;
    EXPECT_EQ(CSquare::s_alive, 1);
    EXPECT_EQ(a->getCorners(), 4);
}

TEST_F(PTest, Swaps) {
    P<CSquare> a(new CSquare);
    P<CSquare> b;
    CSquare* const raw = a.get();
    a.swap(b);
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_EQ(b.get(), raw);
}

TEST_F(PTest, CastFindsAnotherInterface) {
    const P<IShape> shape(new CSquare);
    const P<IColored> colored = castTo<IColored>(shape);
    ASSERT_TRUE(colored);
    EXPECT_EQ(colored->getColor(), 7);
    EXPECT_EQ(castTo<CSquare>(colored)->getCorners(), 4);
}

TEST_F(PTest, CastOfAnotherThingOrNullIsNull) {
    EXPECT_EQ(castTo<IShape>(P<CPlain>(new CPlain)), nullptr);
    EXPECT_EQ(castTo<IShape>(P<CPlain>()), nullptr);
}

TEST_F(PTest, CastIsAskedOfTheObject) {
    const P<IShape> shape(new CShySquare);
    EXPECT_LUM_ERROR(castTo<IColored>(shape), CError, -1, "Cast refused.");
    EXPECT_LUM_ERROR(castTo<CSquare>(shape), CError, -1, "Cast refused.");
    EXPECT_EQ(castTo<CShySquare>(shape).get(), shape.get());
}

} // namespace
