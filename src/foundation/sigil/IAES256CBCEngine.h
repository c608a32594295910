#pragma once

#include <memory>

namespace sigil {

/// AES-256 in CBC mode as the platform offers it: whole blocks, no padding, state kept between messages.
class IAES256CBCEngine {
public:
    enum class Direction { Encrypt, Decrypt };

    static constexpr int keySize = 32;
    static constexpr int blockSize = 16; // the IV's as well

    IAES256CBCEngine() = default;
    IAES256CBCEngine(const IAES256CBCEngine&) = delete;
    IAES256CBCEngine& operator=(const IAES256CBCEngine&) = delete;
    virtual ~IAES256CBCEngine() = default;

    /// Begins a message. Throws: lum::CError when the engine fails.
    virtual void start(Direction direction, const unsigned char* key, const unsigned char* iv) = 0;

    /// Goes on with the message: turns `size` bytes into as many at `dest`.
    /// Throws: lum::CError when the engine fails.
    /// Requires: start() was called; size is a positive multiple of the block's.
    virtual void process(const unsigned char* source, int size, unsigned char* dest) = 0;
};

/// The platform's engine. Throws: lum::CError when there is none.
std::unique_ptr<IAES256CBCEngine> createAES256CBCEngine();

} // namespace sigil
