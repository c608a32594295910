#include "tessel/CVMDKDataPreparer.h"

#include "Bytes.h"
#include "ErrorMatchers.h"
#include "lum/LittleEndian.h"

#include <gtest/gtest.h>

#include <random>

namespace tessel::test {
namespace {

constexpr int64 grainSectors = 128;
constexpr int64 grainBytes = grainSectors * 512;

using Buffer = P<TBuffer<unsigned char>>;

Buffer bufferOf(const Bytes& bytes) {
    return new TBuffer<unsigned char>(bytes);
}

Bytes randomBytes(int64 count) {
    std::mt19937 random(11);
    Bytes bytes(count);
    for (int64 i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>(random());
    return bytes;
}

/// A preparer of compressed grains with buffers that are used again and again and hold old bytes.
class CVMDKDataPreparerTest : public ::testing::Test {
protected:
    Bytes prepare(CVMDKDataPreparer& preparer, const Bytes& source, int64 grainIndex = 0) {
        fillWithOldBytes(*m_aux);
        const Buffer sourceBuffer = bufferOf(source);
        const Buffer prepared = preparer.prepareGrainData(sourceBuffer.get(), grainIndex, m_aux.get());
        EXPECT_EQ(prepared, m_aux);
        EXPECT_EQ(*sourceBuffer, source) << "the source stays as it is";
        return *prepared;
    }
    Bytes unprepare(CVMDKDataPreparer& preparer, const Bytes& record) {
        fillWithOldBytes(*m_aux);
        const Buffer recordBuffer = bufferOf(record);
        const Buffer plain = preparer.unprepareGrainData(recordBuffer.get(), m_aux.get());
        EXPECT_EQ(plain, m_aux);
        return *plain;
    }
    static void fillWithOldBytes(TBuffer<unsigned char>& buffer) {
        buffer.setUsed(2 * grainBytes);
        buffer.fill(0xEE);
        buffer.setUsed(3);
    }
    static int64 lengthField(const Bytes& record) { return loadLittleEndian<uint32>(record.getData() + 8); }

    Buffer m_aux{new TBuffer<unsigned char>};
};

// --- Uncompressed ---

TEST_F(CVMDKDataPreparerTest, WithoutCompressionBuffersPassThrough) {
    CVMDKDataPreparer preparer(grainSectors, false, 6);
    EXPECT_FALSE(preparer.doesAnything());
    EXPECT_EQ(preparer.getWorstCaseGrainSizeSectors(), grainSectors);
    EXPECT_EQ(preparer.getCompressFallbackCount(), 0);
    const Buffer source = bufferOf(patternBytes(100));
    EXPECT_EQ(preparer.prepareGrainData(source.get(), 5, m_aux.get()), source);
    EXPECT_EQ(preparer.unprepareGrainData(source.get(), m_aux.get()), source);
    EXPECT_EQ(*source, patternBytes(100));
    EXPECT_TRUE(m_aux->isEmpty());
    EXPECT_EQ(m_aux->getAllocated(), 0);
    preparer.patchGrainIndexInPreparedGrainData(*source, 77);
    EXPECT_EQ(*source, patternBytes(100));
}

// --- The record ---

TEST_F(CVMDKDataPreparerTest, RecordHoldsPositionLengthStreamAndPadding) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    EXPECT_TRUE(preparer.doesAnything());
    const Bytes source = patternBytes(grainBytes);
    const Bytes record = prepare(preparer, source, 0x0102030405);
    EXPECT_EQ(slice(record, 0, 8), bytesOf({0x80, 0x02, 0x82, 0x01, 0x81, 0x00, 0, 0}))
        << "128 x 0x0102030405 sectors";
    const int64 length = lengthField(record);
    ASSERT_LE(12 + length, record.getUsed());
    EXPECT_EQ(record.getUsed(), (12 + length + 511) / 512 * 512);
    EXPECT_EQ(slice(record, 12 + length, record.getUsed() - 12 - length),
              Bytes(record.getUsed() - 12 - length));

    CVMDKCompressor compressor(1);
    Bytes plain(grainBytes);
    EXPECT_EQ(compressor.decompressSingleStep(record.getData() + 12, static_cast<int>(length),
                                              plain.getData(), static_cast<int>(grainBytes)),
              grainBytes);
    EXPECT_EQ(plain, source);
}

TEST_F(CVMDKDataPreparerTest, RecordIsPaddedToAWholeSectorOnlyWhereItIsNone) {
    // Stored data are 11 bytes longer than what they hold.
    CVMDKDataPreparer preparer(grainSectors, true, 0);
    const Bytes exact = prepare(preparer, patternBytes(489));
    EXPECT_EQ(lengthField(exact), 500);
    EXPECT_EQ(exact.getUsed(), 512);
    const Bytes oneMore = prepare(preparer, patternBytes(490));
    EXPECT_EQ(lengthField(oneMore), 501);
    EXPECT_EQ(oneMore.getUsed(), 1024);
    EXPECT_EQ(slice(oneMore, 513, 511), Bytes(511));
}

TEST_F(CVMDKDataPreparerTest, ZerosFillOneSector) {
    for (const int level : {-1, 1, 6, 9}) {
        CVMDKDataPreparer preparer(grainSectors, true, level);
        EXPECT_EQ(prepare(preparer, Bytes(grainBytes)).getUsed(), 512) << level;
    }
}

TEST_F(CVMDKDataPreparerTest, NoGrainIsLargerThanTheWorstCase) {
    for (const int64 sectors : {int64{1}, int64{2}, int64{7}, int64{8}, int64{128}, int64{1000}})
        for (const int level : {0, 1, 6, 9}) {
            CVMDKDataPreparer preparer(sectors, true, level);
            CVMDKCompressor compressor(level);
            const int bound = compressor.getCompressedSizeUpperBound(static_cast<int>(sectors * 512));
            EXPECT_EQ(preparer.getWorstCaseGrainSizeSectors(), (bound + 523) / 512) << sectors;
            for (const Bytes& source : {randomBytes(sectors * 512), patternBytes(sectors * 512)}) {
                const Bytes record = prepare(preparer, source);
                EXPECT_LE(record.getUsed(), preparer.getWorstCaseGrainSizeSectors() * 512) << sectors;
                EXPECT_EQ(unprepare(preparer, record), source) << sectors << " " << level;
            }
        }
}

TEST_F(CVMDKDataPreparerTest, ShortSourceComesBackWithZerosBehindIt) {
    for (const int level : {0, 1, 9}) {
        CVMDKDataPreparer preparer(grainSectors, true, level);
        Bytes expected = patternBytes(1000);
        expected.setUsed(grainBytes);
        std::fill(expected.getData() + 1000, expected.getData() + grainBytes, 0);
        EXPECT_EQ(unprepare(preparer, prepare(preparer, patternBytes(1000))), expected) << level;
        EXPECT_EQ(unprepare(preparer, prepare(preparer, Bytes())), Bytes(grainBytes)) << level;
    }
}

TEST_F(CVMDKDataPreparerTest, PositionIsPatchedIntoARecord) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    const Bytes source = patternBytes(grainBytes);
    Bytes record = prepare(preparer, source, 0);
    preparer.patchGrainIndexInPreparedGrainData(record, 0x123456789);
    EXPECT_EQ(record, prepare(preparer, source, 0x123456789));
}

TEST_F(CVMDKDataPreparerTest, UnpreparingLooksNeitherAtPositionNorAtLength) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    const Bytes source = patternBytes(grainBytes);
    Bytes record = prepare(preparer, source, 3);
    for (int i = 0; i < 12; ++i)
        record[i] = 0xFF;
    EXPECT_EQ(unprepare(preparer, record), source);
}

