#pragma once

#include "Bytes.h"

#include <openssl/evp.h>

#include <memory>
#include <stdexcept>

namespace tessel::test {

/// AES-256-CBC of whole blocks without padding, straight through OpenSSL, to hold the library's against.
inline Bytes independentAES(bool encrypt, const Bytes& data, const unsigned char* key, const Bytes& iv) {
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  &EVP_CIPHER_CTX_free);
    Bytes out(data.getUsed() + 16);
    int size = 0;
    int last = 0;
    if (!context || iv.getUsed() != 16 ||
        EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, key, iv.getData(), encrypt ? 1 : 0) !=
            1 ||
        EVP_CIPHER_CTX_set_padding(context.get(), 0) != 1 ||
        EVP_CipherUpdate(context.get(), out.getData(), &size, data.getData(),
                         static_cast<int>(data.getUsed())) != 1 ||
        EVP_CipherFinal_ex(context.get(), out.getData() + size, &last) != 1)
        throw std::runtime_error("OpenSSL failed");
    out.setUsed(size + last);
    return out;
}

} // namespace tessel::test
