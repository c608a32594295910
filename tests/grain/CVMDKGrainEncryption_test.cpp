#include "CGrainFixture.h"
#include "CLogRecorder.h"
#include "ErrorMatchers.h"
#include "IndependentAES.h"
#include "lum/LittleEndian.h"
#include "sigil/CCipher_AES256CBC.h"
#include "tessel/CVMDKGrain.h"

#include <gmock/gmock.h>

namespace tessel::test {
namespace {

using ::testing::IsEmpty;

constexpr int64 firstDiskGrain = CTestExtent::firstDiskGrain;

Bytes grainIV(int64 grainIndex, const Bytes& baseIV) {
    Bytes iv = patternBytes(5); // replaced
    CVMDKGrain::makeGrainEncryptIV(iv, baseIV, grainIndex);
    return iv;
}

/// A cipher that gives bytes too few or too many.
class CMiscountingCipher : public CBase, public sigil::ICipher {
public:
    explicit CMiscountingCipher(int64 excess) : m_excess(excess) {}

    String getID() const override { return "miscounting"; }
    int getKeySizeBytes() const override { return 32; }
    int getIVSizeBytes() const override { return 16; }
    int getBlockSizeBytes() const override { return 16; }
    void encrypt(const void* source, int size, const TCryptBuffer<unsigned char>&,
                 const TBuffer<unsigned char>&, TBuffer<unsigned char>& out, bool) override {
        copy(source, size, out);
    }
    void decrypt(const void* source, int size, const TCryptBuffer<unsigned char>&,
                 const TBuffer<unsigned char>&, TBuffer<unsigned char>& out, bool) override {
        copy(source, size, out);
    }
    void decrypt(const void*, int, const TCryptBuffer<unsigned char>&, const TBuffer<unsigned char>&,
                 TCryptBuffer<unsigned char>&, bool) override {}

private:
    void copy(const void* source, int size, TBuffer<unsigned char>& out) const {
        out.append(static_cast<const unsigned char*>(source), size);
        out.setUsed(out.getUsed() + m_excess);
    }

    int64 m_excess;
};

class CVMDKGrainEncryptionTest : public CGrainFixture {
protected:
    static Bytes encrypt(const Bytes& data, int64 grainIndex) {
        return independentAES(true, data, CTestExtent::key().getData(), ivOf(grainIndex));
    }
    static Bytes decrypt(const Bytes& data, int64 grainIndex) {
        return independentAES(false, data, CTestExtent::key().getData(), ivOf(grainIndex));
    }
    /// The IV of a grain of the extent: 1000 and more fill two bytes of the base IV.
    static Bytes ivOf(int64 grainIndex) {
        Bytes iv = CTestExtent::baseIV();
        const int64 diskGrain = firstDiskGrain + grainIndex;
        for (const int64 i : {0, 8}) {
            iv[i] = static_cast<unsigned char>(iv[i] ^ (diskGrain & 0xFF));
            iv[i + 1] = static_cast<unsigned char>(iv[i + 1] ^ (diskGrain >> 8));
        }
        return iv;
    }
    static Bytes zeroExtended(Bytes bytes, int64 multiple) {
        while (bytes.getUsed() % multiple != 0)
            bytes.append(Bytes(1).getData(), 1);
        return bytes;
    }
    /// A compressed grain's sectors on disk, by the format: plain head, the rest encrypted, zeros.
    static Bytes encryptedRecord(const Bytes& plainRecord, int64 grainIndex) {
        Bytes stored = slice(plainRecord, 0, 12);
        const Bytes payload =
            encrypt(zeroExtended(slice(plainRecord, 12, plainRecord.getUsed() - 12), 16), grainIndex);
        stored.append(payload.getData(), payload.getUsed());
        return zeroExtended(stored, 512);
    }
    Bytes slot(int64 grainIndex) const {
        const Info info = m_extent->info(grainIndex);
        return m_extent->file(info.posSectors * 512, info.slotSizeSectors * 512);
    }
};

// --- The IV of a grain ---

TEST(CVMDKGrainIV, EveryByteIsXoredWithAByteOfTheIndex) {
    const Bytes base = bytesOf(
        {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xF8, 0xF9, 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0xFF});
    EXPECT_EQ(grainIV(0, base), base);
    EXPECT_EQ(grainIV(0x0102030405060708, base), bytesOf({0x08, 0x06, 0x04, 0x06, 0x00, 0x06, 0x04, 0x06,
                                                          0xF0, 0xFE, 0xFC, 0xFE, 0xF8, 0xFE, 0xFC, 0xFE}));
    EXPECT_EQ(grainIV(1, base), bytesOf({0x01, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0xF9, 0xF9, 0xFA,
                                         0xFB, 0xFC, 0xFD, 0xFE, 0xFF}));
    EXPECT_EQ(grainIV(-1, base), bytesOf({0xFF, 0xFE, 0xFD, 0xFC, 0xFB, 0xFA, 0xF9, 0xF8, 0x07, 0x06, 0x05,
                                          0x04, 0x03, 0x02, 0x01, 0x00}));
    EXPECT_EQ(grainIV(INT64_MIN, base), bytesOf({0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x87, 0xF8, 0xF9,
                                                 0xFA, 0xFB, 0xFC, 0xFD, 0xFE, 0x7F}));
}

TEST(CVMDKGrainIV, HasTheLengthOfTheBase) {
    EXPECT_EQ(grainIV(0x0302, bytesOf({0x10, 0x20, 0x30})), bytesOf({0x12, 0x23, 0x30}));
    EXPECT_EQ(grainIV(5, Bytes()), Bytes());
}

// --- Bytes on disk ---

TEST_F(CVMDKGrainEncryptionTest, UncompressedGrainIsEncryptedAsAWhole) {
    make(false, true);
    store(5, patternBytes(grainBytes));
    EXPECT_EQ(slot(5), encrypt(patternBytes(grainBytes), 5));
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));
}

