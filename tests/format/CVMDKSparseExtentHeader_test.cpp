#include "tessel/CVMDKSparseExtentHeader.h"

#include "Bytes.h"
#include "ErrorMatchers.h"
#include "HeaderSector.h"
#include "lum/CBufferStream.h"

#include <gtest/gtest.h>

namespace tessel::test {
namespace {

constexpr const char* badLineEnds =
    "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).";

class CVMDKSparseExtentHeaderTest : public ::testing::Test {
protected:
    static P<CVMDKSparseExtentHeader> load(Bytes sector) {
        const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
        loadInto(*header, std::move(sector));
        return header;
    }

    static void loadInto(CVMDKSparseExtentHeader& header, Bytes sector) {
        CDataInStream in(P<IIOStream>(new CBufferStream(&sector, 1.0)).get());
        header.load(in);
    }

    static Bytes store(CVMDKSparseExtentHeader& header) {
        Bytes sector;
        CDataOutStream out(P<IIOStream>(new CBufferStream(&sector, 1.0)).get());
        header.store(out);
        return sector;
    }

    static Bytes loadAndStore(const Bytes& sector) { return store(*load(sector)); }
};

void expectStandardFields(const CVMDKSparseExtentHeader& header) {
    EXPECT_EQ(header.getVersion(), 0x04030201U);
    EXPECT_EQ(header.getFlags(), 0xA0031403U);
    EXPECT_EQ(header.getCapacitySectors(), 0x1817161514131211U);
    EXPECT_EQ(header.getGrainSizeSectors(), 0x2827262524232221U);
    EXPECT_EQ(header.getDescriptorOffsetSectors(), 0x3837363534333231U);
    EXPECT_EQ(header.getDescriptorSizeSectors(), 0x4847464544434241U);
    EXPECT_EQ(header.getGrainTableEntryCount(), 0x54535251U);
    EXPECT_EQ(header.getRedundantGrainDirectoryOffsetSectors(), 0x6867666564636261U);
    EXPECT_EQ(header.getGrainDirectoryOffsetSectors(), 0x7877767574737271U);
    EXPECT_EQ(header.getOverheadSectors(), 0x8887868584838281U);
    EXPECT_TRUE(header.getUncleanShutdown());
    EXPECT_EQ(header.getCompressAlgorithm(), 0x9291U);
}

void setStandardFields(CVMDKSparseExtentHeader& header) {
    header.setVersion(0x04030201);
    header.setFlags(0xA0031403);
    header.setCapacitySectors(0x1817161514131211);
    header.setGrainSizeSectors(0x2827262524232221);
    header.setDescriptorOffsetSectors(0x3837363534333231);
    header.setDescriptorSizeSectors(0x4847464544434241);
    header.setGrainTableEntryCount(0x54535251);
    header.setRedundantGrainDirectoryOffsetSectors(0x6867666564636261);
    header.setGrainDirectoryOffsetSectors(0x7877767574737271);
    header.setOverheadSectors(0x8887868584838281);
    header.setUncleanShutdown(true);
    header.setCompressAlgorithm(0x9291);
}

} // namespace

// --- The layout ---

TEST_F(CVMDKSparseExtentHeaderTest, LoadsEveryFieldFromItsPlace) {
    const P<CVMDKSparseExtentHeader> header = load(makeHeaderSector());
    expectStandardFields(*header);
    EXPECT_FALSE(header->getEncryptionExtensionEnabled());
    EXPECT_EQ(header->getEncryptionAlgorithm(), 0);
    EXPECT_EQ(header->getEncryptionKeyHashAlgorithm(), 0);
    EXPECT_TRUE(header->getEncryptionKeyHash().isEmpty());
}

TEST_F(CVMDKSparseExtentHeaderTest, LoadsTheEncryptionExtensionFromTheReservedTail) {
    const P<CVMDKSparseExtentHeader> header = load(makeEncryptedHeaderSector(32));
    expectStandardFields(*header);
    EXPECT_TRUE(header->getEncryptionExtensionEnabled());
    EXPECT_EQ(header->getEncryptionAlgorithm(), 0xA2A1);
    EXPECT_EQ(header->getEncryptionKeyHashAlgorithm(), 0xB2B1);
    EXPECT_EQ(header->getEncryptionKeyHash(), slice(makeEncryptedHeaderSector(32), 85, 32));
}

TEST_F(CVMDKSparseExtentHeaderTest, StoresEveryFieldInItsPlace) {
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    setStandardFields(*header);
    Bytes expected = makeHeaderSector();
    fillRange(expected, 79, 512, 0);
    EXPECT_EQ(store(*header), expected);
}

TEST_F(CVMDKSparseExtentHeaderTest, StoresTheEncryptionExtensionInTheReservedTail) {
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    setStandardFields(*header);
    header->setEncryptionExtensionEnabled(true);
    header->setEncryptionAlgorthm(0xA2A1);
    header->setEncryptionKeyHashAlgorthm(0xB2B1);
    header->setEncryptionKeyHash(slice(makeEncryptedHeaderSector(32), 85, 32));
    Bytes expected = makeEncryptedHeaderSector(32);
    fillRange(expected, 85 + 32, 512, 0);
    EXPECT_EQ(store(*header), expected);
}

TEST_F(CVMDKSparseExtentHeaderTest, NewHeaderHoldsOnlyMagicNumberAndLineEnds) {
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    EXPECT_FALSE(header->getUncleanShutdown());
    EXPECT_FALSE(header->getEncryptionExtensionEnabled());
    EXPECT_TRUE(header->getEncryptionKeyHash().isEmpty());
    Bytes expected(512);
    put(expected, 0, {'K', 'D', 'M', 'V'});
    put(expected, 73, {0x0A, 0x20, 0x0D, 0x0A});
    EXPECT_EQ(store(*header), expected);
}

TEST_F(CVMDKSparseExtentHeaderTest, TakesOneSectorAtTheStreamsPosition) {
    Bytes file(1536);
    std::copy_n(makeHeaderSector().getData(), 512, file.getData() + 700);
    const P<IIOStream> stream(new CBufferStream(&file, 1.0));
    CDataInStream in(stream.get());
    in.seek(700);
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->load(in);
    expectStandardFields(*header);
    EXPECT_EQ(in.getPosition(), 1212);

    CDataOutStream out(stream.get());
    out.seek(0);
    header->store(out);
    EXPECT_EQ(out.getPosition(), 512);
    EXPECT_EQ(slice(file, 0, 512), makeHeaderSector());
    EXPECT_EQ(slice(file, 512, 188), Bytes(188));
}

// --- Round trips ---

TEST_F(CVMDKSparseExtentHeaderTest, ReservedBytesSurviveARoundTrip) {
    EXPECT_EQ(loadAndStore(makeHeaderSector()), makeHeaderSector());
}

TEST_F(CVMDKSparseExtentHeaderTest, ReservedBytesBehindAKeyHashOfAnyLengthSurviveARoundTrip) {
    for (const int hashSize : {0, 1, 20, 32, 64, 426, 427}) {
        const Bytes sector = makeEncryptedHeaderSector(hashSize);
        const P<CVMDKSparseExtentHeader> header = load(sector);
        EXPECT_EQ(header->getEncryptionKeyHash(), slice(sector, 85, hashSize));
        EXPECT_EQ(store(*header), sector) << hashSize;
    }
}

TEST_F(CVMDKSparseExtentHeaderTest, LoadedHeaderCanBeLoadedAgainFromTheOtherLayout) {
    const P<CVMDKSparseExtentHeader> header = load(makeEncryptedHeaderSector(32));
    loadInto(*header, makeHeaderSector());
    EXPECT_FALSE(header->getEncryptionExtensionEnabled());
    EXPECT_EQ(store(*header), makeHeaderSector());
    loadInto(*header, makeEncryptedHeaderSector(427));
    EXPECT_EQ(store(*header), makeEncryptedHeaderSector(427));
}

TEST_F(CVMDKSparseExtentHeaderTest, StoringTwiceGivesTheSameBytes) {
    const P<CVMDKSparseExtentHeader> header = load(makeEncryptedHeaderSector(32));
    store(*header);
    EXPECT_EQ(store(*header), makeEncryptedHeaderSector(32));
}

TEST_F(CVMDKSparseExtentHeaderTest, TailThatShrinksKeepsItsLeadingBytes) {
    const Bytes plain = makeHeaderSector();
    const P<CVMDKSparseExtentHeader> header = load(plain);
    header->setEncryptionExtensionEnabled(true);
    header->setEncryptionKeyHash(Bytes(32));
    const Bytes stored = store(*header);
    ASSERT_EQ(stored.getUsed(), 512);
    EXPECT_EQ(slice(stored, 117, 395), slice(plain, 79, 395));

    header->setEncryptionKeyHash(Bytes(64));
    EXPECT_EQ(slice(store(*header), 149, 363), slice(plain, 79, 363));
}

TEST_F(CVMDKSparseExtentHeaderTest, TailThatGrowsGainsZeros) {
    const Bytes encrypted = makeEncryptedHeaderSector(32);
    const P<CVMDKSparseExtentHeader> header = load(encrypted);
    header->setEncryptionKeyHash(Bytes(20));
    const Bytes shorterHash = store(*header);
    EXPECT_EQ(slice(shorterHash, 105, 395), slice(encrypted, 117, 395));
    EXPECT_EQ(slice(shorterHash, 500, 12), Bytes(12));

    header->setEncryptionExtensionEnabled(false);
    const Bytes plain = store(*header);
    EXPECT_EQ(slice(plain, 0, 4), bytesOf("KDMV"));
    EXPECT_EQ(slice(plain, 79, 395), slice(encrypted, 117, 395));
    EXPECT_EQ(slice(plain, 474, 38), Bytes(38));
}

TEST_F(CVMDKSparseExtentHeaderTest, TailThatShrankDoesNotComeBackWhenItGrows) {
    const Bytes plain = makeHeaderSector();
    const P<CVMDKSparseExtentHeader> header = load(plain);
    header->setEncryptionExtensionEnabled(true);
    header->setEncryptionKeyHash(Bytes(427));
    store(*header);
    header->setEncryptionExtensionEnabled(false);
    EXPECT_EQ(slice(store(*header), 79, 433), Bytes(433));
}

TEST_F(CVMDKSparseExtentHeaderTest, AnyUncleanShutdownByteButZeroIsTrueAndIsStoredAsOne) {
    Bytes sector = makeHeaderSector();
    for (const unsigned char value : {0x00, 0x01, 0x02, 0x20, 0x80, 0xFF}) {
        sector[72] = value;
        const P<CVMDKSparseExtentHeader> header = load(sector);
        EXPECT_EQ(header->getUncleanShutdown(), value != 0);
        EXPECT_EQ(store(*header)[72], value != 0 ? 1 : 0);
    }
}

TEST_F(CVMDKSparseExtentHeaderTest, AnyVersionAndAllFlagsAreKept) {
    Bytes sector = makeHeaderSector();
    for (const unsigned char value : {0x00, 0x04, 0xFF}) {
        fillRange(sector, 4, 8, value);
        EXPECT_EQ(loadAndStore(sector), sector);
    }
    fillRange(sector, 8, 12, 0xFF);
    EXPECT_EQ(load(sector)->getFlags(), 0xFFFFFFFFU);
    EXPECT_EQ(loadAndStore(sector), sector);
}

TEST_F(CVMDKSparseExtentHeaderTest, KeyHashIsACopy) {
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    Bytes hash = patternBytes(32);
    header->setEncryptionKeyHash(hash);
    hash.fill(0);
    EXPECT_EQ(header->getEncryptionKeyHash(), patternBytes(32));
    header->setEncryptionKeyHash(header->getEncryptionKeyHash());
    EXPECT_EQ(header->getEncryptionKeyHash(), patternBytes(32));
}

// --- Flags that say which fields count ---

TEST_F(CVMDKSparseExtentHeaderTest, RedundantDirectoryCountsOnlyWithItsFlag) {
    Bytes sector = makeHeaderSector();
    sector[8] = 0x01;
    const P<CVMDKSparseExtentHeader> header = load(sector);
    EXPECT_EQ(header->getRedundantGrainDirectoryOffsetSectors(), 0U);
    EXPECT_EQ(header->getGrainDirectoryOffsetSectors(), 0x7877767574737271U);
    Bytes expected = sector;
    fillRange(expected, 48, 56, 0);
    EXPECT_EQ(store(*header), expected);
}

TEST_F(CVMDKSparseExtentHeaderTest, EachAlteredLineEndByteIsFoundWithItsFlag) {
    for (int i = 73; i < 77; ++i) {
        Bytes sector = makeHeaderSector();
        sector[i] ^= 0x01;
        EXPECT_LUM_ERROR(load(sector), CIOError, 5, badLineEnds) << i;
    }
}

TEST_F(CVMDKSparseExtentHeaderTest, LineEndBytesAreNotLookedAtWithoutTheirFlagAndAreStoredRight) {
    Bytes sector = makeHeaderSector();
    put(sector, 73, {0xDE, 0xAD, 0xBE, 0xEF});
    for (const unsigned char flags : {0x00, 0x02, 0xFE}) {
        fillRange(sector, 8, 12, flags);
        const Bytes stored = loadAndStore(sector);
        EXPECT_EQ(slice(stored, 73, 4), bytesOf({0x0A, 0x20, 0x0D, 0x0A}));
    }
    fillRange(sector, 8, 12, 0);
    sector[8] = 0x01;
    EXPECT_LUM_ERROR(load(sector), CIOError, 5, badLineEnds);
}

// --- Failures ---

TEST_F(CVMDKSparseExtentHeaderTest, UnknownMagicNumberIsRefused) {
    const struct {
        std::initializer_list<unsigned char> bytes;
        const char* number;
    } rows[] = {
        {{0, 0, 0, 0}, "0"},
        {{'V', 'M', 'D', 'K'}, "1262767446"},
        {{'K', 'D', 'M', 'W'}, "1464681547"},
        {{0x05, 0x64, 0x4B, 0x45}, "1162568709"},
        {{0xFF, 0xFF, 0xFF, 0xFF}, "4294967295"},
    };
    for (const auto& row : rows) {
        Bytes sector = makeHeaderSector();
        put(sector, 0, row.bytes);
        EXPECT_LUM_ERROR(load(sector), CIOError, 5, "Invalid magic number in VMDK sparse header",
                         {{"num", row.number}});
    }
}

TEST_F(CVMDKSparseExtentHeaderTest, ShortSectorOfAnyLengthIsTheStreamsError) {
    for (const Bytes& sector : {makeHeaderSector(), makeEncryptedHeaderSector(427)})
        for (int length = 0; length < 512; ++length) {
            const auto error = catchError([&] { load(slice(sector, 0, length)); });
            ASSERT_TRUE(error) << length;
            EXPECT_TRUE(dynamic_cast<CIOError*>(error.get()));
            EXPECT_EQ(error->getCode(), 4) << length;
            EXPECT_EQ(error->getMessage(), "Unexpected end of data.");
        }
}

TEST_F(CVMDKSparseExtentHeaderTest, AlteredLineEndsAreNamedAlsoWhereTheFileEndsBehindThem) {
    Bytes sector = makeHeaderSector();
    sector[73] = 0x0D;
    EXPECT_LUM_ERROR(load(slice(sector, 0, 77)), CIOError, 5, badLineEnds);
}

TEST_F(CVMDKSparseExtentHeaderTest, KeyHashThatTheRecordCannotHoldIsRefused) {
    const struct {
        std::initializer_list<unsigned char> size;
        const char* number;
    } rows[] = {{{0xAC, 0x01}, "428"}, {{0x00, 0x80}, "32768"}, {{0xFF, 0xFF}, "65535"}};
    for (const auto& row : rows) {
        Bytes sector = makeEncryptedHeaderSector(427);
        put(sector, 83, row.size);
        EXPECT_LUM_ERROR(load(sector), CIOError, 5,
                         String("VMDK sparse header has an invalid encryptionKeyHashSize: ") + row.number +
                             " (allowed: 0 to 427).",
                         {{"encryptionKeyHashSize", row.number}});
    }
}

TEST_F(CVMDKSparseExtentHeaderTest, KeyHashSizeIsNotLookedAtWithoutTheExtension) {
    Bytes sector = makeHeaderSector();
    fillRange(sector, 83, 85, 0xFF);
    EXPECT_EQ(loadAndStore(sector), sector);
}

TEST_F(CVMDKSparseExtentHeaderTest, SettingAKeyHashThatIsTooLongChangesNothing) {
    const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->setEncryptionKeyHash(patternBytes(32));
    EXPECT_INVALID_ARG_ERROR(header->setEncryptionKeyHash(Bytes(428)),
                             "CVMDKSparseExtentHeader::setEncryptionKeyHash",
                             "Key hash is too long for a VMDK sparse header: 428 bytes (at most 427).");
    EXPECT_EQ(header->getEncryptionKeyHash(), patternBytes(32));
    header->setEncryptionKeyHash(Bytes(427));
    EXPECT_EQ(header->getEncryptionKeyHash().getUsed(), 427);
}

} // namespace tessel::test
