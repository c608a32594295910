#include "foundation/lum/URIToPath.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

String toUnixPath(const CURI& uri) {
    return uriToPath<CUnixPathTraits>(uri);
}

String toWindowsPath(const CURI& uri) {
    return uriToPath<CWindowsPathTraits>(uri);
}

TEST(URIToPath, WritesUnixPaths) {
    const struct {
        const wchar_t* uri;
        const wchar_t* path;
    } rows[] = {
        {L"file:///vm/disk.vmdk", L"/vm/disk.vmdk"},
        {L"FILE:/vm/disk.vmdk", L"/vm/disk.vmdk"},
        {L"file://LocalHost/x", L"/x"},
        {L"file:///a%20b%23%3f%25/%C3%A4\x00E4 %E2%82%AC", L"/a b#?%/\x00E4\x00E4 \x20AC"},
        {L"file:///100%", L"/100%"},
        {L"file:///a\\b%5C:c", L"/a\\b\\:c"},
        {L"file:///", L"/"},
        {L"file:x/y", L"x/y"},
        {L"sub/disk.vmdk", L"sub/disk.vmdk"},
        {L"./x:y", L"./x:y"},
        {L"../x", L"../x"},
        {L"", L""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(toUnixPath(CURI(row.uri)), row.path) << String(row.uri).toUTF8();
}

TEST(URIToPath, WritesWindowsPaths) {
    const struct {
        const wchar_t* uri;
        const wchar_t* path;
    } rows[] = {
        {L"file:///C:/dir/disk.vmdk", L"C:\\dir\\disk.vmdk"},
        {L"file:/c%3A/x", L"c:\\x"},
        {L"file:///C:", L"C:\\"},
        {L"file:///C:/", L"C:\\"},
        {L"file://localhost/C:/x", L"C:\\x"},
        {L"file://server/share/dir/f.vmdk", L"\\\\server\\share\\dir\\f.vmdk"},
        {L"file://my%25server/share", L"\\\\my%server\\share"},
        {L"file:////server/share/x", L"\\\\server\\share\\x"},
        {L"file:///C:/a%20b%23%25/%C3%A4", L"C:\\a b#%\\\x00E4"},
        {L"file:///dir/x", L"\\dir\\x"},
        {L"/dir/x", L"\\dir\\x"},
        {L"dir/x", L"dir\\x"},
        {L"../x", L"..\\x"},
        {L"", L""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(toWindowsPath(CURI(row.uri)), row.path) << String(row.uri).toUTF8();
}

TEST(URIToPath, UndoesWhatBuildingFromAPathDoes) {
    for (const wchar_t* const path :
         {L"/", L"/vm/disk.vmdk", L"/100%/50%25/%41", L"/a#b?c d\x00E4\U0001F600", L"/a\\b:c", L"x", L"a:b",
          L"./a:b/../c", L"/a\nb", L"/trailing/", L"~", L""})
        EXPECT_EQ(toUnixPath(CURI(CUnixPath(path), false)), path) << String(path).toUTF8();
    for (const wchar_t* const path :
         {L"C:\\", L"C:\\dir\\disk.vmdk", L"c:\\100%\\a#b %41\x00E4", L"\\\\server\\share",
          L"\\\\server\\share\\f.vmdk", L"\\\\a%b#c d@e\\s%1\\x", L"\\\\localhost\\share\\x",
          L"\\\\SERVER\\x\\", L"\\dir\\x", L"\\", L"dir\\x", L"..\\x", L""})
        EXPECT_EQ(toWindowsPath(CURI(CWindowsPath(path), false)), path) << String(path).toUTF8();
}

TEST(URIToPath, NormalFormNamesTheSamePath) {
    for (const wchar_t* const path : {L"/100%/50%25/%41", L"/a#b?c d\x00E4\U0001F600", L"/a\\b:c/[x]", L"x"})
        EXPECT_EQ(toUnixPath(CURI(CUnixPath(path), false).toNormalized()), path) << String(path).toUTF8();
    for (const wchar_t* const path : {L"C:\\100%\\a#b %41\x00E4", L"\\\\server\\share\\f.vmdk",
                                      L"\\\\a%b#c d@e\\s%1\\x", L"\\\\localhost\\share\\x", L"dir\\x"})
        EXPECT_EQ(toWindowsPath(CURI(CWindowsPath(path), false).toNormalized()), path)
            << String(path).toUTF8();
}

TEST(URIToPath, RefusesWhatNoPathCanSay) {
    const struct {
        const char* uri;
        const char* message;
    } rows[] = {
        {"http://h/x", "Only files can be opened, no URIs with another scheme"},
        {"x:y", "Only files can be opened, no URIs with another scheme"},
        {"file:///a?q", "A file's URI has no query, fragment, user or port"},
        {"file:///disk#1.vmdk", "A file's URI has no query, fragment, user or port"},
        {"file://user@/x", "A file's URI has no query, fragment, user or port"},
        {"file://localhost:80/x", "A file's URI has no query, fragment, user or port"},
    };
    for (const auto& row : rows) {
        const CURI uri(row.uri);
        EXPECT_FILE_SYSTEM_ERROR(toUnixPath(uri), CFileSystemError::Problem_NotSupported, row.message,
                                 {{"uri", uri.toString(true)}});
        EXPECT_FILE_SYSTEM_ERROR(toWindowsPath(uri), CFileSystemError::Problem_NotSupported, row.message,
                                 {{"uri", uri.toString(true)}});
    }
    EXPECT_FILE_SYSTEM_ERROR(
        toUnixPath(CURI("file://server/share/x")), CFileSystemError::Problem_NotSupported,
        "Files on another computer cannot be opened by its name", {{"uri", "file://server/share/x"}});
}

TEST(URIToPath, RefusesNamesThatTheSystemCannotHave) {
    const struct {
        String (*toPath)(const CURI&);
        const char* uri;
        const char* path;
        const char* reason;
    } rows[] = {
        {toUnixPath, "file:///a%2Fb", "file:///a/b", "A separator is in no name"},
        {toUnixPath, "file:///a%FF", "file:///a%FF", "An escape does not belong to a character"},
        {toWindowsPath, "file:///C:/a%2fb", "file:///C:/a/b", "A separator is in no name"},
        {toWindowsPath, "file:///C:/a%5Cb", "file:///C:/a\\b", "A separator is in no name"},
        {toWindowsPath, "file:///C:\\a", "file:///C:\\a", "A separator is in no name"},
        {toWindowsPath, "file:///C:/a:b", "C:\\a:b",
         "The character : only stands behind the letter of a drive"},
        {toWindowsPath, "file:///C:b", "\\C:b", "The character : only stands behind the letter of a drive"},
        {toWindowsPath, "./C:/b", ".\\C:\\b", "The character : only stands behind the letter of a drive"},
        {toWindowsPath, "file:C:/b", ".\\C:\\b", "The character : only stands behind the letter of a drive"},
        {toWindowsPath, "file:C:", ".\\C:", "The character : only stands behind the letter of a drive"},
        {toWindowsPath, "file:///C:/a%3Fb", "C:\\a?b", "The character ? is in no path"},
        {toWindowsPath, "file://server", "\\\\server", "The name of a share is missing"},
        {toWindowsPath, "file://./pipe/x", "\\\\.\\pipe\\x", "The name of a server is missing"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.uri);
        EXPECT_LUM_ERROR(row.toPath(CURI(row.uri)), CBadPathError, -1, "Invalid path: " + String(row.path),
                         {{"path", row.path}, {"reason", row.reason}});
    }
}

TEST(URIToPath, RefusesZeros) {
    const String path("/a\0.vmdk", 8);
    EXPECT_LUM_ERROR(toUnixPath(CURI("file:///a%00.vmdk")), CBadPathError, -1, "Invalid path: " + path,
                     {{"path", path}, {"reason", "The character with the code 0 is in no path"}});
}

TEST(URIToPath, HostCannotLeadOutOfItsPlace) {
    EXPECT_THROW(toWindowsPath(CURI("file://a%5C..%5Cb/share/x")), CBadPathError);
    EXPECT_THROW(toWindowsPath(CURI("file://a%2Fb/share/x")), CBadPathError);
    EXPECT_THROW(toWindowsPath(CURI("file://a%FF/share/x")), CBadPathError);
}

} // namespace
} // namespace lum
