#include "foundation/lum/UTF8.h"

#include <gtest/gtest.h>

#include <string>

namespace lum {
namespace {

template <class Unit>
class TWideText : public ::testing::Test {
protected:
    using Text = std::basic_string<Unit>;

    static Text decode(std::string_view bytes) {
        Text text;
        EXPECT_EQ(utf8::convert(bytes, text), bytes.size());
        return text;
    }
    static std::string encode(const Text& text) {
        std::string bytes;
        EXPECT_EQ(utf8::convert(std::basic_string_view<Unit>(text), bytes), text.size());
        return bytes;
    }
    static std::size_t findFault(std::string_view bytes) {
        Text text;
        return utf8::convert(bytes, text);
    }
    static std::size_t findFault(const Text& text) {
        std::string bytes;
        return utf8::convert(std::basic_string_view<Unit>(text), bytes);
    }
};

using Units = ::testing::Types<char16_t, char32_t, wchar_t>;
TYPED_TEST_SUITE(TWideText, Units);

TYPED_TEST(TWideText, DecodesAndEncodesTheEdgesOfEachLength) {
    const struct {
        const char* bytes;
        char32_t character;
    } rows[] = {
        {"\x01", 0x1},
        {"\x7F", 0x7F},
        {"\xC2\x80", 0x80},
        {"\xDF\xBF", 0x7FF},
        {"\xE0\xA0\x80", 0x800},
        {"\xED\x9F\xBF", 0xD7FF},
        {"\xEE\x80\x80", 0xE000},
        {"\xEF\xBF\xBF", 0xFFFF},
        {"\xF0\x90\x80\x80", 0x10000},
        {"\xF4\x8F\xBF\xBF", 0x10FFFF},
    };
    for (const auto& row : rows) {
        typename TestFixture::Text expected;
        utf8::appendCharacter(expected, row.character);
        EXPECT_EQ(this->decode(row.bytes), expected) << row.bytes;
        EXPECT_EQ(this->encode(expected), row.bytes) << row.bytes;
    }
}

TYPED_TEST(TWideText, ReplacesEachUnitThatCannotBeRead) {
    typename TestFixture::Text text;
    utf8::convertLossy(std::string_view("a\xFFz\xC3"), text);
    typename TestFixture::Text expected;
    for (const char32_t c : {U'a', U'\xFFFD', U'z', U'\xFFFD'})
        utf8::appendCharacter(expected, c);
    EXPECT_EQ(text, expected);
}

TYPED_TEST(TWideText, RefusesHalfSurrogates) {
    using WideText = typename TestFixture::Text;
    using WideUnit = typename WideText::value_type;
    const auto high = static_cast<WideUnit>(0xD83D);
    const auto low = static_cast<WideUnit>(0xDE00);
    const auto letter = static_cast<WideUnit>('x');
    EXPECT_EQ(this->findFault(WideText{letter, high}), 1U);
    EXPECT_EQ(this->findFault(WideText{letter, high, letter}), 1U);
    EXPECT_EQ(this->findFault(WideText{letter, letter, low, high}), 2U);
}

TEST(UTF8, WritesHighCharactersAsSurrogatePairsWhereUnitsHave16Bits) {
    std::u16string text;
    EXPECT_EQ(utf8::convert(std::string_view("\xF0\x9F\x98\x80"), text), 4U);
    EXPECT_EQ(text, (std::u16string{0xD83D, 0xDE00}));
    std::string bytes;
    EXPECT_EQ(utf8::convert(std::u16string_view(text), bytes), 2U);
    EXPECT_EQ(bytes, "\xF0\x9F\x98\x80");
}

TEST(UTF8, RefusesValuesAboveUnicode) {
    std::string bytes;
    EXPECT_EQ(utf8::convert(std::u32string_view(U"ab\x110000", 3), bytes), 2U);
    EXPECT_EQ(bytes, "ab");
}

} // namespace
} // namespace lum
