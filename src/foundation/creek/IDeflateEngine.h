#pragma once

#include "lum/String.h"
#include "lum/types.h"

#include <memory>

namespace creek {

/// Something that makes whole zlib streams at one level, its state kept between calls.
class IDeflateEngine {
public:
    IDeflateEngine() = default;
    IDeflateEngine(const IDeflateEngine&) = delete;
    IDeflateEngine& operator=(const IDeflateEngine&) = delete;
    virtual ~IDeflateEngine() = default;

    virtual lum::String getDesc() const = 0;
    /// No stream of `sourceSize` bytes is larger, and whatever has room for as much is large enough.
    virtual lum::uint64 getBound(int sourceSize) const = 0;
    /// The stream's size, or -1 when it does not fit. No pointer is null.
    /// Throws: lum::CError when the engine fails.
    virtual int compress(const unsigned char* source, int sourceSize, unsigned char* dest,
                         int destCapacity) = 0;
};

} // namespace creek
