#include "lum/CURI.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <string>

namespace lum {
namespace {

/// A part in a form that can be compared: "-" where there is none.
String textOf(const TConstOptRef<String>& part) {
    return part ? *part : String("-");
}

CURI parse(const String& text) {
    return CURI(text);
}

// Parsing and parts

TEST(CURI, ParsesItsParts) {
    const struct {
        const char* text;
        const char* scheme;
        const char* userInfo;
        const char* host;
        int port;
        const char* path;
        const char* query;
        const char* fragment;
    } rows[] = {
        {"", "", "-", "-", -1, "", "-", "-"},
        {"disk.vmdk", "", "-", "-", -1, "disk.vmdk", "-", "-"},
        {"file:///vm/disk.vmdk", "file", "-", "", -1, "/vm/disk.vmdk", "-", "-"},
        {"file:/vm/disk.vmdk", "file", "-", "-", -1, "/vm/disk.vmdk", "-", "-"},
        {"http://a/b/c?q#f", "http", "-", "a", -1, "/b/c", "q", "f"},
        {"http://u:p@h:80", "http", "u:p", "h", 80, "", "-", "-"},
        {"//h/p", "", "-", "h", -1, "/p", "-", "-"},
        {"//h?q", "", "-", "h", -1, "", "q", "-"},
        {"/p?#", "", "-", "-", -1, "/p", "", ""},
        {"?a?b#c#d?e", "", "-", "-", -1, "", "a?b", "c#d?e"},
        {"x:y", "x", "-", "-", -1, "y", "-", "-"},
        {"a+-.1:y", "a+-.1", "-", "-", -1, "y", "-", "-"},
        {"mailto:a@b", "mailto", "-", "-", -1, "a@b", "-", "-"},
        {"./x:y", "", "-", "-", -1, "./x:y", "-", "-"},
        {"1:y", "", "-", "-", -1, "1:y", "-", "-"},
        {"a b:y", "", "-", "-", -1, "a b:y", "-", "-"},
        {":y", "", "-", "-", -1, ":y", "-", "-"},
        {"a/b:c", "", "-", "-", -1, "a/b:c", "-", "-"},
        {"s://[::1]:8080/", "s", "-", "[::1]", 8080, "/", "-", "-"},
        {"s://[::1]/", "s", "-", "[::1]", -1, "/", "-", "-"},
        {"s://h:/", "s", "-", "h", -1, "/", "-", "-"},
        {"s://h:65535", "s", "-", "h", 65535, "", "-", "-"},
        {"s://h:65536", "s", "-", "h:65536", -1, "", "-", "-"},
        {"s://h:99999999999999999999", "s", "-", "h:99999999999999999999", -1, "", "-", "-"},
        {"s://h:8o", "s", "-", "h:8o", -1, "", "-", "-"},
        {"s://a@b@c/", "s", "a@b", "c", -1, "/", "-", "-"},
        {"s://@/", "s", "", "", -1, "/", "-", "-"},
        {"s:////x", "s", "-", "", -1, "//x", "-", "-"},
        {"s:a b%zz", "s", "-", "-", -1, "a b%zz", "-", "-"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        const CURI uri = parse(row.text);
        EXPECT_EQ(uri.getScheme(), row.scheme);
        EXPECT_EQ(textOf(uri.getUserInfo()), row.userInfo);
        EXPECT_EQ(textOf(uri.getHost()), row.host);
        EXPECT_EQ(uri.getPort(), row.port);
        EXPECT_EQ(uri.getPath(), row.path);
        EXPECT_EQ(textOf(uri.getQuery()), row.query);
        EXPECT_EQ(textOf(uri.getFragment()), row.fragment);
    }
}

TEST(CURI, IsAbsoluteWithASchemeAndAPathFromTheRoot) {
    for (const char* const text : {"file:///vm/disk.vmdk", "file:/x", "http://h", "file://", "x:/", "x:/y"})
        EXPECT_TRUE(parse(text).isAbsolute()) << text;
    for (const char* const text :
         {"", "disk.vmdk", "/vm/disk.vmdk", "//h/p", "x:y", "file:disk.vmdk", "x:", "x:?q"})
        EXPECT_FALSE(parse(text).isAbsolute()) << text;
}

TEST(CURI, IsEmptyWithoutAnyPart) {
    EXPECT_TRUE(CURI().isEmpty());
    EXPECT_TRUE(parse("").isEmpty());
    for (const char* const text : {"x:", "//", "a", "/", "?", "#"})
        EXPECT_FALSE(parse(text).isEmpty()) << text;
}

TEST(CURI, GivesUserNameAndAuthority) {
    const CURI full = parse("s://us%40er:pw:x@host:7/p");
    EXPECT_EQ(full.getUserName(), String("us%40er"));
    EXPECT_EQ(full.getAuthority(), String("us%40er:pw:x@host:7"));
    const CURI userOnly = parse("s://user@host/p");
    EXPECT_EQ(userOnly.getUserName(), String("user"));
    EXPECT_EQ(userOnly.getAuthority(), String("user@host"));
    EXPECT_EQ(parse("file:///p").getAuthority(), String(""));
    EXPECT_EQ(parse("file:/p").getAuthority(), std::nullopt);
    EXPECT_EQ(parse("file:///p").getUserName(), std::nullopt);
}

TEST(CURI, IsBuiltFromParts) {
    const String host("h");
    const String user("u");
    const String query("q");
    const String fragment("f");
    EXPECT_EQ(CURI("s", "/p", host, user, 8, query, fragment), parse("s://u@h:8/p?q#f"));
    EXPECT_EQ(CURI("", "a/b"), parse("a/b"));
    EXPECT_EQ(CURI("file", "/p"), parse("file:/p"));
    EXPECT_EQ(CURI("file", "/p", String()), parse("file:///p"));
    EXPECT_EQ(CURI("", ""), CURI());
}

TEST(CURI, RebuiltWithoutSchemeIsARelativeReference) {
    const CURI file(CUnixPath("sub/a#b.vmdk"), false);
    ASSERT_FALSE(file.isAbsolute());
    const CURI reference("", file.getPath(), file.getHost(), file.getUserInfo(), file.getPort(),
                         file.getQuery(), file.getFragment());
    EXPECT_EQ(reference, parse("sub/a%23b.vmdk"));
}

TEST(CURI, EscapesInPrintWhatAPartDoesNotAllow) {
    const CURI uri("s", "/a?b#c", String("h/x"), String("u@v"), -1, String("q#r"), String("f#g"));
    EXPECT_EQ(uri.toString(false), "s://u%40v@h%2Fx/a%3Fb%23c?q%23r#f%23g");
    EXPECT_EQ(uri.getName(), "a?b#c");
}

TEST(CURI, PartsThatNeedAHostGetOne) {
    EXPECT_EQ(CURI("s", "/p", {}, String("u")), parse("s://u@/p"));
    EXPECT_EQ(CURI("s", "/p", {}, {}, 5), parse("s://:5/p"));
    EXPECT_EQ(CURI("s", "p", String("h")), parse("s://h/p"));
    EXPECT_EQ(CURI("s", "", String("h")), parse("s://h"));
}

TEST(CURI, RefusesPartsThatAreNone) {
    for (const char* const scheme : {"1a", "a b", ":", "a:", "a/b", "\xE4", "+a"})
        EXPECT_INVALID_ARG_ERROR(CURI(scheme, "/p"), "CURI constructor", "Invalid scheme",
                                 {{"scheme", scheme}});
    EXPECT_INVALID_ARG_ERROR(CURI("s", "/p", String("h"), {}, 65536), "CURI constructor", "Invalid port",
                             {{"port", "65536"}});
    EXPECT_INVALID_ARG_ERROR(CURI("s", "/p", String("h"), {}, -2), "CURI constructor", "Invalid port",
                             {{"port", "-2"}});
}

// Native paths

TEST(CURI, IsBuiltFromUnixPaths) {
    const struct {
        const wchar_t* path;
        const wchar_t* uri;
    } rows[] = {
        {L"", L""},
        {L"/", L"file:///"},
        {L"/vm/disk.vmdk", L"file:///vm/disk.vmdk"},
        {L"/vm//x///y/", L"file:///vm/x/y/"},
        {L"//server/x", L"file:///server/x"},
        {L"/a b/\x00E4\x20AC", L"file:///a b/\x00E4\x20AC"},
        {L"/100%/50%25/a#1?", L"file:///100%25/50%2525/a%231%3F"},
        {L"/C:\\x", L"file:///C:\\x"},
        {L"disk.vmdk", L"file:disk.vmdk"},
        {L"./a/../b", L"file:./a/../b"},
        {L"a:b", L"file:a:b"},
        {L"a//b", L"file:a/b"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(CURI(CUnixPath(row.path), false), parse(row.uri)) << String(row.path).toUTF8();
}

TEST(CURI, IsBuiltFromWindowsPaths) {
    const struct {
        const wchar_t* path;
        const wchar_t* uri;
    } rows[] = {
        {L"", L""},
        {L"C:\\dir\\disk.vmdk", L"file:///C:/dir/disk.vmdk"},
        {L"d:/a\\\\b/", L"file:///d:/a/b/"},
        {L"C:\\", L"file:///C:/"},
        {L"C:\\100%\\a#1 \x00E4.vmdk", L"file:///C:/100%25/a%231 \x00E4.vmdk"},
        {L"\\\\server\\share\\dir\\f.vmdk", L"file://server/share/dir/f.vmdk"},
        {L"//server/share", L"file://server/share"},
        {L"\\\\my%server\\share\\x", L"file://my%25server/share/x"},
        {L"\\\\LocalHost\\share\\x", L"file:////LocalHost/share/x"},
        {L"dir\\disk.vmdk", L"file:dir/disk.vmdk"},
        {L"..\\x", L"file:../x"},
        {L"\\dir\\x", L"/dir/x"},
        {L"/", L"/"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(CURI(CWindowsPath(row.path), false), parse(row.uri)) << String(row.path).toUTF8();
}

TEST(CURI, RelativePathIsNotAbsoluteByItself) {
    EXPECT_FALSE(CURI(CUnixPath("disk.vmdk"), false).isAbsolute());
    EXPECT_FALSE(CURI(CWindowsPath("dir\\disk.vmdk"), false).isAbsolute());
    EXPECT_FALSE(CURI(CWindowsPath("\\dir\\disk.vmdk"), false).isAbsolute());
    EXPECT_TRUE(CURI(CUnixPath("/disk.vmdk"), false).isAbsolute());
    EXPECT_TRUE(CURI(CWindowsPath("C:\\disk.vmdk"), false).isAbsolute());
    EXPECT_TRUE(CURI(CWindowsPath("\\\\server\\share"), false).isAbsolute());
}

TEST(CURI, RelativePathStartsAtTheCurrentFolderWhenAsked) {
    const CURI current = nativePathToURI(getCurrentWorkDirectoryAsString());
    EXPECT_EQ(CURI(CUnixPath("./sub/a?.vmdk"), true), current << "sub"
                                                              << "a?.vmdk");
    EXPECT_EQ(CURI(CUnixPath("../x"), true), current.getParent() << "x");
    EXPECT_EQ(CURI(CWindowsPath("sub\\a.vmdk"), true), current << "sub"
                                                               << "a.vmdk");
    EXPECT_EQ(CURI(CWindowsPath("\\sub\\a.vmdk"), true), current.resolve(parse("/sub/a.vmdk")));
    EXPECT_EQ(CURI(CUnixPath("/x/./y"), true), parse("file:///x/./y"));
    EXPECT_EQ(CURI(CWindowsPath("C:\\x"), true), parse("file:///C:/x"));
    EXPECT_TRUE(CURI(CUnixPath(""), true).isEmpty());
    EXPECT_TRUE(CURI(CWindowsPath(""), true).isEmpty());
}

// Names

TEST(CURI, GivesNameTitleAndExtension) {
    const struct {
        const wchar_t* uri;
        const wchar_t* name;
        const wchar_t* title;
        const wchar_t* extension;
    } rows[] = {
        {L"file:///vm/disk.vmdk", L"disk.vmdk", L"disk", L".vmdk"},
        {L"disk-s001.tar.gz?q#f", L"disk-s001.tar.gz", L"disk-s001.tar", L".gz"},
        {L"file:///vm/disk", L"disk", L"disk", L""},
        {L"file:///vm/.hidden", L".hidden", L".hidden", L""},
        {L"file:///vm/.a.b", L".a.b", L".a", L".b"},
        {L"a.", L"a.", L"a", L"."},
        {L"file:///vm.d/", L"", L"", L""},
        {L"file:///", L"", L"", L""},
        {L"file://host", L"", L"", L""},
        {L"", L"", L"", L""},
        {L"a/..", L"", L"", L""},
        {L"a/.", L"", L"", L""},
        {L"a/%2e%2E", L"", L"", L""},
        {L"...", L"...", L"..", L"."},
        {L"a%2Fb%3F%23%25.x%79", L"a/b?#%.xy", L"a/b?#%", L".xy"},
        {L"a%20b c%C3%A4\x00E4%E2%82%AC", L"a b c\x00E4\x00E4\x20AC", L"a b c\x00E4\x00E4\x20AC", L""},
        {L"a%FF%C3.b", L"a%FF%C3.b", L"a%FF%C3", L".b"},
        {L"100%.b", L"100%.b", L"100%", L".b"},
        {L"./x:y", L"x:y", L"x:y", L""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(String(row.uri).toUTF8());
        const CURI uri = parse(row.uri);
        EXPECT_EQ(uri.getName(), row.name);
        EXPECT_EQ(uri.getTitle(), row.title);
        EXPECT_EQ(uri.getExtension(), row.extension);
    }
}

TEST(CURI, GivesTheFolderThatHoldsAFile) {
    const struct {
        const char* uri;
        const char* parent;
    } rows[] = {
        {"file:///a/b", "file:///a"},
        {"file:///a/b?q#f", "file:///a"},
        {"file:///a", "file:///"},
        {"file:///", "file:///"},
        {"file://host/x", "file://host/"},
        {"file://host", "file://host"},
        {"s://u@h:1/a/b", "s://u@h:1/a"},
        {"/a", "/"},
        {"disk.vmdk", ""},
        {"a/b", "a"},
        {"../b", ".."},
        {"./x:y", "."},
        {"", ""},
        {"file:///a/b/", "file:///a/b"},
        {"file:///a//b", "file:///a//"},
        {"file:////b", "file:////"},
        {"a/..", "a/.."},
        {"a/.", "a/."},
        {"file:///C:/x", "file:///C:"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(row.uri).getParent(), parse(row.parent)) << row.uri;
}

TEST(CURI, AppendsANameAsItIs) {
    const struct {
        const char* folder;
        const wchar_t* name;
        const wchar_t* file;
    } rows[] = {
        {"file:///vm", L"disk.vmdk", L"file:///vm/disk.vmdk"},
        {"file:///vm/", L"disk.vmdk", L"file:///vm/disk.vmdk"},
        {"file:///vm?q#f", L"x", L"file:///vm/x"},
        {"file:///", L"x", L"file:///x"},
        {"file://host", L"x", L"file://host/x"},
        {"file:", L"x", L"file:x"},
        {"", L"x", L"x"},
        {"a/b", L"x", L"a/b/x"},
        {"..", L"x", L"../x"},
        {"file:///vm", L"a/b", L"file:///vm/a%2Fb"},
        {"file:///vm", L"100%", L"file:///vm/100%25"},
        {"file:///vm", L"%41", L"file:///vm/%2541"},
        {"file:///vm", L"#1?", L"file:///vm/%231%3F"},
        {"file:///vm", L"a b\x00E4\\", L"file:///vm/a b\x00E4\\"},
        {"file:///vm", L"a:b", L"file:///vm/a:b"},
        {"file:///vm", L"...", L"file:///vm/..."},
        {"file:///vm", L"%2E", L"file:///vm/%252E"},
        {"file:///vm", L"", L"file:///vm/"},
        {"", L"", L""},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(row.folder) << String(row.name), parse(row.file))
            << row.folder << String(row.name).toUTF8();
}

TEST(CURI, RefusesNamesThatCallNoFile) {
    EXPECT_LUM_ERROR(parse("file:///vm") << ".", CBadPathError, -1, "Invalid path: .",
                     {{"path", "."}, {"reason", "The name of a file is expected"}});
    EXPECT_LUM_ERROR(parse("file:///vm") << "..", CBadPathError, -1, "Invalid path: ..",
                     {{"path", ".."}, {"reason", "The name of a file is expected"}});
}

TEST(CURI, NameInItsParentIsTheSameFile) {
    for (const wchar_t* const text : {L"file:///a/b",  L"file:///a",    L"file:///",
                                      L"file:///a/b/", L"file:///a//b", L"file:////b",
                                      L"disk.vmdk",    L"a/b",          L"../b",
                                      L"./x:y",        L"x:/y",         L"//h/p",
                                      L"//h",          L"file://host",  L"file:a/b",
                                      L".//b",         L"a/..",         L"..",
                                      L"a/.",          L"/..",          L"a%2Fb",
                                      L"/%23/%25%3f",  L"/100%",        L"/\x00E4 b/%C3%A4%20b",
                                      L"/a%00b",       L"/a/%2e%2e/b",  L"file:///C:/x",
                                      L"file:///C:",   L"a//b",         L"",
                                      L"/%2e%2E",      L"/a\\b"}) {
        const CURI uri = parse(text);
        EXPECT_EQ((uri.getParent() << uri.getName()).toNormalized(), uri.toNormalized())
            << String(text).toUTF8();
    }
}

TEST(CURI, NameThatHoldsAColonIsNoScheme) {
    const CURI file = CURI() << "a:b";
    EXPECT_EQ(file.getName(), "a:b");
    EXPECT_EQ(file.toString(false), "./a:b");
    EXPECT_EQ(file.toString(true), "./a:b");
    EXPECT_EQ(parse(file.toString(false)).getName(), "a:b");
    EXPECT_EQ(parse("file:///vm") << file, parse("file:///vm/a:b"));
}

// Printing

TEST(CURI, PrintsTheStrictForm) {
    const struct {
        const wchar_t* text;
        const char* strict;
    } rows[] = {
        {L"", ""},
        {L"file:///vm/disk.vmdk", "file:///vm/disk.vmdk"},
        {L"FILE://Host/%c3%a4%7e", "FILE://Host/%c3%a4%7e"},
        {L"/a b/\x00E4\x20AC\U0001F600", "/a%20b/%C3%A4%E2%82%AC%F0%9F%98%80"},
        {L"/100%/%zz/%4", "/100%25/%25zz/%254"},
        {L"/%%41", "/%25%41"},
        {L"/-._~!$&'()*+,;=:@", "/-._~!$&'()*+,;=:@"},
        {L"/\"<>[\\]^`{|}\x7F\n", "/%22%3C%3E%5B%5C%5D%5E%60%7B%7C%7D%7F%0A"},
        {L"s://u:p w@h\x00E4[:80/?a/b?c d[]#e/f?g h#[]",
         "s://u:p%20w@h%C3%A4%5B:80/?a/b?c%20d%5B%5D#e/f?g%20h%23%5B%5D"},
        {L"s://[::1]:80/", "s://[::1]:80/"},
        {L"s://[::1%25eth0]/", "s://%5B%3A%3A1%25eth0%5D/"},
        {L"s://[]/", "s://%5B%5D/"},
        {L"s://h:x/", "s://h%3Ax/"},
        {L"1:y", "./1:y"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(row.text).toString(false), row.strict) << String(row.text).toUTF8();
}

TEST(CURI, PrintsForPeople) {
    const struct {
        const wchar_t* text;
        const wchar_t* readable;
    } rows[] = {
        {L"", L""},
        {L"file:///vm/disk.vmdk", L"file:///vm/disk.vmdk"},
        {L"file:///a%20b/%C3%A4%e2%82%ac%25%F0%9F%98%80", L"file:///a b/\x00E4\x20AC%\U0001F600"},
        {L"/a b\x00E4", L"/a b\x00E4"},
        {L"/%FF%C3%28%C3", L"/%FF%C3(%C3"},
        {L"/%00%0a%1F%7f%C2%80%C2%9F", L"/%00%0a%1F%7f%C2%80%C2%9F"},
        {L"/a\nb\x7F\x0085", L"/a%0Ab%7F%C2%85"},
        {L"/\x202E"
         L"a\x2028\x200F\x2066\x061C",
         L"/%E2%80%AEa%E2%80%A8%E2%80%8F%E2%81%A6%D8%9C"},
        {L"/%E2%80%AE", L"/%E2%80%AE"},
        {L"/100%/%2541", L"/100%/%41"},
        {L"s://user:secret@h%C3%A4:80/p?q%20r#f%20g", L"s://h\x00E4:80/p?q r#f g"},
        {L"s://[::1]/", L"s://[::1]/"},
        {L"1:y", L"./1:y"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parse(row.text).toString(true), row.readable) << String(row.text).toUTF8();
}

TEST(CURI, PrintsWhatIsNoTextAsReplacement) {
    const String name(std::wstring{L'a', static_cast<wchar_t>(0xD800), L'b'});
    const CURI uri = parse("file:///") << name;
    EXPECT_EQ(uri.getName(), name);
    EXPECT_EQ(uri.toString(false), "file:///a%EF%BF%BDb");
    EXPECT_EQ(uri.toString(true), "file:///a%EF%BF%BDb");
    EXPECT_EQ(uri.toNormalized(), parse("file:///a%EF%BF%BDb"));
}

TEST(CURI, PathThatBeginsWithTwoSlashesIsNoHost) {
    const CURI uri("x", "//a/b");
    EXPECT_EQ(uri.toString(false), "x:/.//a/b");
    EXPECT_EQ(parse(uri.toString(false)).toNormalized(), uri.toNormalized());
    EXPECT_EQ(CURI("", "//a").toString(false), "/.//a");
    EXPECT_EQ(CURI("file", "//a").toNormalized(), parse("file:////a"));
}

// Normal form

TEST(CURI, HasANormalForm) {
    const struct {
        const wchar_t* text;
        const char* normal;
    } rows[] = {
        {L"", ""},
        {L"HTTP://User@HOST:80/Path?Q#F", "http://User@host:80/Path?Q#F"},
        {L"eXAMPLE://a/./b/../b/%63/%7bfoo%7d", "example://a/b/c/%7Bfoo%7D"},
        {L"http://h%C3%84%41\x00C4.%2d/", "http://h%C3%84a%C3%84.-/"},
        {L"http://%25%34%31", "http://%2541/"},
        {L"http://%4%31/", "http://%2541/"},
        {L"http://[::AB]:1", "http://[::ab]:1/"},
        {L"http://[v1.X]x/", "http://%5Bv1.x%5Dx/"},
        {L"http://h:", "http://h/"},
        {L"//H", "//h/"},
        {L"http://u%7E%20 @h/?%7e%20 #%7e%20 ", "http://u~%20%20@h/?~%20%20#~%20%20"},
        {L"http://a/%21%3A%2f", "http://a/%21%3A%2F"},
        {L"http://a/%2e%2E/x/%2e", "http://a/x/"},
        {L"http://a/../../x", "http://a/x"},
        {L"http://a/b/..", "http://a/"},
        {L"http://a//b/..//", "http://a///"},
        {L"file:/vm/x", "file:///vm/x"},
        {L"file://LOCALHOST/vm/x", "file:///vm/x"},
        {L"file://localhost", "file:///"},
        {L"file://Server/Share/x", "file://server/Share/x"},
        {L"FILE:///c%3A/%21%40%2f%3f", "file:///c:/!@%2F%3F"},
        {L"file:///a b/\x00E4", "file:///a%20b/%C3%A4"},
        {L"file:////localhost/share", "file:////localhost/share"},
        {L"file:///C:/../../x", "file:///C:/x"},
        {L"file:///C:/..", "file:///C:/"},
        {L"file:///C:", "file:///C:"},
        {L"file://server/C:/../x", "file://server/x"},
        {L"file:///Cx/../x", "file:///x"},
        {L"file:a/../b", "file:b"},
        {L"disk.vmdk", "disk.vmdk"},
        {L"./disk.vmdk", "disk.vmdk"},
        {L"a/./b/../../c", "c"},
        {L"../x", "../x"},
        {L"a/../../x", "../x"},
        {L"../../x/..", "../../"},
        {L"..", "../"},
        {L".", "./"},
        {L"./", "./"},
        {L"a/..", "./"},
        {L"a/../", "./"},
        {L"a/..//b", ".//b"},
        {L"./x:y", "./x:y"},
        {L"a/../x:y/z", "./x:y/z"},
        {L"a/x:y", "a/x:y"},
        {L"/x:y", "/x:y"},
        {L"x%3Ay", "x%3Ay"},
        {L"/a/..//b", "/.//b"},
        {L"x:/a/..//b", "x:/.//b"},
        {L"file:/a/..//b", "file:////b"},
        {L"x:a/../b:c", "x:b:c"},
        {L"/%c3%28%ff", "/%C3%28%FF"},
        {L"/%", "/%25"},
        {L"/%%34%31", "/%2541"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(String(row.text).toUTF8());
        const CURI normal = parse(row.text).toNormalized();
        EXPECT_EQ(normal.toString(false), row.normal);
        EXPECT_EQ(normal.toNormalized(), normal);
        EXPECT_EQ(parse(normal.toString(false)), normal);
        EXPECT_EQ(parse(parse(row.text).toString(false)).toNormalized(), normal);
    }
}

TEST(CURI, PathAndEscapedTextOfAFileHaveTheSameNormalForm) {
    EXPECT_EQ(CURI(CUnixPath(L"/100%/a#1? \x00E4(1).vmdk"), false).toNormalized(),
              parse("file:/100%25/a%231%3F%20%C3%A4%281%29.vmdk").toNormalized());
    EXPECT_EQ(CURI(CWindowsPath(L"C:\\a b\\x.vmdk"), false).toNormalized(),
              parse("file://localhost/C%3a/a%20b/x.vmdk").toNormalized());
    EXPECT_EQ((parse("file:///vm") << "a;b=c").toNormalized(), parse("file:///vm/a%3Bb%3dc").toNormalized());
}

/// Every text of a few characters that matter to the syntax, and those around real prefixes.
TEST(CURI, NormalFormSurvivesPrintingWhateverItIsMadeFrom) {
    const std::wstring alphabet = L"a:/.%?#@[]2eE\\\x00E4";
    for (const wchar_t* const prefix : {L"", L"file:", L"file://", L"x:", L"/"}) {
        for (std::size_t number = 0; number < alphabet.size() * alphabet.size() * alphabet.size(); ++number) {
            std::wstring text(prefix);
            for (std::size_t rest = number, i = 0; i < 3; ++i, rest /= alphabet.size())
                text += alphabet[rest % alphabet.size()];
            const CURI normal = CURI(String(text)).toNormalized();
            ASSERT_EQ(normal.toNormalized(), normal) << String(text).toUTF8();
            ASSERT_EQ(parse(normal.toString(false)), normal) << String(text).toUTF8();
        }
    }
}

TEST(CURI, CopesWithLongTexts) {
    for (const char* const piece :
         {"/", "../", "./", "a/", "a/../", "%", "%41", "%C3", ":", "@", "?", "#", "[", "//"}) {
        SCOPED_TRACE(piece);
        String text("file:///");
        while (text.getLength() < 100000)
            text += piece;
        const CURI uri = parse(text);
        const CURI normal = uri.toNormalized();
        EXPECT_EQ(parse(normal.toString(false)), normal);
        EXPECT_EQ(parse("file:///base").resolve(uri).toNormalized(), normal);
        EXPECT_FALSE(uri.toString(true).isEmpty());
        EXPECT_LE(uri.getName().getLength(), text.getLength());
        EXPECT_LE(uri.getParent().getPath().getLength(), text.getLength());
    }
}

} // namespace
} // namespace lum
