#include "lum/CInvalidArgError.h"

#include "ErrorClassChecks.h"

using namespace lum;
using tessel::test::expectClassIsKept;

namespace {

TEST(CInvalidArgError, HoldsWhatItWasGiven) {
    const CInvalidArgError error("CVMDKGrain::read", "size must not be negative.", CProps().add("size", -1));

    EXPECT_EQ(error.getSource(), "CVMDKGrain::read");
    EXPECT_EQ(error.getMessage(), "size must not be negative.");
    EXPECT_STREQ(error.what(), "size must not be negative.");
    EXPECT_EQ(error.getProps(), CProps().add("size", -1));
    EXPECT_TRUE(error.getSecondText().isEmpty());
    EXPECT_EQ(error.getCode(), -1);
    EXPECT_EQ(error.getCause(), nullptr);
}

TEST(CInvalidArgError, NeedsNoParameters) {
    EXPECT_TRUE(CInvalidArgError("a", "b").getProps().isEmpty());
}

TEST(CInvalidArgError, KeepsItsClassAndSource) {
    const CInvalidArgError error("CVMDKGrain::read", "No.", CProps().add("size", -1));
    expectClassIsKept(error, "CInvalidArgError");

    try {
        error.clone()->rethrow();
    } catch (const CInvalidArgError& caught) {
        EXPECT_EQ(caught.getSource(), "CVMDKGrain::read");
        return;
    }
    FAIL() << "not caught";
}

} // namespace
