// Encrypted disks: how the key comes from the password, what of it stands in the descriptor, and what is
// refused.

#include "DiskTest.h"
#include "ReferenceCryptography.h"
#include "tessel/CVMDKSparseExtentFile.h"

#include <zlib.h>

using namespace tessel;
using namespace tessel::test;

namespace {

const char* const derivation = "pkcs5-pbkdf2-hmac-sha1:";

TBuffer<unsigned char> salt(int64 size) {
    TBuffer<unsigned char> bytes(size);
    bytes.fill('s');
    return bytes;
}

/// The IV of a grain: the disk's, with the grain's index in little-endian order over each of its halves.
Bytes grainIV(Bytes iv, uint64 grainIndex) {
    for (std::size_t i = 0; i < 16; ++i)
        iv[i] = static_cast<unsigned char>(iv[i] ^ (grainIndex >> (8 * (i % 8))));
    return iv;
}

struct UnwrappedKey {
    Bytes dataKey;
    Bytes iv;
};

class CVMDKDiskKeysTest : public DiskTest {
protected:
    P<CVMDKDisk> openWith(const char* password, const String& name = "disk.vmdk") {
        return open(forReading, name, password);
    }
    /// An encrypted disk of several files, whose descriptor lines are then changed.
    void putEncrypted(const std::function<void(CVMDKDescriptor&)>& edit) {
        create({.password = "secret", .limit = 3 * MiB});
        editDescriptor(edit);
    }
    void expectRefused(const String& message) {
        EXPECT_LUM_ERROR(openWith("secret"), CError, -1, message, {{"uri", path("disk.vmdk")}});
        EXPECT_FALSE(exists("disk.vmdk.lock"));
    }
    void expectRefusedDerivation(const String& message) {
        EXPECT_INVALID_ARG_ERROR(openWith("secret"), "CVMDKDisk::deriveEncryptKey", message);
    }

    /// The data key, taken out of the descriptor without the library's keys and ciphers.
    UnwrappedKey unwrap(const std::string& password, const String& name = "disk.vmdk") const {
        const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
        const P<CVMDKDescriptorAccessor> accessor(new CVMDKDescriptorAccessor(stream.get(), forReading));
        CVMDKDescriptor& descriptor = *accessor->getDescriptor();
        EXPECT_EQ(descriptor.getValue("lumEncAlg"), "aes256cbc");
        EXPECT_EQ(descriptor.getValue("lumEncKeyHashAlg"), "sha256");
        EXPECT_EQ(descriptor.getValue("lumEncKeyDerivAlg"), "pkcs5-pbkdf2-hmac-sha1:10000");
        const auto bytes = [&](const char* setting) {
            TBuffer<unsigned char> decoded;
            hexDecode(descriptor.getValue(setting), decoded);
            return toBytes(decoded);
        };
        const Bytes kek = reference::pbkdf2(password, bytes("lumEncKeyDerivSalt"), 10000, 32);
        const Bytes iv = bytes("lumEncIV");
        const Bytes dataKey = reference::aes256CBC(false, bytes("lumEncEncKey"), kek, iv);
        EXPECT_EQ(dataKey.size(), 32U);
        EXPECT_EQ(reference::sha256(dataKey), bytes("lumEncKeyHash"));
        return {dataKey, iv};
    }
    Bytes rawBytes(const String& name, int64 position, int64 size) const {
        Bytes bytes(static_cast<std::size_t>(size));
        const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
        stream->seek(position);
        stream->read(bytes.data(), static_cast<int>(size));
        return bytes;
    }
    /// Where the only written grain of a file lies, and how many bytes its slot has.
    std::pair<int64, int64> findSlot(const String& name, CVMDKDisk& disk, int64 grainIndex) const {
        disk.flushChanges();
        const P<IIOStream> stream = m_memory->openFile(uri(name), forReading);
        CDataInStream in(stream.get());
        const P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
        header->load(in);
        EXPECT_TRUE(header->getEncryptionExtensionEnabled());
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache);
        const P<CVMDKGrainDirectory> directory(new CVMDKGrainDirectory(
            stream.get(), forReading, static_cast<int64>(header->getGrainDirectoryOffsetSectors()),
            static_cast<int64>(header->getRedundantGrainDirectoryOffsetSectors()),
            static_cast<int64>(header->getCapacitySectors()), 128, 512, disk.getCompressed(), cache.get(),
            static_cast<int64>(header->getOverheadSectors())));
        int64 position = 0;
        int64 size = 0;
        directory->getGrainInfo(grainIndex, position, size);
        return {position * 512, size * 512};
    }
};

} // namespace

