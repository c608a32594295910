#include "lum/TextFunctions.h"

#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <limits>

namespace lum {
namespace {

TBuffer<unsigned char> bytesOf(std::initializer_list<unsigned char> bytes) {
    return TBuffer<unsigned char>(bytes.begin(), static_cast<int64>(bytes.size()));
}

TEST(TextFunctions, ParsesWholeDecimalNumbers) {
    const struct {
        const char* text;
        int64 value;
    } rows[] = {
        {"0", 0},
        {"-0", 0},
        {"+5", 5},
        {"-5", -5},
        {"007", 7},
        {"4192256", 4192256},
        {"9223372036854775807", std::numeric_limits<int64>::max()},
        {"+9223372036854775807", std::numeric_limits<int64>::max()},
        {"-9223372036854775808", std::numeric_limits<int64>::min()},
        {"00000000000000000000000000000000000000001", 1},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(parseInt64(row.text, true), row.value) << row.text;
        EXPECT_EQ(parseInt64(row.text, false), row.value) << row.text;
    }
}

TEST(TextFunctions, TakesNothingElseForADecimalNumber) {
    const wchar_t* const rows[] = {
        L"",
        L"+",
        L"-",
        L" 5",
        L"5 ",
        L"+-5",
        L"--5",
        L"5-",
        L"1,000",
        L"1.5",
        L"0x10",
        L"abc",
        L"1a",
        L"5\n",
        L"\x0665",
        L"9223372036854775808",
        L"-9223372036854775809",
        L"18446744073709551616",
        L"99999999999999999999999999",
    };
    for (const wchar_t* const text : rows) {
        EXPECT_EQ(parseInt64(text, false), 0) << String(text).toUTF8();
        EXPECT_LUM_ERROR(parseInt64(text, true), CError, -1, "Not a number: " + String(text),
                         {{"text", text}});
    }
}

TEST(TextFunctions, ParsesWholeHexadecimalNumbers) {
    const struct {
        const char* text;
        int64 value;
    } rows[] = {
        {"0", 0},
        {"fffffffe", 0xFFFFFFFE},
        {"FFFFFFFF", 0xFFFFFFFF},
        {"aBcD", 0xABCD},
        {"0123456789abcdef", 0x0123456789ABCDEF},
        {"ffffffffffffffff", -1},
        {"8000000000000000", std::numeric_limits<int64>::min()},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(parseHexInt64(row.text, true), row.value) << row.text;
        EXPECT_EQ(parseHexInt64(row.text, false), row.value) << row.text;
    }
}

TEST(TextFunctions, TakesNothingElseForAHexadecimalNumber) {
    const char* const rows[] = {
        "", "0x1", "-1", "+1", " 1", "1 ", "g", "1g", "@", "1:", "00000000000000001", "fffffffffffffffff"};
    for (const char* const text : rows) {
        EXPECT_EQ(parseHexInt64(text, false), 0) << text;
        EXPECT_LUM_ERROR(parseHexInt64(text, true), CError, -1, "Not a number: " + String(text),
                         {{"text", text}});
    }
}

TEST(TextFunctions, ParsesTruthValues) {
    for (const char* const text : {"true", "TRUE", "True", "yes", "Yes", "on", "ON", "1"})
        EXPECT_TRUE(parseBool(text)) << text;
    for (const char* const text : {"false", "FALSE", "False", "no", "No", "off", "OFF", "0", ""})
        EXPECT_FALSE(parseBool(text)) << text;
    for (const char* const text : {"2", "tru", "truee", " true", "y", "-1"})
        EXPECT_LUM_ERROR(parseBool(text), CError, -1, "Not a truth value: " + String(text), {{"text", text}});
}

TEST(TextFunctions, WritesTruthValues) {
    EXPECT_EQ(toText(true), "true");
    EXPECT_EQ(toText(false), "false");
}

TEST(TextFunctions, WritesEightHexadecimalDigits) {
    EXPECT_EQ(toHexString(0), "00000000");
    EXPECT_EQ(toHexString(0xABCDEF), "00abcdef");
    EXPECT_EQ(toHexString(0xFFFFFFFE), "fffffffe");
}

TEST(TextFunctions, WritesDecimalNumbersOfAnyType) {
    EXPECT_EQ(toDecimal(0), "0");
    EXPECT_EQ(toDecimal(-12), "-12");
    EXPECT_EQ(toDecimal(std::numeric_limits<int64>::min()), "-9223372036854775808");
    EXPECT_EQ(toDecimal(std::numeric_limits<uint64>::max()), "18446744073709551615");
}

TEST(TextFunctions, WritesBytesAsHexadecimalDigits) {
    const TBuffer<unsigned char> bytes = bytesOf({0x00, 0x1F, 0xAB, 0xFF});
    EXPECT_EQ(hexEncode(bytes, false), "001fabff");
    EXPECT_EQ(hexEncode(bytes, true), "001FABFF");
    EXPECT_EQ(hexEncode(bytesOf({}), false), "");
}

TEST(TextFunctions, ReadsBytesFromHexadecimalDigits) {
    TBuffer<unsigned char> bytes = bytesOf({1, 2, 3});
    hexDecode("001fABfF", bytes);
    EXPECT_EQ(bytes, bytesOf({0x00, 0x1F, 0xAB, 0xFF}));
    hexDecode("", bytes);
    EXPECT_TRUE(bytes.isEmpty());
}

TEST(TextFunctions, RefusesBytesThatAreNotSpelledInFull) {
    const struct {
        const char* text;
        const char* position;
    } rows[] = {{"1", "1"},    {"abc", "3"},  {"g0", "0"},  {"0g", "1"},
                {"00 1", "2"}, {"0x00", "1"}, {"-100", "0"}};
    for (const auto& row : rows) {
        TBuffer<unsigned char> bytes = bytesOf({1, 2, 3});
        EXPECT_LUM_ERROR(hexDecode(row.text, bytes), CError, -1, "Invalid hexadecimal text",
                         {{"position", row.position}});
        EXPECT_TRUE(bytes.isEmpty()) << row.text;
    }
}

} // namespace
} // namespace lum
