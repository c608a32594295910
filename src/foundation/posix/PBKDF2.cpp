#include "foundation/sigil/PBKDF2.h"

#include "foundation/posix/OpenSSLCheck.h"

#include <openssl/evp.h>

namespace sigil {

void computePBKDF2_HMAC_SHA1(const void* password, int passwordLength, const void* salt, int saltLength,
                             int iterations, int keyLength, void* key) {
    checkOpenSSL(PKCS5_PBKDF2_HMAC(static_cast<const char*>(password), passwordLength,
                                   static_cast<const unsigned char*>(salt), saltLength, iterations,
                                   EVP_sha1(), keyLength, static_cast<unsigned char*>(key)),
                 "PKCS5_PBKDF2_HMAC");
}

} // namespace sigil
