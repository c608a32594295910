#include "Errors.h"
#include "platform.h"
#include "platform_windows.h"

#include <gtest/gtest.h>

namespace tessel::cli {
namespace {

TEST(WindowsNames_test, DisguisesAreRefused) {
    for (const char* const name : {"nul", "NUL.vmdk", "folder/Com1", "lpt9.raw", "con", "disk.vmdk.", "disk ",
                                   "folder./disk.vmdk", "disk.vmdk:stream", "C:\\folder\\aux.txt"})
        EXPECT_THROW(toSystemPath(name), CFailure) << name;
    for (const char* const name :
         {"nullify", "company1.vmdk", "C:\\folder\\disk.vmdk", "C:/disk.vmdk", "..\\disk", "./disk.vmdk",
          "\\\\server\\share\\disk.vmdk", "\\\\?\\C:\\disk.vmdk"})
        EXPECT_EQ(fromSystemPath(toSystemPath(name)), name);
}

TEST(WindowsNames_test, DrivesAreNoFiles) {
    for (const char* const name : {"\\\\.\\PhysicalDrive0", "\\\\?\\PHYSICALDRIVE12", "//./PhysicalDrive1",
                                   "\\\\.\\C:", "\\\\.\\CdRom0"})
        EXPECT_TRUE(isDriveName(toSystemPath(name))) << name;
    for (const char* const name : {"C:\\PhysicalDrive0", "PhysicalDrive0", "\\\\.\\pipe\\x"})
        EXPECT_FALSE(isDriveName(toSystemPath(name))) << name;
}

TEST(WindowsNames_test, HalfACharacterBecomesNoOther) {
    const std::wstring half = L"a\xD83D"
                              L"b";
    const std::string bytes = windows::toUTF8(half);
    EXPECT_EQ(bytes, "a\xED\xA0\xBD"
                     "b");
    EXPECT_THROW(windows::toUTF16(bytes), CFailure);
    EXPECT_EQ(windows::toUTF8(L"\xD83D\xDE00 \x00FC \x78C1"), "\xF0\x9F\x98\x80 \xC3\xBC \xE7\xA3\x81");
    EXPECT_EQ(windows::toUTF16("\xF0\x9F\x98\x80"), L"\xD83D\xDE00");
}

TEST(WindowsNames_test, LongPathsGetThePrefix) {
    const std::wstring name(200, L'n');
    EXPECT_EQ(windows::toLongPath(L"disk.vmdk"), L"disk.vmdk");
    EXPECT_EQ(windows::toLongPath(L"C:\\" + name + L"\\" + name), L"\\\\?\\C:\\" + name + L"\\" + name);
    EXPECT_EQ(windows::toLongPath(L"\\\\server\\share\\" + name + L"/" + name),
              L"\\\\?\\UNC\\server\\share\\" + name + L"\\" + name);
}

TEST(WindowsErrors_test, HaveTheWordsOfOtherSystems) {
    EXPECT_EQ(windows::describe(ERROR_FILE_NOT_FOUND), "No such file or directory");
    EXPECT_EQ(windows::describe(ERROR_ACCESS_DENIED), "Permission denied");
    EXPECT_EQ(windows::describe(ERROR_DISK_FULL), "No space left on device");
    EXPECT_EQ(windows::describe(ERROR_FILE_EXISTS), "File exists");
    EXPECT_NE(windows::describe(ERROR_SHARING_VIOLATION), "");
}

} // namespace
} // namespace tessel::cli
