// What holds for every compressor, and for every pair of one that writes and one that reads.

#include "ErrorMatchers.h"
#include "SimpleCompressorVerbs.h"
#include "brook/CZLibCompressor.h"
#include "creek/CMiniZCompressor.h"
#include "lum/P.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>

using namespace lum;
using namespace tessel::test;

namespace {

struct Kind {
    const char* name;
    int level;
    P<ISimpleCompressor> (*create)(int level);
    const char* className;
};

P<ISimpleCompressor> createBrook(int level) {
    return P<ISimpleCompressor>(new brook::CZLibCompressor(level));
}
P<ISimpleCompressor> createCreek(int level) {
    return P<ISimpleCompressor>(new creek::CMiniZCompressor(level));
}

std::vector<Kind> listKinds() {
    std::vector<Kind> kinds;
    for (int level = 0; level <= 9; ++level)
        kinds.push_back({"Brook", level, createBrook, "CZLibCompressor"});
    for (int level = 1; level <= 9; ++level)
        kinds.push_back({"Creek", level, createCreek, "CMiniZCompressor"});
    return kinds;
}

std::string nameOf(const ::testing::TestParamInfo<Kind>& kind) {
    return kind.param.name + std::to_string(kind.param.level);
}

class SimpleCompressor : public ::testing::TestWithParam<Kind> {
protected:
    String method(const char* name) const { return String(GetParam().className) + "::" + name; }

