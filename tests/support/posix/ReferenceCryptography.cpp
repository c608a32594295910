#include "ReferenceCryptography.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace tessel::test::reference {

namespace {

void check(bool succeeded) {
    if (!succeeded)
        throw std::runtime_error("OpenSSL failed");
}

} // namespace

ByteRow aes256CBC(bool encrypt, const ByteRow& data, const ByteRow& key, const ByteRow& iv) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    check(context && key.size() == 32 && iv.size() == 16);
    ByteRow out(data.size() + 16);
    int size = 0;
    int last = 0;
    check(EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key.data(), iv.data(),
                            encrypt ? 1 : 0) == 1 &&
          EVP_CIPHER_CTX_set_padding(context.get(), 0) == 1 &&
          EVP_CipherUpdate(context.get(), out.data(), &size, data.data(), static_cast<int>(data.size())) ==
              1 &&
          EVP_CipherFinal_ex(context.get(), out.data() + size, &last) == 1);
    out.resize(static_cast<std::size_t>(size + last));
    return out;
}

ByteRow sha256(const ByteRow& data) {
    ByteRow digest(32);
    check(EVP_Digest(data.data(), data.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1);
    return digest;
}

ByteRow pbkdf2(const std::string& password, const ByteRow& salt, int iterations, int size) {
    ByteRow key(static_cast<std::size_t>(size));
    check(PKCS5_PBKDF2_HMAC(password.data(), static_cast<int>(password.size()), salt.data(),
                            static_cast<int>(salt.size()), iterations, EVP_sha1(), size, key.data()) == 1);
    return key;
}

} // namespace tessel::test::reference
