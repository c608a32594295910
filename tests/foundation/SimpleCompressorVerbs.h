#pragma once

#include "SampleData.h"
#include "lum/ISimpleCompressor.h"

#include <gtest/gtest.h>

namespace tessel::test {

/// The stream that a compressor makes of the bytes, given the room that it says is enough.
inline Bytes compress(lum::ISimpleCompressor& compressor, const Bytes& source) {
    const int sourceSize = static_cast<int>(source.size());
    Bytes stream(static_cast<std::size_t>(compressor.getCompressedSizeUpperBound(sourceSize)));
    const int size = compressor.compressSingleStep(source.data(), sourceSize, stream.data(),
                                                   static_cast<int>(stream.size()));
    if (size < 0 || size > static_cast<int>(stream.size())) {
        ADD_FAILURE() << "the bound was no bound: " << sourceSize << " bytes gave " << size;
        return {};
    }
    stream.resize(static_cast<std::size_t>(size));
    return stream;
}

/// What a stream holds, with room for `capacity` bytes (in memory of exactly that size).
inline Bytes decompress(lum::ISimpleCompressor& compressor, const Bytes& stream, int capacity) {
    Bytes bytes(static_cast<std::size_t>(capacity));
    const int size = compressor.decompressSingleStep(stream.data(), static_cast<int>(stream.size()),
                                                     bytes.data(), capacity);
    if (size < 0 || size > capacity) {
        ADD_FAILURE() << "an impossible size: " << size;
        return {};
    }
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
}

} // namespace tessel::test
