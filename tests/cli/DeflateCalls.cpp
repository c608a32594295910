// The program's own definitions of the engines' functions come before those of the shared libraries, also for
// the library that calls them, where symbols are looked up by name at run time as ELF systems do.

#include "DeflateCalls.h"

#include <libdeflate.h>
#include <zlib.h>

#include <dlfcn.h>

#ifdef TESSEL_HAVE_ISAL
#include <isa-l/igzip_lib.h>
#endif

#include <atomic>
#include <stdexcept>
#include <string>

namespace {

std::atomic<long> g_deflated = 0;
std::atomic<long> g_inflated = 0;
std::atomic<long> g_made = 0;

template <class Function>
Function* findReal(const char* name) {
    auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
    if (!real)
        throw std::runtime_error(std::string("The engine's own ") + name + "() is not to be found.");
    return real;
}

} // namespace

size_t libdeflate_zlib_compress(libdeflate_compressor* compressor, const void* in, size_t inSize, void* out,
                                size_t outSize) {
    static auto* const real = findReal<decltype(libdeflate_zlib_compress)>("libdeflate_zlib_compress");
    ++g_deflated;
    return real(compressor, in, inSize, out, outSize);
}

libdeflate_result libdeflate_zlib_decompress_ex(libdeflate_decompressor* decompressor, const void* in,
                                                size_t inSize, void* out, size_t outSize, size_t* inUsed,
                                                size_t* outUsed) {
    static auto* const real =
        findReal<decltype(libdeflate_zlib_decompress_ex)>("libdeflate_zlib_decompress_ex");
    ++g_inflated;
    return real(decompressor, in, inSize, out, outSize, inUsed, outUsed);
}

int deflate(z_streamp stream, int flush) {
    static auto* const real = findReal<decltype(deflate)>("deflate");
    ++g_deflated;
    return real(stream, flush);
}

int inflate(z_streamp stream, int flush) {
    static auto* const real = findReal<decltype(inflate)>("inflate");
    ++g_inflated;
    return real(stream, flush);
}

libdeflate_compressor* libdeflate_alloc_compressor(int level) {
    static auto* const real = findReal<decltype(libdeflate_alloc_compressor)>("libdeflate_alloc_compressor");
    ++g_made;
    return real(level);
}

libdeflate_decompressor* libdeflate_alloc_decompressor() {
    static auto* const real =
        findReal<decltype(libdeflate_alloc_decompressor)>("libdeflate_alloc_decompressor");
    ++g_made;
    return real();
}

int deflateInit_(z_streamp stream, int level, const char* version, int size) {
    static auto* const real = findReal<decltype(deflateInit_)>("deflateInit_");
    ++g_made;
    return real(stream, level, version, size);
}

int inflateInit_(z_streamp stream, const char* version, int size) {
    static auto* const real = findReal<decltype(inflateInit_)>("inflateInit_");
    ++g_made;
    return real(stream, version, size);
}

#ifdef TESSEL_HAVE_ISAL
int isal_deflate(isal_zstream* stream) {
    static auto* const real = findReal<decltype(isal_deflate)>("isal_deflate");
    ++g_deflated;
    return real(stream);
}

int isal_deflate_stateless(isal_zstream* stream) {
    static auto* const real = findReal<decltype(isal_deflate_stateless)>("isal_deflate_stateless");
    ++g_deflated;
    return real(stream);
}
#endif

namespace tessel::test {

UDeflateCalls countDeflateCalls() {
    return {g_deflated, g_inflated, g_made};
}

} // namespace tessel::test
