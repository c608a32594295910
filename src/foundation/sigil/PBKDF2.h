#pragma once

namespace sigil {

/// PBKDF2 with HMAC-SHA1 as the platform offers it.
/// Throws: lum::CError when the engine fails.
/// Requires: passwordLength, saltLength >= 0; iterations, keyLength >= 1.
void computePBKDF2_HMAC_SHA1(const void* password, int passwordLength, const void* salt, int saltLength,
                             int iterations, int keyLength, void* key);

} // namespace sigil
