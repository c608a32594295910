#pragma once

#include "foundation/creek/IDeflateEngine.h"

struct libdeflate_compressor;

namespace creek {

/// Levels 1 to 9 through libdeflate.
class CLibDeflateEngine : public IDeflateEngine {
public:
    explicit CLibDeflateEngine(int level);
    ~CLibDeflateEngine() override;

    lum::String getDesc() const override;
    lum::uint64 getBound(int sourceSize) const override;
    int compress(const unsigned char* source, int sourceSize, unsigned char* dest, int destCapacity) override;

private:
    int m_level;
    libdeflate_compressor* m_compressor;
};

} // namespace creek