TEST_F(CVMDKGrainEncryptionTest, UncompressedGrainOfAnotherWriterIsRead) {
    make(false, true);
    store(5, patternBytes(grainBytes));
    m_extent->patchFile(m_extent->info(5).posSectors * 512, encrypt(noise(grainBytes), 5));
    EXPECT_EQ(m_extent->read(5), noise(grainBytes));
}

TEST_F(CVMDKGrainEncryptionTest, RecordIsEncryptedBehindItsHead) {
    make(true, true);
    for (const Bytes& plain :
         {patternBytes(grainBytes), noise(grainBytes), Bytes(patternBytes(grainBytes, 9))}) {
        store(5, plain);
        const Bytes plainRecord = record(plain, firstDiskGrain + 5);
        const Bytes expected = encryptedRecord(plainRecord, 5);
        const Bytes stored = slot(5);
        ASSERT_GE(stored.getUsed(), expected.getUsed());
        EXPECT_EQ(slice(stored, 0, expected.getUsed()), expected);
        EXPECT_EQ(slice(stored, 0, 12), slice(plainRecord, 0, 12)) << "the head is plain";
        EXPECT_EQ(m_extent->read(5), plain);
    }
}

TEST_F(CVMDKGrainEncryptionTest, RecordCanBeTakenApartByHand) {
    make(true, true);
    const Bytes plain = overwritten(Bytes(grainBytes), 100, noise(700));
    store(5, plain);
    const Bytes stored = slot(5);
    EXPECT_EQ(loadLittleEndian<uint64>(stored.getData()), static_cast<uint64>((firstDiskGrain + 5) * 8));
    const int64 length = loadLittleEndian<uint32>(stored.getData() + 8);
    const Bytes stream = decrypt(slice(stored, 12, (length + 15) / 16 * 16), 5);
    CVMDKCompressor compressor(1);
    Bytes inflated(grainBytes);
    ASSERT_EQ(compressor.decompressSingleStep(stream.getData(), static_cast<int>(length), inflated.getData(),
                                              grainBytes),
              grainBytes);
    EXPECT_EQ(inflated, plain);
}

TEST_F(CVMDKGrainEncryptionTest, RecordThatIsEncryptedToItsLastBlockOnlyIsRead) {
    make(true, true);
    store(5, noise(grainBytes));
    const int64 position = m_extent->info(5).posSectors * 512;
    const Bytes plainRecord = record(patternBytes(grainBytes), firstDiskGrain + 5);
    const int64 length = loadLittleEndian<uint32>(plainRecord.getData() + 8);
    Bytes stored = slice(plainRecord, 0, 12);
    const Bytes payload = encrypt(zeroExtended(slice(plainRecord, 12, length), 16), 5);
    stored.append(payload.getData(), payload.getUsed());
    m_extent->patchFile(position, zeroExtended(stored, 512));
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));
}

