#pragma once

#include "lum/types.h"

namespace lum {

/// What all compressors have in common. `method` names the class and method in errors.

/// Throws: CInvalidArgError for a negative size, or a null pointer where there are bytes.
void checkCompressorArguments(const char* method, const void* source, int sourceSize, const void* dest,
                              int destCapacity);

/// A bound as the interface gives it.
/// Throws: CInvalidArgError when it is more than an int can say.
int toBoundResult(const char* method, uint64 bound);

/// Throws: CInvalidArgError for a negative size.
void checkBoundArgument(const char* method, int sourceSize);

/// `bytes`, or the address of a byte that is not used where that is null: engines do not like null
/// pointers, not even to nothing.
inline const unsigned char* orNothing(const void* bytes) noexcept {
    static constexpr unsigned char nothing = 0;
    return bytes ? static_cast<const unsigned char*>(bytes) : &nothing;
}

/// Throws: CIOError 5 for a stream that is damaged or ends too early.
[[noreturn]] void throwDamagedStream(int sourceSize);

/// Throws: CIOError 5 for a stream that gives more than there is room for.
[[noreturn]] void throwStreamTooLarge(int sourceSize, int destCapacity);

} // namespace lum