// --- Deriving ---

TEST_F(CVMDKDiskKeysTest, DerivesAsTheStandardDoes) {
    // RFC 6070, the fifth vector.
    const std::string text = "saltSALTsaltSALTsaltSALTsaltSALTsalt";
    const TBuffer<unsigned char> saltBytes(reinterpret_cast<const unsigned char*>(text.data()),
                                           static_cast<int64>(text.size()));
    TCryptBuffer<unsigned char> key;
    CVMDKDisk::deriveEncryptKey(key, 25, "passwordPASSWORDpassword", String(derivation) + "4096", saltBytes);
    TBuffer<unsigned char> expected;
    hexDecode("3d2eec4fe41c849b80c8d83662c0e44a8b291a964cf2f07038", expected);
    EXPECT_EQ(Bytes(key.getData(), key.getData() + key.getUsed()), toBytes(expected));
}

TEST_F(CVMDKDiskKeysTest, PasswordCountsAsUTF8) {
    TCryptBuffer<unsigned char> key;
    CVMDKDisk::deriveEncryptKey(key, 32, L"Schl\u00fcssel \u20ac", String(derivation) + "1000", salt(8));
    EXPECT_EQ(Bytes(key.getData(), key.getData() + 32),
              reference::pbkdf2("Schl\xc3\xbcssel \xe2\x82\xac", Bytes(8, 's'), 1000, 32));
}

TEST_F(CVMDKDiskKeysTest, DerivationRefusesWhatIsUnknownOrWeak) {
    const struct {
        const char* algorithm;
        int64 saltSize;
        const char* message;
    } rows[] = {
        {"", 32, "Unknown encryption key derivation algorithm: "},
        {"pkcs5-pbkdf2-hmac-sha1", 32, "Unknown encryption key derivation algorithm: pkcs5-pbkdf2-hmac-sha1"},
        {"PKCS5-PBKDF2-HMAC-SHA1:10000", 32,
         "Unknown encryption key derivation algorithm: PKCS5-PBKDF2-HMAC-SHA1:10000"},
        {"pkcs5-pbkdf2-hmac-sha256:10000", 32,
         "Unknown encryption key derivation algorithm: pkcs5-pbkdf2-hmac-sha256:10000"},
        // The algorithm comes before the salt, the salt before the count.
        {"scrypt:1", 7, "Unknown encryption key derivation algorithm: scrypt:1"},
        {"pkcs5-pbkdf2-hmac-sha1:1", 7, "Key derivation salt is too small: 7 bytes"},
        {"pkcs5-pbkdf2-hmac-sha1:10000", 7, "Key derivation salt is too small: 7 bytes"},
        {"pkcs5-pbkdf2-hmac-sha1:10000", 0, "Key derivation salt is too small: 0 bytes"},
        {"pkcs5-pbkdf2-hmac-sha1:999", 8, "Key derivation iterations are too small: 999"},
        {"pkcs5-pbkdf2-hmac-sha1:0", 8, "Key derivation iterations are too small: 0"},
        {"pkcs5-pbkdf2-hmac-sha1:-10000", 8, "Key derivation iterations are too small: -10000"},
        {"pkcs5-pbkdf2-hmac-sha1:", 8, "Key derivation iterations are too small: 0"},
        {"pkcs5-pbkdf2-hmac-sha1:many", 8, "Key derivation iterations are too small: 0"},
        {"pkcs5-pbkdf2-hmac-sha1:2147483648", 8, "Key derivation iterations are too large: 2147483648"},
        // 2^32 + 10000, which 32 bits would take for 10000.
        {"pkcs5-pbkdf2-hmac-sha1:4294977296", 8, "Key derivation iterations are too large: 4294977296"},
        {"pkcs5-pbkdf2-hmac-sha1:9223372036854775807", 8,
         "Key derivation iterations are too large: 9223372036854775807"},
        {"pkcs5-pbkdf2-hmac-sha1:99999999999999999999", 8, "Key derivation iterations are too small: 0"},
    };
    for (const auto& row : rows) {
        TCryptBuffer<unsigned char> key;
        EXPECT_INVALID_ARG_ERROR(
            CVMDKDisk::deriveEncryptKey(key, 32, "secret", row.algorithm, salt(row.saltSize)),
            "CVMDKDisk::deriveEncryptKey", row.message);
    }
}

