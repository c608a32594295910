#include "lum/String.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <limits>

namespace lum {
namespace {

TEST(String, BytesOfLatin1BecomeTheCharactersWithTheSameCodes) {
    EXPECT_EQ(String("a\xE4\xFFz", 4), String(L"a\x00E4\x00FFz"));
    EXPECT_EQ(String("a\xE4"), String(L"a\x00E4"));
    EXPECT_EQ(String("abc", 2), "ab");
    EXPECT_EQ(String("a\0b", 3).getLength(), 3);
    EXPECT_EQ(String("abc", -1), "");
}

TEST(String, NullIsTheEmptyString) {
    EXPECT_TRUE(String(static_cast<const char*>(nullptr)).isEmpty());
    EXPECT_TRUE(String(static_cast<const wchar_t*>(nullptr)).isEmpty());
    EXPECT_TRUE(String().isEmpty());
    EXPECT_TRUE(String::getEmptyString().isEmpty());
}

TEST(String, GivesItsCharacters) {
    const String text(L"x\x20AC");
    EXPECT_EQ(text.getLength(), 2);
    EXPECT_FALSE(text.isEmpty());
    EXPECT_EQ(text[1], L'\x20AC');
    EXPECT_EQ(text[2], L'\0');
    EXPECT_EQ(std::wstring(text.getText()), L"x\x20AC");
    EXPECT_EQ(text.getWideString(), L"x\x20AC");
}

TEST(String, ConvertsUTF8BothWays) {
    const char* const bytes = "a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80";
    const String text = String::fromUTF8(bytes, 10);
    EXPECT_EQ(text, String(L"a\x00E4\x20AC\U0001F600"));
    EXPECT_EQ(text.toUTF8(), bytes);
    EXPECT_EQ(text.toUTF8Lossy(), bytes);
}

TEST(String, KeepsZerosInUTF8) {
    const std::string bytes("a\0b", 3);
    const String text = String::fromUTF8(bytes);
    EXPECT_EQ(text.getLength(), 3);
    EXPECT_EQ(text.toUTF8(), bytes);
}

TEST(String, AcceptsNoBytesAsUTF8) {
    EXPECT_EQ(String::fromUTF8(nullptr, 0), "");
}

TEST(String, RefusesInvalidUTF8) {
    const struct {
        const char* what;
        const char* bytes;
        const char* position;
    } rows[] = {
        {"stray continuation byte", "ab\x80", "2"},
        {"two bytes, cut", "ab\xC3", "2"},
        {"three bytes, cut", "\xE2\x82", "0"},
        {"four bytes, cut", "x\xF0\x9F\x98", "1"},
        {"continuation missing", "\xC3\x28", "0"},
        {"second continuation missing", "\xE2\x82\x28", "0"},
        {"third continuation missing", "\xF0\x9F\x98\x28", "0"},
        {"overlong slash in two bytes", "\xC0\xAF", "0"},
        {"overlong in two bytes, highest", "\xC1\xBF", "0"},
        {"overlong in three bytes", "a\xE0\x80\xAF", "1"},
        {"overlong in three bytes, highest", "\xE0\x9F\xBF", "0"},
        {"overlong in four bytes", "\xF0\x80\x80\xAF", "0"},
        {"overlong in four bytes, highest", "\xF0\x8F\xBF\xBF", "0"},
        {"first surrogate", "\xED\xA0\x80", "0"},
        {"last surrogate", "\xED\xBF\xBF", "0"},
        {"surrogate pair", "\xED\xA0\xBD\xED\xB8\x80", "0"},
        {"first above Unicode", "\xF4\x90\x80\x80", "0"},
        {"far above Unicode", "\xF7\xBF\xBF\xBF", "0"},
        {"five bytes", "\xF8\x88\x80\x80\x80", "0"},
        {"six bytes", "\xFC\x84\x80\x80\x80\x80", "0"},
        {"byte FE", "\xFE", "0"},
        {"byte FF", "abc\xFF", "3"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_LUM_ERROR(String::fromUTF8(std::string_view(row.bytes)), CError, -1, "Invalid UTF-8 text",
                         {{"position", row.position}});
    }
}

TEST(String, RefusesToWriteWhatIsNoText) {
    const String loneHigh(std::wstring{L'a', static_cast<wchar_t>(0xD800)});
    EXPECT_LUM_ERROR(loneHigh.toUTF8(), CError, -1, "Text cannot be written as UTF-8", {{"position", "1"}});
    EXPECT_EQ(loneHigh.toUTF8Lossy(), "a\xEF\xBF\xBD");
}

TEST(String, RefusesToWriteValuesAboveUnicode) {
    if constexpr (sizeof(wchar_t) == 4) {
        for (const wchar_t c : {static_cast<wchar_t>(0x110000), std::numeric_limits<wchar_t>::max(),
                                static_cast<wchar_t>(-1)}) {
            const String text(std::wstring(1, c));
            EXPECT_LUM_ERROR(text.toUTF8(), CError, -1, "Text cannot be written as UTF-8",
                             {{"position", "0"}});
            EXPECT_EQ(text.toUTF8Lossy(), "\xEF\xBF\xBD");
        }
    } else {
        // There is no such value.
        EXPECT_LE(static_cast<unsigned long>(std::numeric_limits<wchar_t>::max()), 0xFFFFU);
    }
}

TEST(String, CutsParts) {
    const String text("abcdef");
    EXPECT_EQ(text.Left(2), "ab");
    EXPECT_EQ(text.Left(0), "");
    EXPECT_EQ(text.Left(-3), "");
    EXPECT_EQ(text.Left(7), "abcdef");
    EXPECT_EQ(text.Mid(2, 3), "cde");
    EXPECT_EQ(text.Mid(2), "cdef");
    EXPECT_EQ(text.Mid(2, -1), "cdef");
    EXPECT_EQ(text.Mid(2, 0), "");
    EXPECT_EQ(text.Mid(4, 5), "ef");
    EXPECT_EQ(text.Mid(6), "");
    EXPECT_EQ(text.Mid(7, 1), "");
    EXPECT_EQ(text.Mid(-2, 3), "abc");
}

TEST(String, LowersAsciiAndLatin1) {
    EXPECT_EQ(String("AZaz09[@`{").Lower(), "azaz09[@`{");
    EXPECT_EQ(String(L"\x00C0\x00D6\x00D7\x00D8\x00DE\x00DF").Lower(),
              String(L"\x00E0\x00F6\x00D7\x00F8\x00FE\x00DF"));
    EXPECT_EQ(String(L"\x0100\x0391").Lower(), String(L"\x0100\x0391"));
}

TEST(String, ReplacesWithoutOverlap) {
    const struct {
        const char* text;
        const char* from;
        const char* to;
        const char* result;
        int count;
    } rows[] = {
        {"a-b-c", "-", "+", "a+b+c", 2}, {"aaaaa", "aa", "b", "bba", 2}, {"aaa", "a", "aa", "aaaaaa", 3},
        {"abc", "b", "", "ac", 1},       {"abc", "x", "y", "abc", 0},    {"abc", "", "y", "abc", 0},
        {"", "a", "y", "", 0},
    };
    for (const auto& row : rows) {
        String text(row.text);
        EXPECT_EQ(text.Replace(row.from, row.to), row.count) << row.text;
        EXPECT_EQ(text, row.result) << row.text;
    }
}

TEST(String, Trims) {
    const struct {
        const char* text;
        const char* trimmed;
        const char* trimmedLeft;
    } rows[] = {
        {" \t\n\v\f\rx y \t\n\v\f\r", "x y", "x y \t\n\v\f\r"},
        {"xy", "xy", "xy"},
        {"  ", "", ""},
        {"", "", ""},
        {"\xA0x\xA0", "\xA0x\xA0", "\xA0x\xA0"},
    };
    for (const auto& row : rows) {
        const String text(row.text);
        EXPECT_EQ(text.trimmed(), row.trimmed);
        EXPECT_EQ(text.trimmedLeft(), row.trimmedLeft);
        String changed(text);
        changed.trimLeft();
        EXPECT_EQ(changed, row.trimmedLeft);
        changed.trim();
        EXPECT_EQ(changed, row.trimmed);
    }
}

TEST(String, FindsTextAndCharacters) {
    const String text("abcabc");
    EXPECT_TRUE(text.StartsWith("abc"));
    EXPECT_TRUE(text.StartsWith(""));
    EXPECT_FALSE(text.StartsWith("bc"));
    EXPECT_FALSE(text.StartsWith("abcabcd"));
    EXPECT_TRUE(text.EndsWith("bc"));
    EXPECT_TRUE(text.EndsWith(""));
    EXPECT_FALSE(text.EndsWith("ab"));
    EXPECT_TRUE(text.Contains("ca"));
    EXPECT_FALSE(text.Contains("ac"));
    EXPECT_EQ(text.Find("bc"), 1);
    EXPECT_EQ(text.Find("bc", 2), 4);
    EXPECT_EQ(text.Find("bc", 5), -1);
    EXPECT_EQ(text.Find("a", 7), -1);
    EXPECT_EQ(text.Find("a", -1), 0);
    EXPECT_EQ(text.Find(L'c'), 2);
    EXPECT_EQ(text.Find(L'c', 3), 5);
    EXPECT_EQ(text.Find(L'x'), -1);
    EXPECT_EQ(text.ReverseFind(L'b'), 4);
    EXPECT_EQ(text.ReverseFind(L'x'), -1);
}

TEST(String, Grows) {
    String text("a");
    text += String(L"\x20AC");
    text += "\xE4";
    text += L'z';
    text += static_cast<const char*>(nullptr);
    EXPECT_EQ(text, String(L"a\x20AC\x00E4z"));
    EXPECT_EQ("x" + String("y") + "z", "xyz");
}

TEST(String, ComparesByCharacterCodes) {
    EXPECT_TRUE(String("a") == "a");
    EXPECT_TRUE(String("a") != "A");
    EXPECT_TRUE(String("B") < String("a"));
    EXPECT_TRUE(String("a") < String("ab"));
    EXPECT_TRUE(String("b") > String("ab"));
}

} // namespace
} // namespace lum
