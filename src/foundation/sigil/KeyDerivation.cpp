#include "sigil/KeyDerivation.h"

#include "foundation/sigil/PBKDF2.h"
#include "lum/CInvalidArgError.h"

namespace sigil {

using lum::CInvalidArgError;
using lum::CProps;

namespace {

constexpr const char* function = "deriveKey_PKCS5_PBKDF2_HMAC_SHA1";

void checkBytes(const char* name, const void* bytes, int length) {
    if (length < 0)
        throw CInvalidArgError(function, "A length must not be negative.", CProps().add(name, length));
    if (!bytes && length > 0)
        throw CInvalidArgError(function, "Bytes must not be NULL.", CProps().add(name, length));
}

} // namespace

void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordLength, const void* salt,
                                      int saltLength, int iterations, int keyLength, void* key) {
    checkBytes("passwordLength", password, passwordLength);
    checkBytes("saltLength", salt, saltLength);
    checkBytes("keyLength", key, keyLength);
    if (iterations < 1)
        throw CInvalidArgError(function, "iterations must be at least 1.",
                               CProps().add("iterations", iterations));
    if (keyLength > 0)
        computePBKDF2_HMAC_SHA1(password, passwordLength, salt, saltLength, iterations, keyLength, key);
}

} // namespace sigil