TEST_F(CVMDKDiskKeysTest, DerivationTakesTheLeastThatItMay) {
    TCryptBuffer<unsigned char> key;
    CVMDKDisk::deriveEncryptKey(key, 32, "secret", String(derivation) + "1000", salt(8));
    EXPECT_EQ(Bytes(key.getData(), key.getData() + 32), reference::pbkdf2("secret", Bytes(8, 's'), 1000, 32));
}

// --- What the descriptor holds ---

TEST_F(CVMDKDiskKeysTest, KeyIsWrappedAsOthersUnwrapIt) {
    for (const bool compressed : {false, true}) {
        create({.password = "secret", .compressed = compressed});
        unwrap("secret"); // checks the key against its hash
    }
}

TEST_F(CVMDKDiskKeysTest, PlainGrainsAreEncryptedAsOthersDecryptThem) {
    for (const int64 limit : {int64{-1}, 3 * MiB + 2 * 65536}) {
        const P<CVMDKDisk> disk = create({.password = "secret", .limit = limit});
        const Bytes data = randomBytes(1, grainBytes);
        writeAt(*disk, 100 * grainBytes, data);
        // The 101st grain of the disk is the 5th of the third extent.
        const String file = limit < 0 ? "disk.vmdk" : "disk-s00002.vmdk";
        const auto [position, size] = findSlot(file, *disk, limit < 0 ? 100 : 4);
        EXPECT_EQ(size, grainBytes);
        const Bytes stored = rawBytes(file, position, size);
        EXPECT_NE(stored, data);
        const UnwrappedKey key = unwrap("secret");
        EXPECT_EQ(reference::aes256CBC(false, stored, key.dataKey, grainIV(key.iv, 100)), data);
    }
}

TEST_F(CVMDKDiskKeysTest, CompressedGrainsAreEncryptedBehindTheirHead) {
    const P<CVMDKDisk> disk = create({.password = "secret", .compressed = true});
    const Bytes data(static_cast<std::size_t>(grainSize), 'z');
    writeAt(*disk, 100 * grainBytes, data);
    const auto [position, size] = findSlot("disk.vmdk", *disk, 100);
    const Bytes stored = rawBytes("disk.vmdk", position, size);
    EXPECT_EQ(Bytes(stored.begin(), stored.begin() + 8), (Bytes{0x00, 0x32, 0, 0, 0, 0, 0, 0})); // 12800
    const std::size_t length = stored[8] + 256U * stored[9];
    ASSERT_LE(12 + length, stored.size());
    const UnwrappedKey key = unwrap("secret");
    const std::size_t wholeBlocks = (length + 15) / 16 * 16;
    Bytes stream(stored.begin() + 12, stored.begin() + 12 + static_cast<std::ptrdiff_t>(wholeBlocks));
    stream = reference::aes256CBC(false, stream, key.dataKey, grainIV(key.iv, 100));
    Bytes inflated(static_cast<std::size_t>(grainSize));
    uLongf inflatedSize = inflated.size();
    EXPECT_EQ(uncompress(inflated.data(), &inflatedSize, stream.data(), length), Z_OK);
    EXPECT_EQ(inflatedSize, inflated.size());
    EXPECT_EQ(inflated, data);
}

TEST_F(CVMDKDiskKeysTest, DisksWithTheSamePasswordShareNothing) {
    const auto settingsOf = [this](const char* name) {
        const P<CVMDKDescriptor> descriptor = create({.password = "secret"}, name)->getDescriptor();
        TArray<String> values;
        for (const char* const setting : {"lumEncIV", "lumEncKeyDerivSalt", "lumEncEncKey", "lumEncKeyHash"})
            values.push_back(descriptor->getValue(setting));
        return values;
    };
    const TArray<String> a = settingsOf("a.vmdk");
    const TArray<String> b = settingsOf("b.vmdk");
    for (std::size_t i = 0; i < a.size(); ++i)
        EXPECT_NE(a[i], b[i]);
    EXPECT_NE(unwrap("secret", "a.vmdk").dataKey, unwrap("secret", "b.vmdk").dataKey);
}

