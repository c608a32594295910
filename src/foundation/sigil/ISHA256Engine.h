#pragma once

#include <cstddef>
#include <memory>

namespace sigil {

/// SHA-256 of one message as the platform offers it.
class ISHA256Engine {
public:
    static constexpr int digestSize = 32;

    ISHA256Engine() = default;
    ISHA256Engine(const ISHA256Engine&) = delete;
    ISHA256Engine& operator=(const ISHA256Engine&) = delete;
    virtual ~ISHA256Engine() = default;

    /// Throws: lum::CError when the engine fails.
    virtual void update(const void* data, std::size_t size) = 0;
    /// Ends the message and fills `digest`. Throws: lum::CError when the engine fails.
    virtual void finish(unsigned char* digest) = 0;
};

/// A new message. Throws: lum::CError when the platform has no such digest.
std::unique_ptr<ISHA256Engine> createSHA256Engine();

} // namespace sigil
