// What opening a sparse extent file refuses, and with which words.

#include "ExtentFixture.h"
#include "lum/CInvalidArgError.h"
#include "tessel/CVMDKSparseExtentFile.h"
#include "tessel/VMDKFileReference.h"

namespace tessel::test {
namespace {

constexpr const char* constructorName = "CVMDKSparseExtentFile constructor";

class CVMDKSparseExtentFileOpenTest : public ExtentTest {
protected:
    void createPlain() { createExtent({}); }
    void createCompressed() { createExtent({.compressed = true}); }
    void createEncrypted() { createExtent({.encrypted = true}); }

    P<CVMDKSparseExtentFile> openWithCipher() { return openExtent({.withCipher = true}); }
};

/// Says that it is something else than the cipher below.
class COtherCipher : public CBase, public sigil::ICipher {
public:
    String id = "aes256cbc";
    int keySize = 32;

    String getID() const override { return id; }
    int getKeySizeBytes() const override { return keySize; }
    int getIVSizeBytes() const override { return 16; }
    int getBlockSizeBytes() const override { return 16; }
    void encrypt(const void*, int, const TCryptBuffer<unsigned char>&, const TBuffer<unsigned char>&,
                 TBuffer<unsigned char>&, bool) override {
        FAIL() << "nothing is encrypted by opening";
    }
    void decrypt(const void*, int, const TCryptBuffer<unsigned char>&, const TBuffer<unsigned char>&,
                 TBuffer<unsigned char>&, bool) override {
        FAIL() << "nothing is decrypted by opening";
    }
    void decrypt(const void*, int, const TCryptBuffer<unsigned char>&, const TBuffer<unsigned char>&,
                 TCryptBuffer<unsigned char>&, bool) override {
        FAIL() << "nothing is decrypted by opening";
    }
};

} // namespace

TEST_F(CVMDKSparseExtentFileOpenTest, TakesItsNumbersFromTheHeader) {
    createExtent({.compressed = true, .grainCount = 30, .grainSizeSectors = 16});
    patchFile<uint64>(Field_Capacity, 30 * 16 - 5);
    const auto extent = openExtent({.startGrainIndex = 77});
    EXPECT_EQ(extent->getStartGrainIndex(), 77);
    EXPECT_EQ(extent->getGrainSizeSectors(), 16);
    EXPECT_EQ(extent->getCapacitySectors(), 30 * 16 - 5);
    EXPECT_TRUE(extent->getCompressed());
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_EQ(extent->getURI(), extentURI);
    EXPECT_EQ(extent->getStream()->getURI(), extentURI);
    EXPECT_TRUE(extent->createDataPreparer()->doesAnything());
    EXPECT_EQ(takeLog(),
              TArray<std::string>{"warning: VMDK trail data is not what we expected. Assuming that "
                                  "it is not trail data - we won't overwrite it."});
}

TEST_F(CVMDKSparseExtentFileOpenTest, TakesAPlainExtentForPlain) {
    createPlain();
    const auto extent = openExtent();
    EXPECT_FALSE(extent->getCompressed());
    EXPECT_FALSE(extent->createDataPreparer()->doesAnything());
}

// --- Encryption: the checks in their order, each with all behind it wrong as well ---

TEST_F(CVMDKSparseExtentFileOpenTest, EncryptedExtentNeedsACipher) {
    createEncrypted();
    patchFile<uint16>(Field_EncryptionAlgorithm, 2);
    EXPECT_INVALID_ARG_ERROR(openExtent(), constructorName,
                             "VMDK extent file is encrypted but no cipher object was specified.",
                             {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, EncryptedExtentNeedsTheRightCipher) {
    createEncrypted();
    patchFile<uint16>(Field_EncryptionAlgorithm, 2);
    m_key.setUsed(31);
    const P<COtherCipher> cipher(new COtherCipher);
    cipher->id = "aes128cbc";
    m_cipher = cipher;
    EXPECT_INVALID_ARG_ERROR(openWithCipher(), constructorName,
                             "Cipher object has an unsupported ID: aes128cbc", {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, EncryptedExtentNeedsAKeyOfTheCiphersSize) {
    createEncrypted();
    patchFile<uint16>(Field_EncryptionAlgorithm, 2);
    m_key.setUsed(31);
    EXPECT_INVALID_ARG_ERROR(
        openWithCipher(), constructorName, "Specified encryption key has an incorrect size for the cipher",
        {{"uri", extentName}, {"expectedKeySize", "32"}, {"keySize", "31"}, {"cipherID", "aes256cbc"}});

    const P<COtherCipher> cipher(new COtherCipher);
    cipher->keySize = 30;
    m_cipher = cipher;
    EXPECT_INVALID_ARG_ERROR(
        openWithCipher(), constructorName, "Specified encryption key has an incorrect size for the cipher",
        {{"uri", extentName}, {"expectedKeySize", "30"}, {"keySize", "31"}, {"cipherID", "aes256cbc"}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesOtherEncryptionAlgorithms) {
    createEncrypted();
    patchFile<uint16>(Field_KeyHashAlgorithm, 9);
    for (const int algorithm : {2, 65535}) {
        patchFile<uint16>(Field_EncryptionAlgorithm, static_cast<uint16>(algorithm));
        EXPECT_LUM_ERROR(openWithCipher(), CError, -1,
                         "Unsupported encryption algorithm used by VMDK extent file: " + toDecimal(algorithm),
                         {{"uri", extentName}});
    }
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesOtherKeyHashAlgorithms) {
    createEncrypted();
    patchFile<unsigned char>(Field_KeyHash, static_cast<unsigned char>(m_keyHash[0] ^ 1));
    for (const int algorithm : {0, 2}) {
        patchFile<uint16>(Field_KeyHashAlgorithm, static_cast<uint16>(algorithm));
        EXPECT_LUM_ERROR(openWithCipher(), CError, -1,
                         "Unsupported key hash algorithm used in VMDK: " + toDecimal(algorithm),
                         {{"uri", extentName}});
    }
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesAWrongKeyOfTheRightSize) {
    createEncrypted();
    patchFile<uint32>(Field_Version, 4); // looked at later
    m_key[31] ^= 1;
    EXPECT_LUM_ERROR(openWithCipher(), CError, -1,
                     "Specified VMDK extent file encryption key is not correct.", {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesAKeyHashOfAnotherLength) {
    createEncrypted();
    for (const int size : {0, 31, 33}) {
        patchFile<uint16>(Field_KeyHashSize, static_cast<uint16>(size));
        EXPECT_LUM_ERROR(openWithCipher(), CError, -1,
                         "Specified VMDK extent file encryption key is not correct.", {{"uri", extentName}});
    }
}

TEST_F(CVMDKSparseExtentFileOpenTest, OpensWithTheRightKey) {
    createEncrypted();
    const auto extent = openWithCipher();
    writeAt(*extent, 100, patternBytes(10000));
    EXPECT_EQ(readAt(*extent, 100, 10000), patternBytes(10000));
}

TEST_F(CVMDKSparseExtentFileOpenTest, ExtentThatIsNotEncryptedTakesNoCipher) {
    createPlain();
    patchFile<uint32>(Field_Version, 4); // looked at later
    EXPECT_INVALID_ARG_ERROR(openWithCipher(), constructorName,
                             "VMDK extent file is NOT encrypted but a cipher object was specified.",
                             {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, EncryptionAlgorithm0MeansNotEncrypted) {
    createEncrypted();
    patchFile<uint16>(Field_EncryptionAlgorithm, 0);
    EXPECT_INVALID_ARG_ERROR(openWithCipher(), constructorName,
                             "VMDK extent file is NOT encrypted but a cipher object was specified.",
                             {{"uri", extentName}});
    const auto extent = openExtent();
    EXPECT_EQ(readAt(*extent, 0, 100), Bytes(100));
}

// --- Format ---

TEST_F(CVMDKSparseExtentFileOpenTest, OpensVersions1To3) {
    createPlain();
    for (const uint32 version : {1U, 2U, 3U}) {
        patchFile<uint32>(Field_Version, version);
        EXPECT_EQ(readAt(*openExtent(), 0, 100), Bytes(100)) << version;
    }
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesOtherVersions) {
    createCompressed();
    patchFile<uint32>(Field_Flags, 0x10003); // looked at later
    for (const uint32 version : {0U, 4U, 0x80000000U, 0xFFFFFFFFU}) {
        patchFile<uint32>(Field_Version, version);
        EXPECT_LUM_ERROR(openExtent(), CIOError, 6,
                         "VMDK file has an unsupported version: " + toDecimal(version),
                         {{"uri", extentName}});
    }
}

TEST_F(CVMDKSparseExtentFileOpenTest, CompressionAndMarkersGoTogether) {
    createCompressed();
    patchFile<uint64>(Field_Directory, 0xFFFFFFFFFFFFFFFF); // looked at later
    patchFile<uint32>(Field_Flags, 0x10003);
    EXPECT_LUM_ERROR(
        openExtent(), CIOError, 5,
        "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: true, metaMarkers: false).",
        {{"uri", extentName}});
    patchFile<uint32>(Field_Flags, 0x20003);
    EXPECT_LUM_ERROR(
        openExtent(), CIOError, 5,
        "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: false, metaMarkers: true).",
        {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesADirectoryThatOnlyTheFooterNames) {
    createCompressed();
    patchFile<uint32>(Field_Flags, 0x30007); // looked at later
    patchFile<uint64>(Field_Directory, 0xFFFFFFFFFFFFFFFF);
    EXPECT_LUM_ERROR(openExtent(), CIOError, 5,
                     "VMDK file uses an unsupported variant of the 'stream optimized' format.",
                     {{"uri", extentName}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, OpensACompressedExtentWithARealDirectoryOffset) {
    createCompressed();
    EXPECT_EQ(readAt(*openExtent(), 0, 100), Bytes(100));
}

TEST_F(CVMDKSparseExtentFileOpenTest, RefusesTableEntriesThatMeanZeros) {
    createPlain();
    patchFile<uint64>(Field_GrainSize, 0); // looked at later
    patchFile<uint32>(Field_Flags, 0x7);
    EXPECT_LUM_ERROR(openExtent(), CIOError, 5,
                     "VMDK file uses unsupported zeroed-grain table entries (flags: 0x00000007).",
                     {{"uri", extentName}, {"flags", "7"}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, KeepsOtherFlagsAsTheyAre) {
    createPlain();
    patchFile<uint32>(Field_Flags, 0xFFFC0003 & ~0x4U);
    const auto extent = openExtent();
    EXPECT_EQ(extent->getHeader().getFlags(), 0xFFFC0003 & ~0x4U);
}

TEST_F(CVMDKSparseExtentFileOpenTest, PassesOnWhatTheHeaderRefuses) {
    createPlain();
    patchFile<uint32>(Field_Magic, 0x12345678);
    EXPECT_LUM_ERROR(openExtent(), CIOError, 5, "Invalid magic number in VMDK sparse header",
                     {{"num", "305419896"}});
}

TEST_F(CVMDKSparseExtentFileOpenTest, ReadsTheHeaderWhereTheStreamStands) {
    createPlain();
    const P<IIOStream> stream = openVMDKFileStream(m_faults.get(), extentURI, IIOStream::Access_Read);
    stream->seek(512);
    EXPECT_LUM_ERROR(new CVMDKSparseExtentFile(stream.get(), IIOStream::Access_Read, 0, 1, m_cache.get(),
                                               nullptr, nullptr, nullptr, m_key, m_iv),
                     CIOError, 5, "Invalid magic number in VMDK sparse header", {{"num", "2"}});
}

// --- An extent of another disk ---

TEST_F(CVMDKSparseExtentFileOpenTest, FitsADiskOfItsGrainSizeAndKind) {
    createExtent({.compressed = true, .grainCount = 20, .grainSizeSectors = 8});
    const auto extent = openExtent();
    EXPECT_NO_THROW(extent->verifyFitsDisk(8, true, 160));
    EXPECT_NO_THROW(extent->verifyFitsDisk(8, true, 100));
    const auto propsOfThis = {CProps::Entry{"uri", extentName}, CProps::Entry{"grainSize", "8"},
                              CProps::Entry{"compressed", "true"}, CProps::Entry{"capacity", "160"}};
    EXPECT_LUM_ERROR(extent->verifyFitsDisk(16, true, 160), CIOError, 5,
                     "VMDK extent file does not belong to this disk (grain size: 8 sectors, expected: 16; "
                     "compressed: true, expected: true; capacity: 160 sectors, expected at least: 160).",
                     propsOfThis);
    EXPECT_LUM_ERROR(extent->verifyFitsDisk(8, false, 160), CIOError, 5,
                     "VMDK extent file does not belong to this disk (grain size: 8 sectors, expected: 8; "
                     "compressed: true, expected: false; capacity: 160 sectors, expected at least: 160).",
                     propsOfThis);
    EXPECT_LUM_ERROR(extent->verifyFitsDisk(8, true, 161), CIOError, 5,
                     "VMDK extent file does not belong to this disk (grain size: 8 sectors, expected: 8; "
                     "compressed: true, expected: true; capacity: 160 sectors, expected at least: 161).",
                     propsOfThis);
}

} // namespace tessel::test