TEST_F(CVMDKDataPreparerTest, BuffersAreUsedAgain) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    prepare(preparer, randomBytes(grainBytes));
    const unsigned char* const memory = m_aux->getData();
    prepare(preparer, patternBytes(grainBytes));
    EXPECT_EQ(m_aux->getData(), memory);
}

TEST_F(CVMDKDataPreparerTest, CountsFallbacks) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    prepare(preparer, patternBytes(grainBytes));
    EXPECT_EQ(preparer.getCompressFallbackCount(), 0);
}

// --- What is refused ---

TEST_F(CVMDKDataPreparerTest, MissingBuffersAndTooLargeSourcesAreRefused) {
    static const char* const prepareSource = "CVMDKDataPreparer::prepareGrainData";
    const Buffer tooLarge = bufferOf(Bytes(grainBytes + 1));
    for (const bool compress : {false, true}) {
        CVMDKDataPreparer preparer(grainSectors, compress, 1);
        EXPECT_INVALID_ARG_ERROR(preparer.prepareGrainData(nullptr, 0, nullptr), prepareSource,
                                 "pSourceBuffer must not be NULL");
        EXPECT_INVALID_ARG_ERROR(preparer.prepareGrainData(tooLarge.get(), 0, nullptr), prepareSource,
                                 "pAuxBuffer must not be NULL");
        EXPECT_INVALID_ARG_ERROR(preparer.prepareGrainData(tooLarge.get(), 0, m_aux.get()), prepareSource,
                                 "source buffer is bigger than grain size (65537).");
        EXPECT_INVALID_ARG_ERROR(preparer.unprepareGrainData(nullptr, m_aux.get()),
                                 "CVMDKDataPreparer::unprepareGrainData", "pPreparedBuffer must not be NULL");
    }
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    EXPECT_INVALID_ARG_ERROR(preparer.unprepareGrainData(tooLarge.get(), nullptr),
                             "CVMDKDataPreparer::unprepareGrainData", "pAuxBuffer must not be NULL");
}

