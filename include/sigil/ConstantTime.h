#pragma once

#include "lum/export.h"

#include <cstddef>

namespace sigil {

/// True when `size` bytes are equal. The time taken tells nothing of where they differ.
TESSEL_EXPORT bool isEqualInConstantTime(const void* a, const void* b, std::size_t size) noexcept;

} // namespace sigil
