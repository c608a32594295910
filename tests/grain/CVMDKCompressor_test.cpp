#include "tessel/CVMDKCompressor.h"

#include "Bytes.h"
#include "ErrorMatchers.h"
#include "brook/CZLibCompressor.h"
#include "creek/CMiniZCompressor.h"

#include <gtest/gtest.h>

#include <random>

namespace tessel::test {
namespace {

constexpr int grainBytes = 65536;

Bytes randomBytes(int64 count) {
    std::mt19937 random(7);
    Bytes bytes(count);
    for (int64 i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(random());
    return bytes;
}

/// What compressing gives: the result, and the bytes when it is one.
struct Compressed {
    int result;
    Bytes bytes;

    friend bool operator==(const Compressed&, const Compressed&) = default;
};

Compressed compress(ISimpleCompressor& compressor, const Bytes& source, int capacity) {
    Bytes dest(capacity);
    const int result = compressor.compressSingleStep(source.getData(), static_cast<int>(source.getUsed()),
                                                     dest.getData(), capacity);
    dest.setUsed(std::max(result, 0));
    return {result, dest};
}

Bytes decompress(ISimpleCompressor& compressor, const Bytes& source, int capacity = grainBytes) {
    Bytes dest(capacity);
    dest.setUsed(compressor.decompressSingleStep(source.getData(), static_cast<int>(source.getUsed()),
                                                 dest.getData(), capacity));
    return dest;
}

TEST(CVMDKCompressor, EveryLevelGivesStreamsThatAnyoneReads) {
    brook::CZLibCompressor other(0);
    for (const int level : {-1, 0, 1, 2, 5, 6, 9}) {
        CVMDKCompressor compressor(level);
        for (const Bytes& source : {Bytes(grainBytes), patternBytes(grainBytes), randomBytes(grainBytes),
                                    patternBytes(1), Bytes()}) {
            const int bound = compressor.getCompressedSizeUpperBound(static_cast<int>(source.getUsed()));
            const Compressed compressed = compress(compressor, source, bound);
            ASSERT_GT(compressed.result, 0) << level;
            EXPECT_LE(compressed.result, bound) << level;
            EXPECT_EQ(decompress(compressor, compressed.bytes), source) << level;
            EXPECT_EQ(decompress(other, compressed.bytes), source) << level;
        }
    }
}

TEST(CVMDKCompressor, ReadsStreamsOfAnyOther) {
    brook::CZLibCompressor other(9);
    const Bytes source = patternBytes(grainBytes);
    const Compressed compressed = compress(other, source, 2 * grainBytes);
    for (const int level : {0, 1, 9}) {
        CVMDKCompressor compressor(level);
        EXPECT_EQ(decompress(compressor, compressed.bytes), source) << level;
    }
}

TEST(CVMDKCompressor, LevelMinusOneIsLevelOne) {
    CVMDKCompressor standard(-1);
    CVMDKCompressor first(1);
    EXPECT_EQ(standard.getInternalDesc(), first.getInternalDesc());
    const Bytes source = patternBytes(grainBytes);
    EXPECT_EQ(compress(standard, source, grainBytes), compress(first, source, grainBytes));
}

TEST(CVMDKCompressor, TellsWhatItIs) {
    EXPECT_EQ(CVMDKCompressor(6).getInternalDesc(), "smart-" + creek::CMiniZCompressor(6).getInternalDesc());
    EXPECT_EQ(CVMDKCompressor(0).getInternalDesc(), "smart-" + brook::CZLibCompressor(0).getInternalDesc());
    EXPECT_TRUE(CVMDKCompressor(1).getInternalDesc().StartsWith("smart-"));
}

TEST(CVMDKCompressor, OtherLevelsAreRefused) {
    for (const int level : {-2, 10, INT_MAX, INT_MIN})
        EXPECT_INVALID_ARG_ERROR(CVMDKCompressor{level}, "CMiniZCompressor constructor",
                                 "The level must be 1 to 9.", {{"level", toDecimal(level)}});
}

TEST(CVMDKCompressor, BoundFillsWholeSectorsWithTheHeadOfARecord) {
    const brook::CZLibCompressor reference(0);
    const CVMDKCompressor compressor(1);
    bool roundedUp = false;
    bool kept = false;
    for (int size = 0; size <= 3 * grainBytes; size += 61) {
        const int bound = reference.getCompressedSizeUpperBound(size);
        const int whole = (bound + 511) / 512 * 512 - 12;
        ASSERT_EQ(compressor.getCompressedSizeUpperBound(size), std::max(bound, whole)) << size;
        (whole > bound ? roundedUp : kept) = true;
    }
    EXPECT_TRUE(roundedUp);
    EXPECT_TRUE(kept);
}

TEST(CVMDKCompressor, ReferenceTakesOverWhereTheMainCompressorFails) {
    const Bytes source = randomBytes(4096);
    for (const int level : {1, 6}) {
        CVMDKCompressor compressor(level);
        creek::CMiniZCompressor main(level);
        brook::CZLibCompressor reference(0);
        const int bound = compressor.getCompressedSizeUpperBound(4096);
        int64 fallbacks = 0;
        bool tooLarge = false;
        for (int capacity = 4000; capacity <= bound + 1000; capacity += 3) {
            const Compressed first = compress(main, source, capacity);
            const bool taken = first.result != -1 && (first.result <= 4096 || first.result <= bound);
            fallbacks += taken ? 0 : 1;
            tooLarge = tooLarge || (taken && first.result > 4096);
            ASSERT_EQ(compress(compressor, source, capacity),
                      taken ? first : compress(reference, source, capacity))
                << level << " " << capacity;
            ASSERT_EQ(compressor.getCompressFallbackCount(), fallbacks);
        }
        EXPECT_GT(fallbacks, 0) << level;
        EXPECT_TRUE(tooLarge) << "more than the source, and taken because the bound allows it";
    }
}

TEST(CVMDKCompressor, ErrorOfTheMainCompressorIsAbsorbedAndThatOfTheReferenceIsNot) {
    unsigned char dest[100];
    for (const int level : {0, 1}) {
        CVMDKCompressor compressor(level);
        EXPECT_INVALID_ARG_ERROR(compressor.compressSingleStep(nullptr, 5, dest, 100),
                                 "CZLibCompressor::compressSingleStep", "Bytes must not be NULL.",
                                 {{"sourceSize", "5"}});
        EXPECT_EQ(compressor.getCompressFallbackCount(), level == 0 ? 0 : 1);
    }
}

TEST(CVMDKCompressor, LevelZeroNeverCountsAFallback) {
    CVMDKCompressor compressor(0);
    const Bytes source = patternBytes(grainBytes);
    EXPECT_EQ(compress(compressor, source, 100).result, -1);
    EXPECT_GT(compress(compressor, source, 2 * grainBytes).result, grainBytes) << "it stores";
    EXPECT_EQ(compressor.getCompressFallbackCount(), 0);
}

TEST(CVMDKCompressor, StreamsThatAreDamagedOrTooLongAreErrors) {
    for (const int level : {0, 1}) {
        CVMDKCompressor compressor(level);
        const Bytes source = patternBytes(grainBytes);
        const Bytes stream = compress(compressor, source, 2 * grainBytes).bytes;
        for (const int64 size : {int64{0}, int64{1}, int64{6}, stream.getUsed() / 2})
            EXPECT_LUM_ERROR(decompress(compressor, slice(stream, 0, size)), CIOError, 5,
                             "Compressed data are damaged or cut short.",
                             {{"compressedSize", toDecimal(size)}});
        // Without its last byte a stream may also look like one that goes on.
        const auto error =
            catchError([&] { decompress(compressor, slice(stream, 0, stream.getUsed() - 1)); });
        ASSERT_TRUE(error);
        EXPECT_STREQ(error->getClassName(), "CIOError");
        EXPECT_EQ(error->getCode(), 5);
        EXPECT_LUM_ERROR(
            decompress(compressor, stream, grainBytes - 1), CIOError, 5,
            "Compressed data hold more than they may.",
            {{"compressedSize", toDecimal(stream.getUsed())}, {"maximum", toDecimal(grainBytes - 1)}});
        Bytes longer = stream;
        longer.append(patternBytes(30).getData(), 30);
        EXPECT_EQ(decompress(compressor, longer), source) << "what follows the stream is nobody's business";
    }
}

} // namespace
} // namespace tessel::test
