#include "foundation/creek/CISALEngine.h"

#include "lum/CError.h"
#include "lum/Numbers.h"

#include <isa-l/igzip_lib.h>

#include <algorithm>

namespace creek {

CISALEngine::CISALEngine()
    : m_stream(std::make_unique<isal_zstream>()),
      m_levelBuffer(std::make_unique<unsigned char[]>(ISAL_DEF_LVL1_DEFAULT)) {}

CISALEngine::~CISALEngine() = default;

lum::String CISALEngine::getDesc() const {
    return "isa-l zlib level 1";
}

lum::uint64 CISALEngine::getBound(int sourceSize) const {
    // Data that do not get smaller are stored: RFC 1951 section 3.2.4 in the frame of RFC 1950.
    constexpr int largestBlock = 65535;
    constexpr int blockHeadSize = 5;
    constexpr int frameSize = 2 + 4;
    const auto blocks = std::max<lum::int64>(1, lum::divideRoundingUp(sourceSize, largestBlock));
    return static_cast<lum::uint64>(sourceSize + blocks * blockHeadSize + frameSize);
}

int CISALEngine::compress(const unsigned char* source, int sourceSize, unsigned char* dest,
                          int destCapacity) {
    isal_deflate_stateless_init(m_stream.get());
    m_stream->level = 1;
    m_stream->level_buf = m_levelBuffer.get();
    m_stream->level_buf_size = ISAL_DEF_LVL1_DEFAULT;
    m_stream->gzip_flag = IGZIP_ZLIB;
    m_stream->end_of_stream = 1;
    m_stream->next_in = const_cast<unsigned char*>(source); // only read
    m_stream->avail_in = static_cast<unsigned int>(sourceSize);
    m_stream->next_out = dest;
    // No room beyond the bound: then no release of the engine can go beyond it.
    m_stream->avail_out =
        static_cast<unsigned int>(std::min(static_cast<lum::uint64>(destCapacity), getBound(sourceSize)));

    const int result = isal_deflate_stateless(m_stream.get());
    if (result == STATELESS_OVERFLOW)
        return -1;
    if (result != COMP_OK)
        throw lum::CError("ISA-L failed.", lum::String(), -1, lum::CProps().add("result", result));
    return static_cast<int>(m_stream->total_out);
}

} // namespace creek
