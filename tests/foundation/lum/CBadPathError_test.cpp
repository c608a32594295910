#include "lum/CBadPathError.h"

#include "ErrorClassChecks.h"

using namespace lum;
using tessel::test::expectClassIsKept;

namespace {

TEST(CBadPathError, TellsPathAndReason) {
    const CBadPathError error("a|b", "A path cannot hold this character.");

    EXPECT_EQ(error.getMessage(), "Invalid path: a|b");
    EXPECT_STREQ(error.what(), "Invalid path: a|b");
    EXPECT_TRUE(error.getSecondText().isEmpty());
    EXPECT_EQ(error.getCode(), -1);
    EXPECT_EQ(error.getProps(),
              CProps().add("path", "a|b").add("reason", "A path cannot hold this character."));
    EXPECT_EQ(error.getCause(), nullptr);
}

TEST(CBadPathError, KeepsItsClass) {
    expectClassIsKept(CBadPathError("a|b", "No."), "CBadPathError");
}

} // namespace
