#pragma once

#include "lum/String.h"
#include "lum/TBuffer.h"

#include <concepts>
#include <string>

namespace lum {

/// A whole decimal number with an optional sign, nothing before or behind it.
/// With `strict` false anything else, and any value outside 64 bits, gives 0.
/// Throws: CError with `strict` true, with the parameter "text".
TESSEL_EXPORT int64 parseInt64(const String& text, bool strict);

/// The same for hexadecimal digits of either case, without a prefix or a sign; up to 16 digits, of
/// which the bits are taken as they stand.
TESSEL_EXPORT int64 parseHexInt64(const String& text, bool strict);

/// True for "true", "yes", "on" and "1" in any case, false for "false", "no", "off", "0" and "".
/// Throws: CError for any other text, with the parameter "text".
TESSEL_EXPORT bool parseBool(const String& text);

/// 8 lower-case hexadecimal digits.
TESSEL_EXPORT String toHexString(unsigned int value);

/// The number in decimal digits, with "-" in front when it is negative.
template <std::integral T>
requires(!std::same_as<T, bool>) String toDecimal(T value) {
    return String(std::to_string(value).c_str());
}

/// "true" or "false".
TESSEL_EXPORT String toText(bool value);

/// Two hexadecimal digits a byte, lower case unless `upperCase`.
TESSEL_EXPORT String hexEncode(const TBuffer<unsigned char>& bytes, bool upperCase);

/// The bytes that `text` spells, two digits of either case each; replaces what `bytes` held.
/// Throws: CError on an odd number of digits or a character that is none, with the parameter
/// "position" (in `text`); `bytes` is then empty.
TESSEL_EXPORT void hexDecode(const String& text, TBuffer<unsigned char>& bytes);

} // namespace lum
