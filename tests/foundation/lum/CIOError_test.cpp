#include "lum/CIOError.h"

#include "ErrorClassChecks.h"

using namespace lum;
using tessel::test::expectClassIsKept;

namespace {

TEST(CIOError, HoldsWhatItWasGiven) {
    const CError cause("deeper");
    const CIOError error(CIOError::Code_BadFormat, "Bad magic.", CProps().add("uri", "file:///x"), &cause);

    EXPECT_EQ(error.getMessage(), "Bad magic.");
    EXPECT_STREQ(error.what(), "Bad magic.");
    EXPECT_TRUE(error.getSecondText().isEmpty());
    EXPECT_EQ(error.getCode(), 5);
    EXPECT_EQ(error.getProps(), CProps().add("uri", "file:///x"));
    ASSERT_NE(error.getCause(), nullptr);
    EXPECT_EQ(error.getCause()->getMessage(), "deeper");
}

TEST(CIOError, NeedsNoMoreThanACode) {
    const CIOError error(CIOError::Code_Closed);

    EXPECT_EQ(error.getCode(), 10);
    EXPECT_TRUE(error.getMessage().isEmpty());
    EXPECT_STREQ(error.what(), "");
    EXPECT_TRUE(error.getProps().isEmpty());
    EXPECT_EQ(error.getCause(), nullptr);
}

TEST(CIOError, KeepsItsClass) {
    const CError cause("deeper");
    expectClassIsKept(CIOError(CIOError::Code_NoSpace, "Full.", CProps().add("uri", "file:///x"), &cause),
                      "CIOError");
}

TEST(CIOError, CodesAreStable) {
    EXPECT_EQ(CIOError::Code_ReadFailed, 1);
    EXPECT_EQ(CIOError::Code_WriteFailed, 2);
    EXPECT_EQ(CIOError::Code_WriteBeyondEnd, 3);
    EXPECT_EQ(CIOError::Code_UnexpectedEnd, 4);
    EXPECT_EQ(CIOError::Code_BadFormat, 5);
    EXPECT_EQ(CIOError::Code_UnsupportedVersion, 6);
    EXPECT_EQ(CIOError::Code_BadSeek, 7);
    EXPECT_EQ(CIOError::Code_NoSpace, 8);
    EXPECT_EQ(CIOError::Code_Closed, 10);
    EXPECT_EQ(CIOError::Code_NotOnGrainBoundary, 11);
    EXPECT_EQ(CIOError::Code_LengthNotSettable, 13);
}

} // namespace
