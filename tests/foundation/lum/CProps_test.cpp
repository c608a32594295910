#include "lum/CProps.h"

#include "Printing.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

TEST(CProps, KeepsEntriesInTheOrderOfAdding) {
    const CProps props = CProps().add("uri", "file:///x").add("position", 512).add("name", String(L"\x00E4"));
    ASSERT_EQ(props.getEntries().size(), 3U);
    EXPECT_EQ(props.getEntries()[0], CProps::Entry("uri", "file:///x"));
    EXPECT_EQ(props.getEntries()[1], CProps::Entry("position", "512"));
    EXPECT_EQ(props.getEntries()[2], CProps::Entry("name", L"\x00E4"));
    EXPECT_FALSE(props.isEmpty());
}

TEST(CProps, StartsEmpty) {
    EXPECT_TRUE(CProps().isEmpty());
    EXPECT_TRUE(CProps().getEntries().empty());
}

TEST(CProps, FindsTheFirstEntryWithAName) {
    const CProps props = CProps().add("a", "1").add("b", "2").add("b", "3");
    EXPECT_EQ(props.getValue("b"), "2");
    EXPECT_EQ(props.getValue("c"), "");
}

TEST(CProps, WritesNumbersAsDecimalText) {
    EXPECT_EQ(CProps().add("n", -1).getValue("n"), "-1");
    EXPECT_EQ(CProps().add("n", 18446744073709551615U).getValue("n"), "18446744073709551615");
}

TEST(CProps, ComparesNamesValuesAndOrder) {
    const CProps props = CProps().add("a", "1").add("b", "2");
    EXPECT_EQ(props, CProps().add("a", "1").add("b", "2"));
    EXPECT_NE(props, CProps().add("b", "2").add("a", "1"));
    EXPECT_NE(props, CProps().add("a", "1"));
}

} // namespace
} // namespace lum