TEST_F(CVMDKDataPreparerTest, DataWithoutAHeadAreNoRecord) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    Bytes shortData = patternBytes(11);
    EXPECT_INVALID_ARG_ERROR(unprepare(preparer, shortData), "CVMDKDataPreparer::unprepareGrainData",
                             "Prepared data is too short for a compressed grain (11 bytes).");
    EXPECT_INVALID_ARG_ERROR(preparer.patchGrainIndexInPreparedGrainData(shortData, 1),
                             "CVMDKDataPreparer::patchGrainIndexInPreparedGrainData",
                             "Prepared data is too short for a compressed grain (11 bytes).");
    EXPECT_EQ(shortData, patternBytes(11));
}

TEST_F(CVMDKDataPreparerTest, StreamsThatAreCutOrTooLongAreErrorsNotZeros) {
    CVMDKDataPreparer preparer(grainSectors, true, 1);
    const Bytes record = prepare(preparer, randomBytes(grainBytes));
    for (const int64 size :
         {int64{12}, int64{13}, int64{512}, record.getUsed() / 2, 12 + lengthField(record) - 1})
        EXPECT_LUM_ERROR(unprepare(preparer, slice(record, 0, size)), CIOError, 5,
                         "Compressed data are damaged or cut short.",
                         {{"compressedSize", toDecimal(size - 12)}});
    EXPECT_LUM_ERROR(unprepare(preparer, Bytes(512)), CIOError, 5,
                     "Compressed data are damaged or cut short.", {{"compressedSize", "500"}});

    CVMDKDataPreparer larger(grainSectors + 1, true, 1);
    const Bytes swelling = prepare(larger, Bytes(grainBytes + 512));
    EXPECT_LUM_ERROR(unprepare(preparer, swelling), CIOError, 5, "Compressed data hold more than they may.",
                     {{"compressedSize", "500"}, {"maximum", "65536"}});
}

} // namespace
} // namespace tessel::test
