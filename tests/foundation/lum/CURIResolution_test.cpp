#include "Printing.h"
#include "lum/CURI.h"

#include <gtest/gtest.h>

namespace lum {
namespace {

struct CResolutionRow {
    const char* reference;
    const char* result;
};

void expectResolved(const char* base, const CResolutionRow& row) {
    EXPECT_EQ(CURI(base).resolve(CURI(row.reference)).toString(false), row.result) << row.reference;
}

// RFC 3986 section 5.4.1
TEST(CURIResolution, NormalExamplesOfTheStandard) {
    const CResolutionRow rows[] = {
        {"g:h", "g:h"},
        {"g", "http://a/b/c/g"},
        {"./g", "http://a/b/c/g"},
        {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"},
        {"//g", "http://g"},
        {"?y", "http://a/b/c/d;p?y"},
        {"g?y", "http://a/b/c/g?y"},
        {"#s", "http://a/b/c/d;p?q#s"},
        {"g#s", "http://a/b/c/g#s"},
        {"g?y#s", "http://a/b/c/g?y#s"},
        {";x", "http://a/b/c/;x"},
        {"g;x", "http://a/b/c/g;x"},
        {"g;x?y#s", "http://a/b/c/g;x?y#s"},
        {"", "http://a/b/c/d;p?q"},
        {".", "http://a/b/c/"},
        {"./", "http://a/b/c/"},
        {"..", "http://a/b/"},
        {"../", "http://a/b/"},
        {"../g", "http://a/b/g"},
        {"../..", "http://a/"},
        {"../../", "http://a/"},
        {"../../g", "http://a/g"},
    };
    for (const CResolutionRow& row : rows)
        expectResolved("http://a/b/c/d;p?q", row);
}

// RFC 3986 section 5.4.2
TEST(CURIResolution, AbnormalExamplesOfTheStandard) {
    const CResolutionRow rows[] = {
        {"../../../g", "http://a/g"},
        {"../../../../g", "http://a/g"},
        {"/./g", "http://a/g"},
        {"/../g", "http://a/g"},
        {"g.", "http://a/b/c/g."},
        {".g", "http://a/b/c/.g"},
        {"g..", "http://a/b/c/g.."},
        {"..g", "http://a/b/c/..g"},
        {"./../g", "http://a/b/g"},
        {"./g/.", "http://a/b/c/g/"},
        {"g/./h", "http://a/b/c/g/h"},
        {"g/../h", "http://a/b/c/h"},
        {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
        {"g;x=1/../y", "http://a/b/c/y"},
        {"g?y/./x", "http://a/b/c/g?y/./x"},
        {"g?y/../x", "http://a/b/c/g?y/../x"},
        {"g#s/./x", "http://a/b/c/g#s/./x"},
        {"g#s/../x", "http://a/b/c/g#s/../x"},
        {"http:g", "http:g"},
    };
    for (const CResolutionRow& row : rows)
        expectResolved("http://a/b/c/d;p?q", row);
}

TEST(CURIResolution, KeepsTheAuthorityOfTheBase) {
    expectResolved("s://u@h:1/a", {"b", "s://u@h:1/b"});
    expectResolved("s://u@h:1", {"b", "s://u@h:1/b"});
    expectResolved("s://u@h:1", {"/b", "s://u@h:1/b"});
    expectResolved("s://u@h:1/a", {"//v@g:2/./b", "s://v@g:2/b"});
}

TEST(CURIResolution, ResolvesDotsInAbsoluteReferences) {
    expectResolved("http://a/b", {"file:///x/./y/../z", "file:///x/z"});
}

TEST(CURIResolution, RelativeBaseGivesARelativeResult) {
    expectResolved("a/b", {"c", "a/c"});
    expectResolved("a/b", {"../c", "c"});
    expectResolved("a/b", {"../../c", "../c"});
    expectResolved("b", {"./x:y", "./x:y"});
    expectResolved("", {"c", "c"});
    expectResolved("", {"file:c", "file:c"});
    expectResolved("", {"", ""});
    expectResolved("file:a/b", {"../../c", "file:../c"});
}

TEST(CURIResolution, FileWithARelativePathIsARelativeReference) {
    expectResolved("file:///vm/disk.vmdk", {"file:s001.vmdk", "file:///vm/s001.vmdk"});
    expectResolved("FILE:///vm/disk.vmdk", {"file:../s001.vmdk", "FILE:///s001.vmdk"});
    expectResolved("file:///vm/disk.vmdk", {"file:/x", "file:/x"});
    expectResolved("file:///vm/disk.vmdk", {"file://h", "file://h"});
    expectResolved("http://a/b", {"file:x", "file:x"});
    EXPECT_EQ(CURI("file:///vm") << CURI(CUnixPath("sub/a?b"), false), CURI("file:///vm/sub/a%3Fb"));
}

TEST(CURIResolution, KeepsTheDriveOfAWindowsPath) {
    expectResolved("file:///C:/vm/disk.vmdk", {"/dir/x", "file:///C:/dir/x"});
    expectResolved("file:///C:/vm/disk.vmdk", {"/D:/x", "file:///D:/x"});
    expectResolved("file:///C:/vm/disk.vmdk", {"../../../x", "file:///C:/x"});
    expectResolved("file://localhost/C:/vm/disk.vmdk", {"/dir/x", "file://localhost/C:/dir/x"});
    expectResolved("file:///C:", {"/x", "file:///C:/x"});
    expectResolved("file:///C:/vm/disk.vmdk", {"file:///x", "file:///x"});
    expectResolved("file://server/C:/vm/disk.vmdk", {"/dir/x", "file://server/dir/x"});
    expectResolved("http://a/C:/b", {"/dir/x", "http://a/dir/x"});
    expectResolved("file:///CC:/b", {"/dir/x", "file:///dir/x"});
    EXPECT_EQ(CURI("file:///C:/vm") << CURI(CWindowsPath("\\dir\\x"), false), CURI("file:///C:/dir/x"));
    EXPECT_EQ(CURI("file:///vm") << CURI(CWindowsPath("\\dir\\x"), false), CURI("file:///dir/x"));
}

TEST(CURIResolution, AppendingTreatsTheLeftSideAsAFolder) {
    const struct {
        const char* folder;
        const char* reference;
        const char* result;
    } rows[] = {
        {"file:///vm", "disk-s001.vmdk", "file:///vm/disk-s001.vmdk"},
        {"file:///vm/", "disk-s001.vmdk", "file:///vm/disk-s001.vmdk"},
        {"file:///vm?q#f", "sub/x", "file:///vm/sub/x"},
        {"file:///vm", "../x", "file:///x"},
        {"file:///vm", "./x:y", "file:///vm/x:y"},
        {"file:///vm", "/x", "file:///x"},
        {"file:///vm", "", "file:///vm/"},
        {"file:///vm?q", "", "file:///vm/"},
        {"file:///vm", "file:///x", "file:///x"},
        {"file:///vm", "x:y", "x:y"},
        {"file://host", "x", "file://host/x"},
        {"file:", "x", "file:x"},
        {"", "x", "x"},
        {"", "../x", "../x"},
        {"a", "x", "a/x"},
        {"..", "x", "../x"},
        {"", "", ""},
    };
    for (const auto& row : rows)
        EXPECT_EQ((CURI(row.folder) << CURI(row.reference)).toString(false), row.result)
            << row.folder << " << " << row.reference;
}

} // namespace
} // namespace lum
