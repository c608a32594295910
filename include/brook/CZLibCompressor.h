#pragma once

#include "lum/CBase.h"
#include "lum/ISimpleCompressor.h"

#include <memory>

/// Deflate through zlib.
namespace brook {

/// Makes and reads zlib streams (RFC 1950 around RFC 1951). Keeps its engine's state between calls;
/// one thread at a time.
class TESSEL_EXPORT CZLibCompressor : public lum::CBase, public lum::ISimpleCompressor {
public:
    /// `level`: 0 stores, 1 is fastest, 9 smallest.
    /// Throws: lum::CInvalidArgError for any other level.
    explicit CZLibCompressor(int level);
    CZLibCompressor(const CZLibCompressor&) = delete;
    CZLibCompressor& operator=(const CZLibCompressor&) = delete;
    ~CZLibCompressor() override;

    lum::String getInternalDesc() override;
    int getCompressedSizeUpperBound(int sourceSize) const override;
    int compressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) override;
    int decompressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) override;

private:
    struct Engine;
    std::unique_ptr<Engine> m_engine;
};

} // namespace brook
