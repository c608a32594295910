#include "creek/CMiniZCompressor.h"

#include "foundation/creek/CLibDeflateEngine.h"
#include "foundation/lum/CompressorSupport.h"
#include "lum/CInvalidArgError.h"

#ifdef TESSEL_HAVE_ISAL
#include "foundation/creek/CISALEngine.h"
#endif

#include <libdeflate.h>

#include <new>

namespace creek {

namespace {

struct DecompressorDeleter {
    void operator()(libdeflate_decompressor* decompressor) const noexcept {
        libdeflate_free_decompressor(decompressor);
    }
};
using Decompressor = std::unique_ptr<libdeflate_decompressor, DecompressorDeleter>;

Decompressor createDecompressor() {
    Decompressor decompressor(libdeflate_alloc_decompressor());
    if (!decompressor)
        throw std::bad_alloc();
    return decompressor;
}

std::unique_ptr<IDeflateEngine> createEngine(int level) {
    if (level < 1 || level > 9)
        throw lum::CInvalidArgError("CMiniZCompressor constructor", "The level must be 1 to 9.",
                                    lum::CProps().add("level", level));
#ifdef TESSEL_HAVE_ISAL
    if (level == 1)
        return std::make_unique<CISALEngine>();
#endif
    return std::make_unique<CLibDeflateEngine>(level);
}

} // namespace

struct CMiniZCompressor::Engine {
    explicit Engine(int level) : deflater(createEngine(level)), decompressor(createDecompressor()) {}

    std::unique_ptr<IDeflateEngine> deflater;
    Decompressor decompressor;
};

CMiniZCompressor::CMiniZCompressor(int level) : m_engine(std::make_unique<Engine>(level)) {}

CMiniZCompressor::~CMiniZCompressor() = default;

lum::String CMiniZCompressor::getInternalDesc() {
    return m_engine->deflater->getDesc();
}

int CMiniZCompressor::getCompressedSizeUpperBound(int sourceSize) const {
    static constexpr const char* method = "CMiniZCompressor::getCompressedSizeUpperBound";
    lum::checkBoundArgument(method, sourceSize);
    return lum::toBoundResult(method, m_engine->deflater->getBound(sourceSize));
}

int CMiniZCompressor::compressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) {
    lum::checkCompressorArguments("CMiniZCompressor::compressSingleStep", source, sourceSize, dest,
                                  destCapacity);
    unsigned char nothing = 0;
    return m_engine->deflater->compress(lum::orNothing(source), sourceSize,
                                        dest ? static_cast<unsigned char*>(dest) : &nothing, destCapacity);
}

int CMiniZCompressor::decompressSingleStep(const void* source, int sourceSize, void* dest, int destCapacity) {
    lum::checkCompressorArguments("CMiniZCompressor::decompressSingleStep", source, sourceSize, dest,
                                  destCapacity);
    unsigned char nothing = 0;
    std::size_t consumed = 0; // asked for, so that bytes behind the stream's end are no fault
    std::size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(
        m_engine->decompressor.get(), lum::orNothing(source), static_cast<std::size_t>(sourceSize),
        dest ? dest : &nothing, static_cast<std::size_t>(destCapacity), &consumed, &produced);
    if (result == LIBDEFLATE_INSUFFICIENT_SPACE)
        lum::throwStreamTooLarge(sourceSize, destCapacity);
    if (result != LIBDEFLATE_SUCCESS)
        lum::throwDamagedStream(sourceSize);
    return static_cast<int>(produced);
}

} // namespace creek
