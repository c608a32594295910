#include "sigil/ConstantTime.h"

namespace sigil {

bool isEqualInConstantTime(const void* a, const void* b, std::size_t size) noexcept {
    const auto* const left = static_cast<const volatile unsigned char*>(a);
    const auto* const right = static_cast<const volatile unsigned char*>(b);
    unsigned int difference = 0;
    for (std::size_t i = 0; i < size; ++i)
        difference |= static_cast<unsigned int>(left[i] ^ right[i]);
    return difference == 0;
}

} // namespace sigil
