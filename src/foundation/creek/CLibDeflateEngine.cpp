#include "foundation/creek/CLibDeflateEngine.h"

#include "lum/TextFunctions.h"

#include <libdeflate.h>

#include <new>

namespace creek {

CLibDeflateEngine::CLibDeflateEngine(int level)
    : m_level(level), m_compressor(libdeflate_alloc_compressor(level)) {
    if (!m_compressor)
        throw std::bad_alloc();
}

CLibDeflateEngine::~CLibDeflateEngine() {
    libdeflate_free_compressor(m_compressor);
}

lum::String CLibDeflateEngine::getDesc() const {
    return lum::String("libdeflate zlib level ") + lum::toDecimal(m_level);
}

lum::uint64 CLibDeflateEngine::getBound(int sourceSize) const {
    return libdeflate_zlib_compress_bound(m_compressor, static_cast<std::size_t>(sourceSize));
}

int CLibDeflateEngine::compress(const unsigned char* source, int sourceSize, unsigned char* dest,
                                int destCapacity) {
    const std::size_t size =
        libdeflate_zlib_compress(m_compressor, source, static_cast<std::size_t>(sourceSize), dest,
                                 static_cast<std::size_t>(destCapacity));
    return size != 0 ? static_cast<int>(size) : -1;
}

} // namespace creek
