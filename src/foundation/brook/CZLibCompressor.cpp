#include "brook/CZLibCompressor.h"

#include "foundation/lum/CompressorSupport.h"
#include "lum/CInvalidArgError.h"
#include "lum/TextFunctions.h"

#define ZLIB_CONST
#include <zlib.h>

#include <new>

namespace brook {

using lum::CError;
using lum::CInvalidArgError;
using lum::CProps;

namespace {

/// Throws when zlib was not able to work at all, which says nothing about the data.
void checkZLib(int result, const char* function) {
    if (result == Z_MEM_ERROR)
        throw std::bad_alloc();
    if (result < 0 && result != Z_BUF_ERROR && result != Z_DATA_ERROR)
        throw CError("zlib failed.", lum::String(), -1,
                     CProps().add("function", function).add("result", result));
}

class CDeflater {
public:
    explicit CDeflater(int level) { checkZLib(deflateInit(&m_stream, level), "deflateInit"); }
    ~CDeflater() { deflateEnd(&m_stream); }
    CDeflater(const CDeflater&) = delete;
    CDeflater& operator=(const CDeflater&) = delete;

    lum::uint64 getBound(int sourceSize) { return deflateBound(&m_stream, static_cast<uLong>(sourceSize)); }

    /// The stream's size, or -1 when it does not fit.
    int run(const void* source, int sourceSize, void* dest, int destCapacity) {
        m_stream.next_in = lum::orNothing(source);
        m_stream.avail_in = static_cast<uInt>(sourceSize);
        Bytef nothing = 0;
        m_stream.next_out = dest ? static_cast<Bytef*>(dest) : &nothing;
        m_stream.avail_out = static_cast<uInt>(destCapacity);
        const int result = deflate(&m_stream, Z_FINISH);
        const int produced = destCapacity - static_cast<int>(m_stream.avail_out);
        // Afterwards rather than before: the bound depends on what the stream has behind it.
        checkZLib(deflateReset(&m_stream), "deflateReset");
        checkZLib(result, "deflate");
        return result == Z_STREAM_END ? produced : -1;
    }

private:
    z_stream m_stream{};
};

class CInflater {
public:
    CInflater() { checkZLib(inflateInit(&m_stream), "inflateInit"); }
    ~CInflater() { inflateEnd(&m_stream); }
    CInflater(const CInflater&) = delete;
    CInflater& operator=(const CInflater&) = delete;

    /// The size produced.
    int run(const void* source, int sourceSize, void* dest, int destCapacity) {
        checkZLib(inflateReset(&m_stream), "inflateReset");
        m_stream.next_in = lum::orNothing(source);
        m_stream.avail_in = static_cast<uInt>(sourceSize);
        Bytef nothing = 0;
        m_stream.next_out = dest ? static_cast<Bytef*>(dest) : &nothing;
        m_stream.avail_out = static_cast<uInt>(destCapacity);
        const int result = inflate(&m_stream, Z_FINISH);
        checkZLib(result, "inflate");
        if (result == Z_STREAM_END)
            return destCapacity - static_cast<int>(m_stream.avail_out);
        // A stream that asks for a dictionary (Z_NEED_DICT) is none of ours either.
        if (result == Z_BUF_ERROR && m_stream.avail_out == 0 && m_stream.avail_in != 0)
            lum::throwStreamTooLarge(sourceSize, destCapacity);
        lum::throwDamagedStream(sourceSize);
    }

private:
    z_stream m_stream{};
};

int checkLevel(int level) {
    if (level < 0 || level > 9)
        throw CInvalidArgError("CZLibCompressor constructor", "The level must be 0 to 9.",
                               CProps().add("level", level));
    return level;
}

} // namespace

struct CZLibCompressor::Engine {
    explicit Engine(int l) : level(checkLevel(l)), deflater(level) {}

    int level;
    CDeflater deflater;
    CInflater inflater;
};

CZLibCompressor::CZLibCompressor(int level) : m_engine(std::make_unique<Engine>(level)) {}

CZLibCompressor::~CZLibCompressor() = default;

lum::String CZLibCompressor::getInternalDesc() {
    return lum::String("zlib level ") + lum::toDecimal(m_engine->level);
}

int CZLibCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    static constexpr const char* method = "CZLibCompressor::getCompressedSizeUpperBound";
    lum::checkBoundArgument(method, sourceSize);
    return lum::toBoundResult(method, m_engine->deflater.getBound(sourceSize));
}

int CZLibCompressor::compressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) {
    lum::checkCompressorArguments("CZLibCompressor::compressSingleStep", source, sourceSize, dest,
                                  destCapacity);
    return m_engine->deflater.run(source, sourceSize, dest, destCapacity);
}

int CZLibCompressor::decompressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) {
    lum::checkCompressorArguments("CZLibCompressor::decompressSingleStep", source, sourceSize, dest,
                                  destCapacity);
    return m_engine->inflater.run(source, sourceSize, dest, destCapacity);
}

} // namespace brook
