#include "disk/DiskKeys.h"

#include "lum/CInvalidArgError.h"
#include "lum/CMTRand.h"
#include "lum/CMutexLock.h"
#include "lum/CSecretText.h"
#include "sigil/CCipher_AES256CBC.h"
#include "sigil/CDigestType_SHA256.h"
#include "sigil/ConstantTime.h"
#include "sigil/KeyDerivation.h"
#include "tessel/CVMDKDisk.h"

#include <climits>

namespace tessel {

namespace {

const char* const cipherName = "aes256cbc";
const char* const keyHashName = "sha256";
const char* const derivationPrefix = "pkcs5-pbkdf2-hmac-sha1:";
constexpr int64 createdIterations = 10000;
constexpr int64 minIterations = 1000;
constexpr int64 minSaltSize = 8;

TBuffer<unsigned char> calcKeyHash(const TCryptBuffer<unsigned char>& key) {
    const P<sigil::IDigest> digest = sigil::CDigestType_SHA256().createDigest();
    digest->update(key.getData(), static_cast<int>(key.getUsed()));
    digest->finish();
    return TBuffer<unsigned char>(digest->getBytes(), digest->getSizeBytes());
}

template <class Buffer>
void fillRandomly(Buffer& buffer, int size) {
    buffer.setUsed(size);
    const CMutexLock lock(CMTRand::getGlobalInstanceMutex());
    CMTRand::getGlobal()->randData(buffer.getData(), size);
}

void verifyLength(const char* name, const TBuffer<unsigned char>& value, int expected, const CProps& props) {
    if (value.getUsed() != expected)
        throw CError(String("VMDK descriptor value '") + name + "' has an invalid length: " +
                         toDecimal(value.getUsed()) + " bytes (expected: " + toDecimal(expected) + ").",
                     String(), -1, props);
}

} // namespace

void CVMDKDisk::deriveEncryptKey(TCryptBuffer<unsigned char>& key, int keySizeBytes, const String& password,
                                 const String& derivationAlgorithm, const TBuffer<unsigned char>& salt) {
    static const char* const method = "CVMDKDisk::deriveEncryptKey";
    const TCryptBuffer<unsigned char> secret = CSecretText::toUTF8(password);
    key.setUsed(keySizeBytes);
    if (!derivationAlgorithm.StartsWith(derivationPrefix))
        throw CInvalidArgError(method, "Unknown encryption key derivation algorithm: " + derivationAlgorithm);
    const int64 iterations = parseInt64(derivationAlgorithm.Mid(String(derivationPrefix).getLength()), false);
    if (salt.getUsed() < minSaltSize)
        throw CInvalidArgError(method,
                               "Key derivation salt is too small: " + toDecimal(salt.getUsed()) + " bytes");
    if (iterations < minIterations)
        throw CInvalidArgError(method, "Key derivation iterations are too small: " + toDecimal(iterations));
    if (iterations > INT_MAX)
        throw CInvalidArgError(method, "Key derivation iterations are too large: " + toDecimal(iterations));
    sigil::deriveKey_PKCS5_PBKDF2_HMAC_SHA1(secret.getData(), static_cast<int>(secret.getUsed()),
                                            salt.getData(), static_cast<int>(salt.getUsed()),
                                            static_cast<int>(iterations), keySizeBytes, key.getData());
}

UDiskKeys unlockDiskKeys(const CVMDKDescriptor& descriptor, const String& password, const CProps& props) {
    const String algorithm = descriptor.getLumEncryptionAlgorithm();
    if (algorithm != cipherName)
        throw CError("Unsupported encryption algorithm used in VMDK: " + algorithm, String(), -1, props);
    UDiskKeys keys;
    keys.cipher = new sigil::CCipher_AES256CBC;
    if (password.isEmpty())
        throw CError("VMDK is encrypted but no password provided", String(), -1, props);
    const int keySize = keys.cipher->getKeySizeBytes();
    TCryptBuffer<unsigned char> keyEncryptionKey;
    CVMDKDisk::deriveEncryptKey(keyEncryptionKey, keySize, password,
                                descriptor.getLumEncryptionKeyDerivationAlgorithm(),
                                descriptor.getLumEncryptionKeyDerivationSalt());
    const TBuffer<unsigned char> wrappedKey = descriptor.getLumEncryptedEncryptionKey();
    keys.iv = descriptor.getLumEncryptionIV();
    verifyLength("lumEncEncKey", wrappedKey, keySize, props);
    verifyLength("lumEncIV", keys.iv, keys.cipher->getIVSizeBytes(), props);
    keys.cipher->decrypt(wrappedKey.getData(), static_cast<int>(wrappedKey.getUsed()), keyEncryptionKey,
                         keys.iv, keys.dataKey, false);

    const String hashAlgorithm = descriptor.getLumEncryptionKeyHashAlgorithm();
    if (hashAlgorithm != keyHashName)
        throw CError("Unsupported key hash algorithm used in VMDK: " + hashAlgorithm, String(), -1, props);
    keys.keyHash = descriptor.getLumEncryptionKeyHash();
    const TBuffer<unsigned char> actualHash = calcKeyHash(keys.dataKey);
    if (actualHash.getUsed() != keys.keyHash.getUsed() ||
        !sigil::isEqualInConstantTime(actualHash.getData(), keys.keyHash.getData(),
                                      static_cast<std::size_t>(actualHash.getUsed())))
        throw CError("Specified VMDK encryption password is not correct.", String(), -1, props);
    return keys;
}

UKeySettings wrapDataKey(const TCryptBuffer<unsigned char>& dataKey, const TBuffer<unsigned char>& iv,
                         const String& password, const TBuffer<unsigned char>& salt) {
    const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
    UKeySettings settings{String(derivationPrefix) + toDecimal(createdIterations), salt, {}};
    TCryptBuffer<unsigned char> keyEncryptionKey;
    CVMDKDisk::deriveEncryptKey(keyEncryptionKey, cipher->getKeySizeBytes(), password, settings.derivation,
                                salt);
    cipher->encrypt(dataKey.getData(), static_cast<int>(dataKey.getUsed()), keyEncryptionKey, iv,
                    settings.wrappedKey, false);
    return settings;
}

TBuffer<unsigned char> makeKeySalt() {
    TBuffer<unsigned char> salt;
    fillRandomly(salt, sigil::CCipher_AES256CBC().getKeySizeBytes());
    return salt;
}

TBuffer<unsigned char> addDiskKeys(CVMDKDescriptor& descriptor, const String& password) {
    const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
    descriptor.setLumEncryptionAlgorithm(cipherName);
    TBuffer<unsigned char> iv;
    fillRandomly(iv, cipher->getIVSizeBytes());
    descriptor.setLumEncryptionIV(iv);
    const TBuffer<unsigned char> salt = makeKeySalt();
    TCryptBuffer<unsigned char> dataKey;
    fillRandomly(dataKey, cipher->getKeySizeBytes());
    const UKeySettings settings = wrapDataKey(dataKey, iv, password, salt);
    descriptor.setLumEncryptionKeyDerivationAlgorithm(settings.derivation);
    descriptor.setLumEncryptionKeyDerivationSalt(settings.salt);
    descriptor.setLumEncryptedEncryptionKey(settings.wrappedKey);
    descriptor.setLumEncryptionKeyHashAlgorithm(keyHashName);
    TBuffer<unsigned char> keyHash = calcKeyHash(dataKey);
    descriptor.setLumEncryptionKeyHash(keyHash);
    return keyHash;
}

} // namespace tessel
