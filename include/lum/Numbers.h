#pragma once

#include "lum/export.h"
#include "lum/types.h"

#include <cstddef>

namespace lum {

/// ceil(value / unit). Requires: value >= 0, unit > 0. Cannot overflow.
constexpr int64 divideRoundingUp(int64 value, int64 unit) noexcept {
    return value / unit + (value % unit != 0 ? 1 : 0);
}

/// The smallest multiple of `unit` that is not below `value`.
/// Requires: value >= 0, unit > 0, and the result fits 64 bits.
constexpr int64 roundUp(int64 value, int64 unit) noexcept {
    return divideRoundingUp(value, unit) * unit;
}

/// a + b and a * b; false, with `result` as it was, when that does not fit a signed 64-bit number.
constexpr bool tryAdd(int64 a, int64 b, int64& result) noexcept {
    if (b > 0 ? a > INT64_MAX - b : a < INT64_MIN - b)
        return false;
    result = a + b;
    return true;
}

/// Requires: a >= 0, b >= 0.
constexpr bool tryMultiply(int64 a, int64 b, int64& result) noexcept {
    if (a != 0 && b > INT64_MAX / a)
        return false;
    result = a * b;
    return true;
}

/// True when all `size` bytes are 0 (so too for none).
TESSEL_EXPORT bool isZeroMemory(const void* memory, std::size_t size) noexcept;

} // namespace lum
