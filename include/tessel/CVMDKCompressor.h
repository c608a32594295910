#pragma once

#include "lum/CBase.h"
#include "lum/ISimpleCompressor.h"
#include "tessel/types.h"

namespace tessel {

/// The deflate compressor of grains (zlib streams, RFC 1950): a fast one, and a reference compressor
/// that takes over where the fast one fails or its output would not fit. One thread at a time.
class TESSEL_EXPORT CVMDKCompressor : public CBase, public ISimpleCompressor {
public:
    /// `level`: -1 means 1; 0 stores through the reference compressor alone; 1 is fastest, 9 smallest.
    /// Throws: CInvalidArgError for any other level.
    explicit CVMDKCompressor(int level);

    /// "smart-" and what the main compressor says of itself.
    String getInternalDesc() override;
    /// The most that compressing can give; chosen so that a grain record of that size fills whole
    /// sectors.
    int getCompressedSizeUpperBound(int sourceSize) const override;
    /// Compresses the source as one whole stream and returns its size.
    /// Throws: what the reference compressor throws.
    int compressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) override;
    int decompressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) override;

    /// How many compressions the reference compressor had to do again.
    int64 getCompressFallbackCount() const noexcept { return m_fallbackCount; }

private:
    int m_level;
    P<ISimpleCompressor> m_main;
    P<ISimpleCompressor> m_reference;
    int64 m_fallbackCount = 0;
};

} // namespace tessel
