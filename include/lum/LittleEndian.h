#pragma once

#include "lum/types.h"

#include <concepts>

namespace lum {

/// The little-endian unsigned number at `bytes`. No alignment is needed.
template <std::unsigned_integral T>
constexpr T loadLittleEndian(const unsigned char* bytes) noexcept {
    uint64 value = 0;
    for (unsigned i = 0; i < sizeof(T); ++i)
        value |= static_cast<uint64>(bytes[i]) << (8 * i);
    return static_cast<T>(value);
}

/// Puts a number at `bytes`, little-endian.
template <std::unsigned_integral T>
constexpr void storeLittleEndian(unsigned char* bytes, T value) noexcept {
    for (unsigned i = 0; i < sizeof(T); ++i)
        bytes[i] = static_cast<unsigned char>(static_cast<uint64>(value) >> (8 * i));
}

} // namespace lum