TEST_F(CVMDKGrainEncryptionTest, SameDiskGrainHasTheSameBytesInWhateverExtent) {
    for (const bool compressed : {false, true}) {
        make(compressed, true);
        store(5, patternBytes(grainBytes));
        store(6, patternBytes(grainBytes));
        const Bytes first = slot(5);
        const Bytes other = slot(6);
        EXPECT_NE(slice(first, 12, 500), slice(other, 12, 500)) << "each grain has an IV of its own";

        // Grain 5 of this disk is grain 100 of another extent of it.
        make(compressed, true);
        grain().open(100, firstDiskGrain + 5, 0, 0);
        writeHere(patternBytes(grainBytes));
        grain().flushChangesToStream();
        EXPECT_EQ(slot(100), first);
    }
}

// --- Slots ---

TEST_F(CVMDKGrainEncryptionTest, NeededSizeCountsTheEncryptedLength) {
    make(true, true);
    store(5, patternBytes(10)); // one sector plain; 500 bytes behind the head are 512 encrypted
    EXPECT_EQ(record(overwritten(Bytes(grainBytes), 0, patternBytes(10)), 0).getUsed(), 512);
    EXPECT_EQ(m_extent->info(5).slotSizeSectors, 2);
    const Bytes stored = slot(5);
    EXPECT_EQ(slice(stored, 524, 500), Bytes(500));
    store(6, patternBytes(10));
    EXPECT_EQ(m_extent->read(5), overwritten(Bytes(grainBytes), 0, patternBytes(10)));
}

TEST_F(CVMDKGrainEncryptionTest, MovedGrainGetsRoomForTheWorstThatCanBeEncrypted) {
    for (const int level : {0, 1, 9}) {
        make(true, true, level);
        m_extent->openGrain(5);
        grain().writePreparedGrainData(record(patternBytes(10), 0));
        const int64 plainBytes = grain().createDataPreparer()->getWorstCaseGrainSizeSectors() * 512;
        const int64 worst = (12 + (plainBytes - 12 + 15) / 16 * 16 + 511) / 512;
        EXPECT_EQ(worst, plainBytes / 512 + 1);
        store(5, noise(grainBytes));
        const Info moved = m_extent->info(5);
        EXPECT_EQ(moved.slotSizeSectors, worst);

        // Whatever comes fits now, a record of the worst size too.
        Bytes largest(plainBytes);
        const Bytes stream = record(noise(grainBytes, 2), 0, level);
        std::copy_n(stream.getData(), stream.getUsed(), largest.getData());
        m_extent->openGrain(5);
        grain().writePreparedGrainData(largest);
        EXPECT_EQ(m_extent->info(5), moved);
        EXPECT_EQ(m_extent->read(5), noise(grainBytes, 2));
    }
}

TEST_F(CVMDKGrainEncryptionTest, PreparedDataAreNeverEncrypted) {
    for (const bool compressed : {false, true}) {
        make(compressed, true);
        store(5, patternBytes(grainBytes));
        m_extent->openGrain(5);
        Bytes out;
        grain().readPreparedGrainData(out);
        Bytes expected =
            compressed ? record(patternBytes(grainBytes), firstDiskGrain + 5) : patternBytes(grainBytes);
        if (compressed) // only the stream is taken from the slot
            expected.setUsed(12 + loadLittleEndian<uint32>(expected.getData() + 8));
        EXPECT_EQ(out, expected);

        const Bytes before = slot(5);
        m_extent->openGrain(7);
        grain().writePreparedGrainData(out);
        EXPECT_EQ(m_extent->read(7), patternBytes(grainBytes));
        EXPECT_EQ(slot(7).getUsed(), before.getUsed());
        EXPECT_NE(slot(7), before);
    }
}

TEST_F(CVMDKGrainEncryptionTest, GrainOfTheProviderIsStoredEncrypted) {
    for (const bool compressed : {false, true}) {
        make(compressed, true);
        const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
        m_extent->useGrain(m_provider.get(), cipher.get());
        m_extent->openGrain(5);
        grain().makeIndependentOfParent();
        const Bytes expected = compressed ? encryptedRecord(record(providerGrain(5), firstDiskGrain + 5), 5)
                                          : encrypt(providerGrain(5), 5);
        EXPECT_EQ(slot(5), expected);
    }
}

// --- What goes wrong ---

