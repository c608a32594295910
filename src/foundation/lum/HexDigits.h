#pragma once

namespace lum {

inline constexpr const char* lowerHexDigits = "0123456789abcdef";
inline constexpr const char* upperHexDigits = "0123456789ABCDEF";

/// The value of a hexadecimal digit of either case; -1 for any other character.
constexpr int hexDigitValue(wchar_t c) noexcept {
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    if (c >= L'a' && c <= L'f')
        return c - L'a' + 10;
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10;
    return -1;
}

} // namespace lum
