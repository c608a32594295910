#include "sigil/ConstantTime.h"

#include <gtest/gtest.h>

namespace sigil {
namespace {

TEST(ConstantTime, TellsEqualBytesFromDifferentOnes) {
    unsigned char a[32] = {};
    unsigned char b[32] = {};
    EXPECT_TRUE(isEqualInConstantTime(a, b, sizeof a));
    EXPECT_TRUE(isEqualInConstantTime(a, b, 0));
    for (unsigned bit = 0; bit < 8 * sizeof a; ++bit) {
        b[bit / 8] ^= static_cast<unsigned char>(1U << bit % 8);
        EXPECT_FALSE(isEqualInConstantTime(a, b, sizeof a)) << bit;
        EXPECT_TRUE(isEqualInConstantTime(a, b, bit / 8)) << bit;
        b[bit / 8] = 0;
    }
}

} // namespace
} // namespace sigil
