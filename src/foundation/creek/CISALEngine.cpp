#include "foundation/creek/CISALEngine.h"

#include "lum/CError.h"
#include "lum/Numbers.h"

#include <isa-l/igzip_lib.h>

#include <algorithm>

namespace creek {

namespace {

/// ISA-L numbers its levels on its own. Its 1 and 2 give, now and then, another stream of the same bytes when
/// the stream object lies at another address; its 3 does not, compresses better, and is still faster than any
/// other engine's first level.
constexpr int isalLevel = 3;
constexpr int levelBufferSize = ISAL_DEF_LVL3_DEFAULT;

} // namespace

CISALEngine::CISALEngine()
    : m_stream(std::make_unique<isal_zstream>()),
      m_levelBuffer(std::make_unique<unsigned char[]>(levelBufferSize)) {}

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
    m_stream->level = isalLevel;
    m_stream->level_buf = m_levelBuffer.get();
    m_stream->level_buf_size = levelBufferSize;
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