TEST_F(CVMDKDiskKeysTest, PlainTextIsNowhereInTheFiles) {
    const std::string text = "This stands nowhere in the file but encrypted. ";
    const P<CVMDKDisk> disk = create({.password = "correct horse"});
    disk->write(text.data(), static_cast<int>(text.size()));
    disk->flushChanges();
    EXPECT_EQ(getFile("disk.vmdk").find("stands nowhere"), std::string::npos);
    EXPECT_EQ(getFile("disk.vmdk").find("correct horse"), std::string::npos);
    EXPECT_TRUE(disk->getEncrypted());
}

// --- Opening ---

TEST_F(CVMDKDiskKeysTest, PasswordOpensWhatItHasLocked) {
    for (const wchar_t* const password : {L"secret", L" ", L"Schl\u00fcssel \u20ac", L"a\"b\nc"}) {
        const Bytes data = randomBytes(1, 1000);
        {
            const P<CVMDKDisk> disk = CVMDKDisk::create(files(), uri("disk.vmdk"), 8 * MiB, password, true, 1,
                                                        -1, "", noParent, false);
            writeAt(*disk, 12345, data);
        }
        const P<CVMDKDisk> disk(
            new CVMDKDisk(files(), uri("disk.vmdk"), forReading, password, -1, nullptr, nullptr));
        EXPECT_EQ(readAt(*disk, 12345, 1000), data);
        EXPECT_TRUE(disk->getEncrypted());
    }
}

TEST_F(CVMDKDiskKeysTest, WrongPasswordIsToldAsSuch) {
    for (const bool compressed : {false, true}) {
        create({.password = "secret", .compressed = compressed});
        for (const char* const password : {"Secret", "secret ", "secre", "x"})
            EXPECT_LUM_ERROR(openWith(password), CError, -1,
                             "Specified VMDK encryption password is not correct.",
                             {{"uri", path("disk.vmdk")}});
    }
}

TEST_F(CVMDKDiskKeysTest, MissingPasswordIsToldBeforeAnythingIsDerived) {
    putEncrypted([](CVMDKDescriptor& descriptor) {
        descriptor.setValue("lumEncKeyDerivAlg", "unknown", false, true);
        descriptor.setValue("lumEncKeyHashAlg", "unknown", false, true);
    });
    EXPECT_LUM_ERROR(openWith(""), CError, -1, "VMDK is encrypted but no password provided",
                     {{"uri", path("disk.vmdk")}});
}

TEST_F(CVMDKDiskKeysTest, PasswordOfADiskThatIsNotEncryptedIsNotLookedAt) {
    create();
    EXPECT_FALSE(openWith("secret")->getEncrypted());
}

TEST_F(CVMDKDiskKeysTest, RefusesOtherAlgorithms) {
    for (const char* const algorithm : {"aes128cbc", "AES256CBC", "aes256", "none", "aes256cbc2"}) {
        putEncrypted([&](CVMDKDescriptor& descriptor) { descriptor.setLumEncryptionAlgorithm(algorithm); });
        expectRefused(String("Unsupported encryption algorithm used in VMDK: ") + algorithm);
        // Also without a password.
        EXPECT_LUM_ERROR(openWith(""), CError, -1,
                         String("Unsupported encryption algorithm used in VMDK: ") + algorithm,
                         {{"uri", path("disk.vmdk")}});
    }
    for (const char* const algorithm : {"sha1", "SHA256", "sha512", ""}) {
        putEncrypted(
            [&](CVMDKDescriptor& descriptor) { descriptor.setLumEncryptionKeyHashAlgorithm(algorithm); });
        expectRefused(String("Unsupported key hash algorithm used in VMDK: ") + algorithm);
    }
}

TEST_F(CVMDKDiskKeysTest, RefusesAHashThatDiffersInAnything) {
    const auto putHash = [this](const std::function<void(TBuffer<unsigned char>&)>& change) {
        putEncrypted([&](CVMDKDescriptor& descriptor) {
            TBuffer<unsigned char> hash = descriptor.getLumEncryptionKeyHash();
            change(hash);
            descriptor.setLumEncryptionKeyHash(hash);
        });
    };
    const char* const message = "Specified VMDK encryption password is not correct.";
    for (const int64 place : {0, 15, 31}) {
        putHash([&](TBuffer<unsigned char>& hash) { hash[place] ^= 1; });
        expectRefused(message);
    }
    for (const int64 size : {0, 1, 31, 33}) {
        putHash([&](TBuffer<unsigned char>& hash) { hash.setUsed(size); });
        expectRefused(message);
    }
}

