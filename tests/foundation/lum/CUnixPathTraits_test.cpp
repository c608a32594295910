#include "lum/CUnixPathTraits.h"

#include "Printing.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

TEST(CUnixPathTraits, SeparatesAtSlashesOnly) {
    EXPECT_TRUE(CUnixPathTraits::isSeparator(L'/'));
    EXPECT_FALSE(CUnixPathTraits::isSeparator(L'\\'));
    EXPECT_EQ(CUnixPathTraits::separator, L'/');
}

TEST(CUnixPathTraits, FindsNoFaultButZeros) {
    for (const wchar_t* const text :
         {L"", L"/", L"a", L"/a/../b", L"a\nb", L"C:\\x", L"<>:\"|?*", L"\x00E4\x20AC"})
        EXPECT_EQ(CUnixPathTraits::findFault(text), "") << String(text).toUTF8();
    EXPECT_EQ(CUnixPathTraits::findFault(String("a\0b", 3)), "The character with the code 0 is in no path");
}

TEST(CUnixPathTraits, SlashIsTheRoot) {
    const struct {
        const char* text;
        int rootLength;
    } rows[] = {{"", 0},   {"a", 0},   {"a/b", 0}, {"./a", 0}, {"/", 1},
                {"/a", 1}, {"//a", 1}, {"\\a", 0}, {"C:/a", 0}};
    for (const auto& row : rows) {
        EXPECT_EQ(CUnixPathTraits::getRootLength(row.text), row.rootLength) << row.text;
        EXPECT_EQ(CUnixPathTraits::isAbsolute(row.text), row.rootLength > 0) << row.text;
    }
}

} // namespace
} // namespace lum
