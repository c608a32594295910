#include "foundation/sigil/PBKDF2.h"

#include "foundation/windows/CNG.h"

namespace sigil {

void computePBKDF2_HMAC_SHA1(const void* password, int passwordLength, const void* salt, int saltLength,
                             int iterations, int keyLength, void* key) {
    // No bytes have a place all the same: the system takes no null pointers.
    unsigned char nothing = 0;
    const auto bytes = [&nothing](const void* memory) {
        return memory ? static_cast<PUCHAR>(const_cast<void*>(memory)) : &nothing;
    };
    const CNGAlgorithm hmac = openCNGAlgorithm(BCRYPT_SHA1_ALGORITHM, BCRYPT_ALG_HANDLE_HMAC_FLAG);
    checkCNG(::BCryptDeriveKeyPBKDF2(hmac.get(), bytes(password), static_cast<ULONG>(passwordLength),
                                     bytes(salt), static_cast<ULONG>(saltLength),
                                     static_cast<ULONGLONG>(iterations), static_cast<PUCHAR>(key),
                                     static_cast<ULONG>(keyLength), 0),
             "BCryptDeriveKeyPBKDF2");
}

} // namespace sigil