    const P<ISimpleCompressor> compressor = GetParam().create(GetParam().level);
};

INSTANTIATE_TEST_SUITE_P(All, SimpleCompressor, ::testing::ValuesIn(listKinds()), nameOf);

void expectBadFormat(ISimpleCompressor& compressor, const Bytes& stream, int capacity) {
    const auto error = catchError([&] { decompress(compressor, stream, capacity); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->getClassName(), "CIOError");
    EXPECT_EQ(error->getCode(), 5);
}

TEST_P(SimpleCompressor, GivesBackWhatItWasGiven) {
    const P<ISimpleCompressor> readers[] = {createBrook(0), createCreek(1)};
    for (const int size : {0, 1, 511, 65536, 1 << 20}) {
        for (const Bytes& source : {makeZeros(size), makeText(size, 1), makeRandom(size, 2)}) {
            const Bytes stream = compress(*compressor, source);
            EXPECT_TRUE(decompress(*compressor, stream, size) == source) << size;
            for (const auto& reader : readers)
                EXPECT_TRUE(decompress(*reader, stream, size) == source) << size;
        }
    }
}

TEST_P(SimpleCompressor, MakesZLibStreams) {
    const Bytes stream = compress(*compressor, makeText(1000, 1));
    ASSERT_GE(stream.size(), 6u);
    EXPECT_EQ(stream[0], 0x78);
    EXPECT_EQ((stream[0] * 256 + stream[1]) % 31, 0);
    EXPECT_EQ(stream[1] & 0x20, 0) << "no dictionary";
}

TEST_P(SimpleCompressor, BoundHoldsForAnySizeAndContents) {
    std::mt19937 random(20240229 + static_cast<unsigned>(GetParam().level));
    for (int i = 0; i < 16; ++i) {
        const int size = static_cast<int>(random() % 200001);
        SCOPED_TRACE(size);
        for (const Bytes& source : {makeRandom(size, random()), makeText(size, random())}) {
            const Bytes stream = compress(*compressor, source);
            EXPECT_TRUE(decompress(*compressor, stream, size) == source);

            // Room beyond the bound must not be used up either.
            const int bound = compressor->getCompressedSizeUpperBound(size);
            Bytes roomy(static_cast<std::size_t>(bound) + 10000);
            const int used = compressor->compressSingleStep(source.data(), size, roomy.data(),
                                                            static_cast<int>(roomy.size()));
            EXPECT_GT(used, 0);
            EXPECT_LE(used, bound);
        }
    }
}

TEST_P(SimpleCompressor, BoundHoldsAroundTheSizesOfStoredBlocks) {
    for (const int middle : {0, 16383, 32768, 65535, 2 * 65535}) {
        for (int size = std::max(0, middle - 6); size <= middle + 6; ++size) {
            const Bytes source = makeRandom(size, static_cast<unsigned>(size));
            EXPECT_TRUE(decompress(*compressor, compress(*compressor, source), size) == source) << size;
        }
    }
}

TEST_P(SimpleCompressor, BoundDoesNotDependOnWhatWasDoneBefore) {
    const int before = compressor->getCompressedSizeUpperBound(65536);
    compress(*compressor, makeText(65536, 1));
    compress(*compressor, makeRandom(100000, 2));
    EXPECT_EQ(compressor->getCompressedSizeUpperBound(65536), before);
    EXPECT_LE(before, 65536 + 65536 / 64) << "a bound that helps nobody";
}

TEST_P(SimpleCompressor, TellsWhenTheStreamDoesNotFit) {
    const Bytes source = makeRandom(5000, 3);
    for (const int capacity : {0, 1, 2, 6, 100, 4999}) {
        Bytes memory(static_cast<std::size_t>(capacity) + 64, 0xee);
        EXPECT_EQ(compressor->compressSingleStep(source.data(), 5000, memory.data(), capacity), -1)
            << capacity;
        EXPECT_EQ(std::count(memory.end() - 64, memory.end(), 0xee), 64) << "written beyond " << capacity;
    }
    EXPECT_EQ(compressor->compressSingleStep(source.data(), 5000, nullptr, 0), -1);
    EXPECT_TRUE(decompress(*compressor, compress(*compressor, source), 5000) == source);
}

TEST_P(SimpleCompressor, WritesNoFurtherThanItsRoom) {
    for (const Bytes& source : {makeText(65536, 4), makeRandom(65536, 4), makeZeros(65536)}) {
        const int full = static_cast<int>(compress(*compressor, source).size());
        for (const int capacity : {full - 20, full - 1, full, full + 1, full + 20}) {
            if (capacity < 0)
                continue;
            Bytes memory(static_cast<std::size_t>(capacity) + 64, 0xee);
            const int size = compressor->compressSingleStep(source.data(), 65536, memory.data(), capacity);
            EXPECT_EQ(std::count(memory.end() - 64, memory.end(), 0xee), 64) << capacity;
            if (size != -1) {
                EXPECT_LE(size, capacity);
                memory.resize(static_cast<std::size_t>(size));
                EXPECT_TRUE(decompress(*compressor, memory, 65536) == source);
            }
        }
    }
}

TEST_P(SimpleCompressor, IgnoresWhatFollowsTheStream) {
    const Bytes source = makeText(3000, 5);
    const Bytes stream = compress(*compressor, source);
    for (const int size : {512 - static_cast<int>(stream.size() % 512), 1, 7, 65536}) {
        Bytes padded = stream;
        padded.resize(stream.size() + static_cast<std::size_t>(size));
        EXPECT_TRUE(decompress(*compressor, padded, 3000) == source) << size << " zeros";
        std::fill(padded.begin() + static_cast<std::ptrdiff_t>(stream.size()), padded.end(), 0xff);
        EXPECT_TRUE(decompress(*compressor, padded, 3000) == source) << size << " ones";
    }
    Bytes twice = stream;
    twice.insert(twice.end(), stream.begin(), stream.end());
    EXPECT_TRUE(decompress(*compressor, twice, 10000) == source) << "one stream is read";
}

TEST_P(SimpleCompressor, RoomBehindTheContentsStaysAsItIs) {
    const Bytes source = makeText(1000, 6);
    const Bytes stream = compress(*compressor, source);
    EXPECT_TRUE(decompress(*compressor, stream, 100000) == source);

    Bytes memory(1000 + 64, 0xee);
    EXPECT_EQ(
        compressor->decompressSingleStep(stream.data(), static_cast<int>(stream.size()), memory.data(), 1000),
        1000);
    EXPECT_EQ(std::count(memory.end() - 64, memory.end(), 0xee), 64);
}

TEST_P(SimpleCompressor, RefusesEveryStreamCutShort) {
    for (const Bytes& source : {makeText(300, 7), makeRandom(300, 7), Bytes()}) {
        const Bytes stream = compress(*compressor, source);
        for (std::size_t size = 0; size < stream.size(); ++size)
            expectBadFormat(*compressor, Bytes(stream.begin(), stream.begin() + static_cast<long>(size)),
                            300);
    }
}

TEST_P(SimpleCompressor, RefusesAStreamThatHoldsMore) {
    for (const Bytes& source : {makeText(70000, 8), makeRandom(70000, 8), makeZeros(70000)}) {
        const Bytes stream = compress(*compressor, source);
        for (const int capacity : {0, 1, 100, 69999}) {
            Bytes memory(static_cast<std::size_t>(capacity) + 64, 0xee);
            EXPECT_LUM_ERROR(
                compressor->decompressSingleStep(stream.data(), static_cast<int>(stream.size()),
                                                 memory.data(), capacity),
                CIOError, 5, "Compressed data hold more than they may.",
                {{"compressedSize", toDecimal(stream.size())}, {"maximum", toDecimal(capacity)}});
            EXPECT_EQ(std::count(memory.end() - 64, memory.end(), 0xee), 64) << capacity;
        }
    }
}

TEST_P(SimpleCompressor, NeverTakesADamagedStreamForAGoodOne) {
    const Bytes source = makeText(400, 9);
    const Bytes stream = compress(*compressor, source);
    int refused = 0;
    for (std::size_t bit = 0; bit < stream.size() * 8; ++bit) {
        Bytes damaged = stream;
        damaged[bit / 8] ^= static_cast<unsigned char>(1 << bit % 8);
        try {
            // Bits that fill up a byte mean nothing; then the contents are right.
            EXPECT_TRUE(decompress(*compressor, damaged, 400) == source) << "bit " << bit;
        } catch (const CIOError& error) {
            EXPECT_EQ(error.getCode(), 5);
            ++refused;
        }
    }
    EXPECT_GE(refused, static_cast<int>(stream.size()) * 8 - 14);
}

TEST_P(SimpleCompressor, ReadsAnEmptyStream) {
    const Bytes stream = compress(*compressor, Bytes());
    EXPECT_EQ(compressor->decompressSingleStep(stream.data(), static_cast<int>(stream.size()), nullptr, 0),
              0);
    expectBadFormat(*compressor, Bytes(), 0);
    EXPECT_LUM_ERROR(compressor->decompressSingleStep(nullptr, 0, nullptr, 0), CIOError, 5,
                     "Compressed data are damaged or cut short.", {{"compressedSize", "0"}});
}

TEST_P(SimpleCompressor, FailuresSpoilNothingForTheNextCall) {
    const Bytes source = makeText(20000, 10);
    const Bytes stream = compress(*compressor, source);
    Bytes damaged = stream;
    damaged[damaged.size() / 2] ^= 0x55;
    for (int i = 0; i < 3; ++i) {
        expectBadFormat(*compressor, damaged, 20000);
        expectBadFormat(*compressor, stream, 19999);
        Bytes tooSmall(10);
        EXPECT_EQ(compressor->compressSingleStep(source.data(), 20000, tooSmall.data(), 10), -1);
        EXPECT_TRUE(decompress(*compressor, stream, 20000) == source);
        EXPECT_TRUE(compress(*compressor, source) == stream);
    }
}

TEST_P(SimpleCompressor, SameBytesGiveTheSameStreamWhateverWasBefore) {
    const Bytes source = makeText(65536, 11);
    const Bytes stream = compress(*compressor, source);
    compress(*compressor, makeText(200000, 12));
    compress(*compressor, makeRandom(1000, 13));
    EXPECT_TRUE(compress(*compressor, source) == stream);
}

TEST_P(SimpleCompressor, RefusesWrongArguments) {
    unsigned char memory[16] = {};
    EXPECT_INVALID_ARG_ERROR(compressor->compressSingleStep(memory, -1, memory, 16),
                             method("compressSingleStep"), "A size must not be negative.",
                             {{"sourceSize", "-1"}});
    EXPECT_INVALID_ARG_ERROR(compressor->compressSingleStep(memory, 1, memory, -2),
                             method("compressSingleStep"), "A size must not be negative.",
                             {{"destCapacity", "-2"}});
    EXPECT_INVALID_ARG_ERROR(compressor->compressSingleStep(nullptr, 1, memory, 16),
                             method("compressSingleStep"), "Bytes must not be NULL.", {{"sourceSize", "1"}});
    EXPECT_INVALID_ARG_ERROR(compressor->compressSingleStep(memory, 1, nullptr, 16),
                             method("compressSingleStep"), "Bytes must not be NULL.",
                             {{"destCapacity", "16"}});
    EXPECT_INVALID_ARG_ERROR(compressor->decompressSingleStep(memory, -1, memory, 16),
                             method("decompressSingleStep"), "A size must not be negative.",
                             {{"sourceSize", "-1"}});
    EXPECT_INVALID_ARG_ERROR(compressor->decompressSingleStep(memory, 1, memory, -2),
                             method("decompressSingleStep"), "A size must not be negative.",
                             {{"destCapacity", "-2"}});
    EXPECT_INVALID_ARG_ERROR(compressor->getCompressedSizeUpperBound(-1),
                             method("getCompressedSizeUpperBound"), "A size must not be negative.",
                             {{"sourceSize", "-1"}});
}

TEST_P(SimpleCompressor, RefusesABoundThatNoIntCanTell) {
    const auto error = catchError([&] { compressor->getCompressedSizeUpperBound(INT_MAX); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->getClassName(), "CInvalidArgError");
    EXPECT_EQ(error->getMessage(), "The source is too large to be compressed at once.");
    EXPECT_GT(compressor->getCompressedSizeUpperBound(1 << 30), 1 << 30);
}

/// Streams put together by hand, for whoever reads.
class StreamReader : public ::testing::TestWithParam<Kind> {
protected:
    const P<ISimpleCompressor> reader = GetParam().create(GetParam().level);
};

INSTANTIATE_TEST_SUITE_P(All, StreamReader,
                         ::testing::Values(Kind{"Brook", 0, createBrook, ""},
                                           Kind{"Creek", 1, createCreek, ""},
                                           Kind{"Creek", 6, createCreek, ""}),
                         nameOf);

const Bytes hello = {'h', 'e', 'l', 'l', 'o'};

TEST_P(StreamReader, ReadsAStoredBlock) {
    const Bytes stream = {0x78, 0x01,                  // deflate, window of 32 KiB; check bits
                          0x01,                        // last block, stored
                          0x05, 0x00, 0xfa, 0xff,      // length and its complement
                          'h',  'e',  'l',  'l',  'o', //
                          0x06, 0x2c, 0x02, 0x15};     // Adler-32, highest byte first
    EXPECT_EQ(decompress(*reader, stream, 5), hello);
}

TEST_P(StreamReader, ReadsABlockOfFixedCodes) {
    const Bytes stream = {0x78, 0x01,                   //
                          0x4b, 0x4c, 0x84, 0x01, 0x00, // "a", then 9 bytes from 1 before
                          0x14, 0xe1, 0x03, 0xcb};      // Adler-32
    EXPECT_EQ(decompress(*reader, stream, 10), Bytes(10, 'a'));
}

TEST_P(StreamReader, ReadsASmallWindow) {
    const Bytes stream = {0x18, 0x19, // window of 512 bytes
                          0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15};
    EXPECT_EQ(decompress(*reader, stream, 5), hello);
}

TEST_P(StreamReader, RefusesBadStreams) {
    const struct {
        const char* fault;
        Bytes stream;
    } rows[] = {
        {"no deflate",
         {0x79, 0x14, 0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15}},
        {"window of 64 KiB",
         {0x88, 0x1c, 0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15}},
        {"check bits",
         {0x78, 0x02, 0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15}},
        {"dictionary needed",
         {0x78, 0xf9, 0x35, 0x29, 0x06, 0x6b, 0xcb, 0x00, 0xf1, 0x01, 0x06, 0x2c, 0x02, 0x15}},
        {"complement of the length",
         {0x78, 0x01, 0x01, 0x05, 0x00, 0xfb, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15}},
        {"block type 3",
         {0x78, 0x01, 0x07, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15}},
        {"distance before the start", {0x78, 0x01, 0x03, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01}},
        {"last bit of the Adler-32",
         {0x78, 0x01, 0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x14}},
        {"first bit of the Adler-32",
         {0x78, 0x01, 0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x86, 0x2c, 0x02, 0x15}},
        {"another letter",
         {0x78, 0x01, 0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'p', 0x06, 0x2c, 0x02, 0x15}},
        {"no last block",
         {0x78, 0x01, 0x00, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o', 0x06, 0x2c, 0x02, 0x15}},
        {"raw deflate", {0x01, 0x05, 0x00, 0xfa, 0xff, 'h', 'e', 'l', 'l', 'o'}},
        {"gzip", {0x1f, 0x8b, 0x08, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03,
                  0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
        {"zeros", Bytes(512)},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.fault);
        EXPECT_LUM_ERROR(decompress(*reader, row.stream, 100), CIOError, 5,
                         "Compressed data are damaged or cut short.",
                         {{"compressedSize", toDecimal(row.stream.size())}});
    }
}

} // namespace