TEST_F(CVMDKGrainEncryptionTest, EncryptedRecordThatClaimsMoreThanTwoGrainsIsRefused) {
    make(true, true);
    store(5, noise(grainBytes));
    const int64 position = m_extent->info(5).posSectors * 512;
    m_extent->patchUInt32(position + 8, 8193);
    m_extent->openGrain(5);
    EXPECT_LUM_ERROR(readHere(), CIOError, 5,
                     "Error reading compressed data from VMDK. Invalid compressed grain size.",
                     {{"uri", m_extent->uriText()},
                      {"position", toDecimal(position)},
                      {"lba", toDecimal((firstDiskGrain + 5) * 8)},
                      {"compressedGrainSize", "8193"}});
    m_extent->patchUInt32(position + 8, 0);
    EXPECT_LUM_ERROR(readHere(), CIOError, 5, "Compressed data are damaged or cut short.",
                     {{"compressedSize", "0"}});
}

TEST_F(CVMDKGrainEncryptionTest, CipherThatMiscountsIsCaught) {
    for (const int64 excess : {-16, 16}) {
        make(false);
        const P<sigil::ICipher> cipher(new CMiscountingCipher(excess));
        m_extent->useGrain(nullptr, cipher.get());
        m_extent->openGrain(5);
        writeHere(patternBytes(grainBytes));
        EXPECT_LUM_ERROR(
            grain().flushChangesToStream(), CError, -1,
            "Internal error. Encrypted data in CVMDKGrain::writePreparedGrainDataInternal has an "
            "unexpected size.",
            {{"encryptedSize", toDecimal(4096 + excess)}, {"uncompressedGrainSize", "4096"}});
        EXPECT_TRUE(grain().isGrainWrittenAndIndependentOfParent()) << "pending still";
        EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
        CLogRecorder log;
        m_extent->close();
        EXPECT_EQ(log.takeEntries().size(), 1u) << "the destructor cannot store it either";
    }
}

TEST_F(CVMDKGrainEncryptionTest, CipherThatMiscountsIsCaughtInReadingToo) {
    for (const int64 excess : {-16, 16}) {
        make(false);
        store(5, patternBytes(grainBytes));
        const P<sigil::ICipher> cipher(new CMiscountingCipher(excess));
        m_extent->useGrain(nullptr, cipher.get());
        m_extent->openGrain(5);
        EXPECT_LUM_ERROR(readHere(), CError, -1,
                         "Internal error: CVMDKGrain::readUncompressedGrain decrypted data size is not "
                         "uncompressed grain size",
                         {{"decryptedSize", toDecimal(4096 + excess)}, {"uncompressedGrainSize", "4096"}});
        EXPECT_EQ(grain().getPosition(), 0);
    }
}

TEST_F(CVMDKGrainEncryptionTest, GrainKeepsItsCipherAndKey) {
    make(true, true);
    TCryptBuffer<unsigned char> key = CTestExtent::key();
    Bytes iv = CTestExtent::baseIV();
    P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
    const P<CVMDKGrain> own(new CVMDKGrain(&m_extent->stream(), IIOStream::Access_ReadWrite, 8,
                                           &m_extent->allocator(), true, 1, nullptr, cipher.get(), key, iv));
    cipher = nullptr;
    key.fill(0);
    iv.fill(0);
    own->open(5, firstDiskGrain + 5, 0, 0);
    own->write(patternBytes(grainBytes).getData(), grainBytes);
    own->flushChangesToStream();
    EXPECT_EQ(m_extent->read(5), patternBytes(grainBytes));
}

TEST_F(CVMDKGrainEncryptionTest, CipherThatRefusesLeavesTheChangePending) {
    make(true, true);
    const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
    P<CVMDKGrain> own(new CVMDKGrain(&m_extent->stream(), IIOStream::Access_ReadWrite, 8,
                                     &m_extent->allocator(), true, 1, nullptr, cipher.get(),
                                     CTestExtent::key(), Bytes(15)));
    own->open(5, firstDiskGrain + 5, 0, 0);
    own->write(patternBytes(grainBytes).getData(), grainBytes);
    EXPECT_INVALID_ARG_ERROR(own->flushChangesToStream(), "CCipher_AES256CBC::encrypt",
                             "The IV has the wrong length.", {{"ivLength", "15"}});
    EXPECT_TRUE(own->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(m_extent->info(5), (Info{0, 0}));
    CLogRecorder log;
    own = nullptr;
    EXPECT_EQ(log.takeEntries().size(), 1u) << "the destructor cannot store it either";
}

} // namespace
} // namespace tessel::test
