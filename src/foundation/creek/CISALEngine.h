#pragma once

#include "foundation/creek/IDeflateEngine.h"

struct isal_zstream;

namespace creek {

/// Level 1 through ISA-L, the fastest there is on the processors that it knows.
class CISALEngine : public IDeflateEngine {
public:
    CISALEngine();
    ~CISALEngine() override;

    lum::String getDesc() const override;
    lum::uint64 getBound(int sourceSize) const override;
    /// Needs a few bytes of room more than the stream takes, unless there is room for the bound.
    int compress(const unsigned char* source, int sourceSize, unsigned char* dest, int destCapacity) override;

private:
    std::unique_ptr<isal_zstream> m_stream;
    std::unique_ptr<unsigned char[]> m_levelBuffer;
};

} // namespace creek
