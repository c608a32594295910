#include "brook/CZLibCompressor.h"

#include "../SimpleCompressorVerbs.h"
#include "ErrorMatchers.h"

#include <gtest/gtest.h>

using namespace lum;
using namespace tessel::test;
using brook::CZLibCompressor;

namespace {

TEST(CZLibCompressor, NamesEngineAndLevel) {
    EXPECT_EQ(CZLibCompressor(0).getInternalDesc(), "zlib level 0");
    EXPECT_EQ(CZLibCompressor(9).getInternalDesc(), "zlib level 9");
}

TEST(CZLibCompressor, RefusesOtherLevels) {
    for (const int level : {-2, -1, 10}) {
        EXPECT_INVALID_ARG_ERROR(CZLibCompressor compressor(level), "CZLibCompressor constructor",
                                 "The level must be 0 to 9.", {{"level", toDecimal(level)}});
    }
}

TEST(CZLibCompressor, LevelZeroStores) {
    CZLibCompressor compressor(0);
    const Bytes source = makeZeros(65536);
    const Bytes stream = compress(compressor, source);
    EXPECT_GT(stream.size(), source.size());
    EXPECT_LE(stream.size(), source.size() + 64);
}

TEST(CZLibCompressor, HigherLevelsGiveSmallerStreams) {
    const Bytes source = makeText(65536, 1);
    CZLibCompressor fastest(1);
    CZLibCompressor smallest(9);
    EXPECT_LT(compress(fastest, source).size(), source.size() / 2);
    EXPECT_LT(compress(smallest, source).size(), compress(fastest, source).size());
}

} // namespace
