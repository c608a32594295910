#pragma once

#include "lum/CBase.h"
#include "sigil/ICipher.h"

#include <memory>

namespace sigil {

/// AES with a key of 256 bits (FIPS 197) in CBC mode (NIST SP 800-38A): key 32 bytes, IV and block 16.
/// The engine's state is kept between calls.
class TESSEL_EXPORT CCipher_AES256CBC : public lum::CBase, public ICipher {
public:
    CCipher_AES256CBC();
    CCipher_AES256CBC(const CCipher_AES256CBC&) = delete;
    CCipher_AES256CBC& operator=(const CCipher_AES256CBC&) = delete;
    ~CCipher_AES256CBC() override;

    lum::String getID() const override;
    int getKeySizeBytes() const override;
    int getIVSizeBytes() const override;
    int getBlockSizeBytes() const override;
    void encrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                 const lum::TBuffer<unsigned char>& iv, lum::TBuffer<unsigned char>& out,
                 bool fillLastBlock) override;
    void decrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                 const lum::TBuffer<unsigned char>& iv, lum::TBuffer<unsigned char>& out,
                 bool fillLastBlock) override;
    void decrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                 const lum::TBuffer<unsigned char>& iv, lum::TCryptBuffer<unsigned char>& out,
                 bool fillLastBlock) override;

private:
    struct Engine;
    std::unique_ptr<Engine> m_engine;
};

} // namespace sigil
