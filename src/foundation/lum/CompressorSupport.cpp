#include "foundation/lum/CompressorSupport.h"

#include "lum/CIOError.h"
#include "lum/CInvalidArgError.h"

#include <climits>

namespace lum {

namespace {

void checkBytes(const char* method, const char* name, const void* bytes, int size) {
    if (size < 0)
        throw CInvalidArgError(method, "A size must not be negative.", CProps().add(name, size));
    if (!bytes && size > 0)
        throw CInvalidArgError(method, "Bytes must not be NULL.", CProps().add(name, size));
}

} // namespace

void checkCompressorArguments(const char* method, const void* source, int sourceSize, const void* dest,
                              int destCapacity) {
    checkBytes(method, "sourceSize", source, sourceSize);
    checkBytes(method, "destCapacity", dest, destCapacity);
}

void checkBoundArgument(const char* method, int sourceSize) {
    if (sourceSize < 0)
        throw CInvalidArgError(method, "A size must not be negative.",
                               CProps().add("sourceSize", sourceSize));
}

int toBoundResult(const char* method, uint64 bound) {
    if (bound > INT_MAX)
        throw CInvalidArgError(method, "The source is too large to be compressed at once.",
                               CProps().add("bound", bound));
    return static_cast<int>(bound);
}

void throwDamagedStream(int sourceSize) {
    throw CIOError(CIOError::Code_BadFormat, "Compressed data are damaged or cut short.",
                   CProps().add("compressedSize", sourceSize));
}

void throwStreamTooLarge(int sourceSize, int destCapacity) {
    throw CIOError(CIOError::Code_BadFormat, "Compressed data hold more than they may.",
                   CProps().add("compressedSize", sourceSize).add("maximum", destCapacity));
}

} // namespace lum