TEST_F(CVMDKDiskKeysTest, RefusesAKeyThatDiffers) {
    putEncrypted([](CVMDKDescriptor& descriptor) {
        TBuffer<unsigned char> key = descriptor.getLumEncryptedEncryptionKey();
        key[5] ^= 0x10;
        descriptor.setLumEncryptedEncryptionKey(key);
    });
    expectRefused("Specified VMDK encryption password is not correct.");
}

TEST_F(CVMDKDiskKeysTest, RefusesValuesOfAnotherLengthBeforeTheyAreUsed) {
    for (const int64 size : {0, 1, 16, 31, 33, 48, 64}) {
        putEncrypted([&](CVMDKDescriptor& descriptor) {
            descriptor.setLumEncryptedEncryptionKey(TBuffer<unsigned char>(size));
        });
        expectRefused("VMDK descriptor value 'lumEncEncKey' has an invalid length: " + toDecimal(size) +
                      " bytes (expected: 32).");
    }
    for (const int64 size : {0, 1, 15, 17, 32}) {
        putEncrypted([&](CVMDKDescriptor& descriptor) {
            descriptor.setLumEncryptionIV(TBuffer<unsigned char>(size));
        });
        expectRefused("VMDK descriptor value 'lumEncIV' has an invalid length: " + toDecimal(size) +
                      " bytes (expected: 16).");
    }
}

TEST_F(CVMDKDiskKeysTest, RefusesAWeakOrUnknownDerivation) {
    const auto putDerivation = [this](const char* algorithm) {
        putEncrypted([&](CVMDKDescriptor& descriptor) {
            descriptor.setLumEncryptionKeyDerivationAlgorithm(algorithm);
        });
    };
    putDerivation("pkcs5-pbkdf2-hmac-sha1:999");
    expectRefusedDerivation("Key derivation iterations are too small: 999");
    putDerivation("pkcs5-pbkdf2-hmac-sha1:2147483648");
    expectRefusedDerivation("Key derivation iterations are too large: 2147483648");
    putDerivation("scrypt");
    expectRefusedDerivation("Unknown encryption key derivation algorithm: scrypt");
    putEncrypted([](CVMDKDescriptor& descriptor) {
        descriptor.setLumEncryptionKeyDerivationSalt(TBuffer<unsigned char>(7));
    });
    expectRefusedDerivation("Key derivation salt is too small: 7 bytes");
}

TEST_F(CVMDKDiskKeysTest, RefusesADescriptorThatLacksAValue) {
    for (const char* const setting : {"lumEncIV", "lumEncKeyDerivAlg", "lumEncKeyDerivSalt", "lumEncEncKey",
                                      "lumEncKeyHashAlg", "lumEncKeyHash"}) {
        putEncrypted([&](CVMDKDescriptor& descriptor) { descriptor.removeValue(setting); });
        EXPECT_LUM_ERROR(openWith("secret"), CError, -1,
                         String("VMDK descriptor value '") + setting + "' not found.");
    }
}

TEST_F(CVMDKDiskKeysTest, RefusesAnExtentThatIsNotEncryptedOrHasAnotherKey) {
    create({.password = "secret", .limit = 3 * MiB + 2 * 65536}, "other.vmdk");
    create({.password = "secret", .limit = 3 * MiB + 2 * 65536});
    putExtent("disk-s00001.vmdk", 48);
    putFile("disk-s00002.vmdk", getFile("other-s00002.vmdk"));
    const P<CVMDKDisk> disk = openWith("secret");
    unsigned char byte = 0;
    disk->seek(4 * MiB);
    EXPECT_INVALID_ARG_ERROR(disk->read(&byte, 1), "CVMDKSparseExtentFile constructor",
                             "VMDK extent file is NOT encrypted but a cipher object was specified.",
                             {{"uri", path("disk-s00001.vmdk")}});
    disk->seek(7 * MiB);
    EXPECT_LUM_ERROR(disk->read(&byte, 1), CError, -1,
                     "Specified VMDK extent file encryption key is not correct.",
                     {{"uri", path("disk-s00002.vmdk")}});
    EXPECT_EQ(takeLog().size(), 2U);
}
