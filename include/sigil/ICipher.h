#pragma once

#include "lum/IBase.h"
#include "lum/String.h"
#include "lum/TBuffer.h"

/// Cryptography: ciphers, digests and key derivation.
namespace sigil {

/// A symmetric block cipher. Used by one thread at a time.
class TESSEL_EXPORT ICipher : public virtual lum::IBase {
public:
    /// Names algorithm and mode, "aes256cbc" for example.
    virtual lum::String getID() const = 0;
    /// Length of a key in bytes.
    virtual int getKeySizeBytes() const = 0;
    /// Length of an initialisation vector in bytes.
    virtual int getIVSizeBytes() const = 0;
    /// Length of a block in bytes.
    virtual int getBlockSizeBytes() const = 0;

    /// Encrypts `size` bytes and appends the result to `out`. With `fillLastBlock` the last block is
    /// filled with zeros to a whole one; without it `size` must be whole blocks.
    /// Throws: lum::CError on a key or IV of the wrong length, a partial block, or when the engine
    /// fails; `out` is then as it was. `source` may not lie in `out`.
    virtual void encrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                         const lum::TBuffer<unsigned char>& iv, lum::TBuffer<unsigned char>& out,
                         bool fillLastBlock) = 0;
    /// Decrypts `size` bytes, whole blocks whatever the flag, and appends as many to `out`: nothing is
    /// stripped. Throws: as encrypt.
    virtual void decrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                         const lum::TBuffer<unsigned char>& iv, lum::TBuffer<unsigned char>& out,
                         bool fillLastBlock) = 0;
    /// The same with a result that is itself a key, wiped when released.
    virtual void decrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                         const lum::TBuffer<unsigned char>& iv, lum::TCryptBuffer<unsigned char>& out,
                         bool fillLastBlock) = 0;
};

} // namespace sigil
