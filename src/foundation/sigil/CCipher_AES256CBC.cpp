#include "sigil/CCipher_AES256CBC.h"

#include "foundation/sigil/IAES256CBCEngine.h"
#include "lum/CInvalidArgError.h"
#include "lum/Numbers.h"

#include <array>
#include <cstring>

namespace sigil {

using lum::CInvalidArgError;
using lum::CProps;
using lum::int64;

namespace {

constexpr int keySize = IAES256CBCEngine::keySize;
constexpr int blockSize = IAES256CBCEngine::blockSize;

void checkArguments(const char* method, const void* source, int size, int64 keyLength, int64 ivLength) {
    if (keyLength != keySize)
        throw CInvalidArgError(method, "The key has the wrong length.", CProps().add("keyLength", keyLength));
    if (ivLength != blockSize)
        throw CInvalidArgError(method, "The IV has the wrong length.", CProps().add("ivLength", ivLength));
    if (size < 0)
        throw CInvalidArgError(method, "size must not be negative.", CProps().add("size", size));
    if (!source && size > 0)
        throw CInvalidArgError(method, "source must not be NULL.");
}

void checkWholeBlocks(const char* method, int size) {
    if (size % blockSize != 0)
        throw CInvalidArgError(method, "The data are not whole blocks.", CProps().add("size", size));
}

/// Makes `out` longer by `size` bytes and has `write` fill them. When that fails, `out` is as it was
/// and nothing of the attempt stays in its memory.
template <class Buffer, class Writer>
void append(Buffer& out, int64 size, Writer write) {
    const int64 old = out.getUsed();
    out.setUsed(old + size);
    try {
        write(out.getData() + old);
    } catch (...) {
        lum::wipeMemory(out.getData() + old, static_cast<std::size_t>(size));
        out.setUsed(old);
        throw;
    }
}

void encryptBlocks(IAES256CBCEngine& engine, const unsigned char* source, int size, unsigned char* dest) {
    const int tail = size % blockSize;
    const int whole = size - tail;
    if (whole > 0)
        engine.process(source, whole, dest);
    if (tail > 0) {
        std::array<unsigned char, blockSize> last{};
        std::memcpy(last.data(), source + whole, static_cast<std::size_t>(tail));
        engine.process(last.data(), blockSize, dest + whole);
    }
}

template <class Buffer>
void decryptBlocks(IAES256CBCEngine& engine, const void* source, int size, const unsigned char* key,
                   const unsigned char* iv, Buffer& out) {
    append(out, size, [&](unsigned char* dest) {
        engine.start(IAES256CBCEngine::Direction::Decrypt, key, iv);
        engine.process(static_cast<const unsigned char*>(source), size, dest);
    });
}

} // namespace

struct CCipher_AES256CBC::Engine {
    std::unique_ptr<IAES256CBCEngine> platform = createAES256CBCEngine();
};

CCipher_AES256CBC::CCipher_AES256CBC() : m_engine(std::make_unique<Engine>()) {}

CCipher_AES256CBC::~CCipher_AES256CBC() = default;

lum::String CCipher_AES256CBC::getID() const {
    return "aes256cbc";
}

int CCipher_AES256CBC::getKeySizeBytes() const {
    return keySize;
}

int CCipher_AES256CBC::getIVSizeBytes() const {
    return blockSize;
}

int CCipher_AES256CBC::getBlockSizeBytes() const {
    return blockSize;
}

void CCipher_AES256CBC::encrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                                const lum::TBuffer<unsigned char>& iv, lum::TBuffer<unsigned char>& out,
                                bool fillLastBlock) {
    static constexpr const char* method = "CCipher_AES256CBC::encrypt";
    checkArguments(method, source, size, key.getUsed(), iv.getUsed());
    if (!fillLastBlock)
        checkWholeBlocks(method, size);
    if (size == 0)
        return;

    append(out, lum::roundUp(size, blockSize), [&](unsigned char* dest) {
        m_engine->platform->start(IAES256CBCEngine::Direction::Encrypt, key.getData(), iv.getData());
        encryptBlocks(*m_engine->platform, static_cast<const unsigned char*>(source), size, dest);
    });
}

void CCipher_AES256CBC::decrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                                const lum::TBuffer<unsigned char>& iv, lum::TBuffer<unsigned char>& out,
                                bool /*fillLastBlock*/) {
    static constexpr const char* method = "CCipher_AES256CBC::decrypt";
    checkArguments(method, source, size, key.getUsed(), iv.getUsed());
    checkWholeBlocks(method, size);
    if (size != 0)
        decryptBlocks(*m_engine->platform, source, size, key.getData(), iv.getData(), out);
}

void CCipher_AES256CBC::decrypt(const void* source, int size, const lum::TCryptBuffer<unsigned char>& key,
                                const lum::TBuffer<unsigned char>& iv, lum::TCryptBuffer<unsigned char>& out,
                                bool /*fillLastBlock*/) {
    static constexpr const char* method = "CCipher_AES256CBC::decrypt";
    checkArguments(method, source, size, key.getUsed(), iv.getUsed());
    checkWholeBlocks(method, size);
    if (size != 0)
        decryptBlocks(*m_engine->platform, source, size, key.getData(), iv.getData(), out);
}

} // namespace sigil
