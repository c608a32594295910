#include "creek/CMiniZCompressor.h"

#include "../SimpleCompressorVerbs.h"
#include "ErrorMatchers.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace lum;
using namespace tessel::test;
using creek::CMiniZCompressor;

namespace {

TEST(CMiniZCompressor, NamesEngineAndLevel) {
    EXPECT_EQ(CMiniZCompressor(6).getInternalDesc(), "libdeflate zlib level 6");
    EXPECT_EQ(CMiniZCompressor(9).getInternalDesc(), "libdeflate zlib level 9");
#ifdef TESSEL_HAVE_ISAL
    EXPECT_EQ(CMiniZCompressor(1).getInternalDesc(), "isa-l zlib level 1");
#else
    EXPECT_EQ(CMiniZCompressor(1).getInternalDesc(), "libdeflate zlib level 1");
#endif
}

TEST(CMiniZCompressor, RefusesOtherLevels) {
    for (const int level : {-1, 0, 10}) {
        EXPECT_INVALID_ARG_ERROR(CMiniZCompressor compressor(level), "CMiniZCompressor constructor",
                                 "The level must be 1 to 9.", {{"level", toDecimal(level)}});
    }
}

TEST(CMiniZCompressor, HigherLevelsGiveSmallerStreams) {
    const Bytes source = makeText(65536, 1);
    CMiniZCompressor fastest(1);
    CMiniZCompressor smallest(9);
    EXPECT_LT(compress(fastest, source).size(), source.size() / 2);
    EXPECT_LT(compress(smallest, source).size(), compress(fastest, source).size());
}

TEST(CMiniZCompressor, ZerosBecomeNextToNothing) {
    for (int level = 1; level <= 9; ++level) {
        CMiniZCompressor compressor(level);
        EXPECT_LT(compress(compressor, makeZeros(65536)).size(), 500u) << level;
    }
}

// The same bytes must become the same file, whichever thread's compressor they meet and wherever that lies.
TEST(CMiniZCompressor, StreamsDoNotDependOnWhereTheObjectLies) {
    for (const int level : {1, 6}) {
        std::vector<std::unique_ptr<CMiniZCompressor>> compressors;
        for (int i = 0; i < 16; ++i)
            compressors.push_back(std::make_unique<CMiniZCompressor>(level));
        for (unsigned int seed = 1; seed <= 200; ++seed) {
            const Bytes source = makeText(65536, seed);
            const Bytes stream = compress(*compressors.front(), source);
            for (const auto& compressor : compressors)
                ASSERT_TRUE(compress(*compressor, source) == stream) << level << ' ' << seed;
        }
    }
}

} // namespace
