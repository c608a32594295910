#include "lum/CStringFormat.h"

#include "Printing.h"

#include <gtest/gtest.h>

#include <limits>

namespace lum {
namespace {

TEST(CStringFormat, WritesANumberIntoAPlace) {
    const struct {
        const char* format;
        int64 value;
        const char* result;
    } rows[] = {
        {"%d", 5, "5"},
        {"disk-s%03d.vmdk", 7, "disk-s007.vmdk"},
        {"%05d", 123456, "123456"},
        {"%5d|", 42, "   42|"},
        {"%05d", -42, "-0042"},
        {"%5d", -42, "  -42"},
        {"%0d", 7, "7"},
        {"%012d", 7, "000000000007"},
        {"%d", std::numeric_limits<int64>::min(), "-9223372036854775808"},
        {"%020d", std::numeric_limits<int64>::max(), "09223372036854775807"},
        {"%x", 0xABC, "abc"},
        {"%08x", 0xABC, "00000abc"},
        {"%4x", 0xA, "   a"},
        {"%x", -1, "ffffffffffffffff"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(String(CStringFormat(row.format) << row.value), row.result) << row.format;
}

TEST(CStringFormat, FillsPlacesInOrder) {
    EXPECT_EQ(String(CStringFormat("%d/%d (%x)") << 1 << 2 << 255), "1/2 (ff)");
}

TEST(CStringFormat, LeavesPlacesWithoutANumber) {
    EXPECT_EQ(String(CStringFormat("%d and %02x") << 1), "1 and %02x");
    EXPECT_EQ(String(CStringFormat("none")), "none");
    EXPECT_EQ(String(CStringFormat("")), "");
}

TEST(CStringFormat, DropsNumbersWithoutAPlace) {
    EXPECT_EQ(String(CStringFormat("a%db") << 1 << 2), "a1b");
    EXPECT_EQ(String(CStringFormat("") << 1), "");
}

TEST(CStringFormat, WritesTwoPerCentSignsAsOne) {
    EXPECT_EQ(String(CStringFormat("%%d %d%% %%") << 50), "%d 50% %");
    EXPECT_EQ(String(CStringFormat("100%%")), "100%");
}

TEST(CStringFormat, LeavesWhatIsNoPlace) {
    EXPECT_EQ(String(CStringFormat("%s %100d %-5d % %d %") << 5), "%s %100d %-5d % 5 %");
}

TEST(CStringFormat, DoesNotReadFormatsInWhatItHasWritten) {
    EXPECT_EQ(String(CStringFormat("%%%d%%d") << 7 << 8), "%7%d");
}

} // namespace
} // namespace lum
