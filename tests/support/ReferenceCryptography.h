#pragma once

#include <string>
#include <vector>

/// Cryptography that the library has no part in, to hold the library's against: OpenSSL's, or, where the
/// library's own comes from the only one at hand, a plain one of the tests. What it is asked for must make
/// sense, or it throws std::runtime_error.
namespace tessel::test::reference {

using ByteRow = std::vector<unsigned char>;

/// AES-256 in CBC mode of whole blocks, without padding.
ByteRow aes256CBC(bool encrypt, const ByteRow& data, const ByteRow& key, const ByteRow& iv);

ByteRow sha256(const ByteRow& data);

/// PBKDF2 with HMAC-SHA1, `size` bytes of it.
ByteRow pbkdf2(const std::string& password, const ByteRow& salt, int iterations, int size);

} // namespace tessel::test::reference
