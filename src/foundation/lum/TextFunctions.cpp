#include "lum/TextFunctions.h"

#include "foundation/lum/HexDigits.h"
#include "lum/CError.h"

#include <optional>

namespace lum {

namespace {

std::optional<int64> readDecimal(const String& text) noexcept {
    const bool isNegative = text[0] == L'-';
    const int start = isNegative || text[0] == L'+' ? 1 : 0;
    const uint64 limit = isNegative ? uint64(INT64_MAX) + 1 : uint64(INT64_MAX);
    if (start == text.getLength())
        return std::nullopt;
    uint64 value = 0;
    for (int i = start; i < text.getLength(); ++i) {
        if (text[i] < L'0' || text[i] > L'9')
            return std::nullopt;
        const auto digit = static_cast<uint64>(text[i] - L'0');
        if (value > (limit - digit) / 10)
            return std::nullopt;
        value = 10 * value + digit;
    }
    return static_cast<int64>(isNegative ? 0 - value : value);
}

std::optional<int64> readHex(const String& text) noexcept {
    if (text.isEmpty() || text.getLength() > 16)
        return std::nullopt;
    uint64 value = 0;
    for (const wchar_t c : text.getWideString()) {
        const int digit = hexDigitValue(c);
        if (digit < 0)
            return std::nullopt;
        value = (value << 4) | static_cast<uint64>(digit);
    }
    return static_cast<int64>(value);
}

int64 orZero(const std::optional<int64>& number, const String& text, bool strict) {
    if (!number && strict)
        throw CError("Not a number: " + text, String(), -1, CProps().add("text", text));
    return number.value_or(0);
}

} // namespace

int64 parseInt64(const String& text, bool strict) {
    return orZero(readDecimal(text), text, strict);
}

int64 parseHexInt64(const String& text, bool strict) {
    return orZero(readHex(text), text, strict);
}

bool parseBool(const String& text) {
    const String word = text.Lower();
    if (word == "true" || word == "yes" || word == "on" || word == "1")
        return true;
    if (word == "false" || word == "no" || word == "off" || word == "0" || word.isEmpty())
        return false;
    throw CError("Not a truth value: " + text, String(), -1, CProps().add("text", text));
}

String toHexString(unsigned int value) {
    String result;
    for (int shift = 28; shift >= 0; shift -= 4)
        result += static_cast<wchar_t>(lowerHexDigits[(value >> shift) & 0xF]);
    return result;
}

String toText(bool value) {
    return value ? "true" : "false";
}

String hexEncode(const TBuffer<unsigned char>& bytes, bool upperCase) {
    const char* const digits = upperCase ? upperHexDigits : lowerHexDigits;
    String result;
    for (int64 i = 0; i < bytes.getUsed(); ++i) {
        result += static_cast<wchar_t>(digits[bytes[i] >> 4]);
        result += static_cast<wchar_t>(digits[bytes[i] & 0xF]);
    }
    return result;
}

void hexDecode(const String& text, TBuffer<unsigned char>& bytes) {
    const auto fail = [&](int position) {
        bytes.setUsed(0);
        throw CError("Invalid hexadecimal text", String(), -1, CProps().add("position", position));
    };
    if (text.getLength() % 2 != 0)
        fail(text.getLength());
    bytes.setUsed(text.getLength() / 2);
    for (int i = 0; i < text.getLength(); i += 2) {
        const int high = hexDigitValue(text[i]);
        const int low = hexDigitValue(text[i + 1]);
        if (high < 0 || low < 0)
            fail(high < 0 ? i : i + 1);
        bytes[i / 2] = static_cast<unsigned char>(high << 4 | low);
    }
}

} // namespace lum
