#include "lum/TPathImpl.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

TEST(TPathImpl, KeepsThePathAsItWasWritten) {
    EXPECT_EQ(CWindowsPath("C:/dir\\\\x").toString(), "C:/dir\\\\x");
    EXPECT_EQ(CUnixPath("/a//../b").toString(), "/a//../b");
}

TEST(TPathImpl, MayBeEmpty) {
    EXPECT_TRUE(CWindowsPath().isEmpty());
    EXPECT_TRUE(CWindowsPath("").isEmpty());
    EXPECT_TRUE(CUnixPath("").isEmpty());
    EXPECT_FALSE(CUnixPath("a").isEmpty());
}

TEST(TPathImpl, KnowsWhetherItFixesThePlace) {
    EXPECT_TRUE(CUnixPath("/a").isAbsolute());
    EXPECT_FALSE(CUnixPath("C:\\a").isAbsolute());
    EXPECT_TRUE(CWindowsPath("C:\\a").isAbsolute());
    EXPECT_FALSE(CWindowsPath("/a").isAbsolute());
    EXPECT_FALSE(CWindowsPath().isAbsolute());
}

TEST(TPathImpl, RefusesWhatIsNoPathOfItsKind) {
    EXPECT_LUM_ERROR(CWindowsPath("dir\\a?b"), CBadPathError, -1, "Invalid path: dir\\a?b",
                     {{"path", "dir\\a?b"}, {"reason", "The character ? is in no path"}});
    EXPECT_LUM_ERROR(
        CUnixPath(String("a\0b", 3)), CBadPathError, -1, "Invalid path: " + String("a\0b", 3),
        {{"path", String("a\0b", 3)}, {"reason", "The character with the code 0 is in no path"}});
}

TEST(TPathImpl, ComparesTexts) {
    EXPECT_EQ(CUnixPath("/a"), CUnixPath("/a"));
    EXPECT_NE(CUnixPath("/a"), CUnixPath("/a/"));
}

} // namespace
} // namespace lum
