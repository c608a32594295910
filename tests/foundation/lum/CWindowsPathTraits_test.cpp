#include "lum/CWindowsPathTraits.h"

#include "Printing.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

TEST(CWindowsPathTraits, SeparatesAtBothSlashes) {
    EXPECT_TRUE(CWindowsPathTraits::isSeparator(L'/'));
    EXPECT_TRUE(CWindowsPathTraits::isSeparator(L'\\'));
    EXPECT_FALSE(CWindowsPathTraits::isSeparator(L':'));
    EXPECT_EQ(CWindowsPathTraits::separator, L'\\');
}

TEST(CWindowsPathTraits, FindsNoFaultInPaths) {
    for (const wchar_t* const text :
         {L"", L"a", L"dir\\disk.vmdk", L"..\\x", L"C:\\", L"c:/x", L"C:\\a b\\\x00E4\x20AC.vmdk", L"\\",
          L"\\x", L"\\\\server\\share", L"//server/share/x", L"\\\\server\\share\\..\\x", L"50%#1;a.vmdk",
          L"\x7F"})
        EXPECT_EQ(CWindowsPathTraits::findFault(text), "") << String(text).toUTF8();
}

TEST(CWindowsPathTraits, SaysWhyATextIsNoPath) {
    const struct {
        String text;
        const char* reason;
    } rows[] = {
        {"a<b", "The character < is in no path"},
        {"a>b", "The character > is in no path"},
        {"a\"b", "The character \" is in no path"},
        {"a|b", "The character | is in no path"},
        {"what?", "The character ? is in no path"},
        {"*.vmdk", "The character * is in no path"},
        {"\\\\?\\C:\\x", "The character ? is in no path"},
        {"a\nb", "Control characters are in no path"},
        {String("a\0b", 3), "Control characters are in no path"},
        {"C:\\\x1F", "Control characters are in no path"},
        {"dir\\C:", "The character : only stands behind the letter of a drive"},
        {"C:\\a:b", "The character : only stands behind the letter of a drive"},
        {"C::\\a", "The character : only stands behind the letter of a drive"},
        {"1:\\a", "The character : only stands behind the letter of a drive"},
        {":a", "The character : only stands behind the letter of a drive"},
        {"\xC4:\\a", "The character : only stands behind the letter of a drive"},
        {"\\C:\\a", "The character : only stands behind the letter of a drive"},
        {"C:", "A separator is missing behind the letter of a drive"},
        {"C:foo", "A separator is missing behind the letter of a drive"},
        {"\\\\", "The name of a server is missing"},
        {"\\\\\\share", "The name of a server is missing"},
        {"\\\\.\\PhysicalDrive0", "The name of a server is missing"},
        {"\\\\..\\share", "The name of a server is missing"},
        {"\\\\server", "The name of a share is missing"},
        {"\\\\server\\", "The name of a share is missing"},
        {"\\\\server\\\\x", "The name of a share is missing"},
        {"\\\\server\\.\\x", "The name of a share is missing"},
        {"\\\\server\\..\\x", "The name of a share is missing"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(CWindowsPathTraits::findFault(row.text), row.reason) << row.text.toUTF8();
}

TEST(CWindowsPathTraits, KnowsTheRoots) {
    const struct {
        const char* text;
        int rootLength;
        bool isAbsolute;
    } rows[] = {
        {"", 0, false},
        {"a", 0, false},
        {"a\\b", 0, false},
        {"..\\a", 0, false},
        {"\\", 1, false},
        {"/a", 1, false},
        {"C:", 2, false},
        {"C:a", 2, false},
        {"C:\\", 3, true},
        {"c:/a", 3, true},
        {"\\\\server\\share\\dir", 15, true},
        {"//server/share/", 15, true},
        {"\\/server\\share", 14, true},
        {"\\\\server", 8, true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(CWindowsPathTraits::getRootLength(row.text), row.rootLength) << row.text;
        EXPECT_EQ(CWindowsPathTraits::isAbsolute(row.text), row.isAbsolute) << row.text;
    }
}

} // namespace
} // namespace lum
