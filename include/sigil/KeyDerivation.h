#pragma once

#include "lum/export.h"

namespace sigil {

/// PBKDF2 with HMAC-SHA1 (RFC 8018, PKCS #5): fills `key` with `keyLength` bytes derived from password
/// and salt in `iterations` rounds. Lengths are bytes.
/// Throws: lum::CError when a length is negative, `iterations` is below 1, or the engine fails.
TESSEL_EXPORT void deriveKey_PKCS5_PBKDF2_HMAC_SHA1(const void* password, int passwordLength,
                                                    const void* salt, int saltLength, int iterations,
                                                    int keyLength, void* key);

} // namespace sigil
