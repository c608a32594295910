#include "lum/CStringFormat.h"

#include "lum/TextFunctions.h"

#include <algorithm>
#include <charconv>

namespace lum {

namespace {

/// A place for a number in a format; `end` is behind it, and 0 where there is none.
struct CPlace {
    int end = 0;
    bool hasZeros = false;
    int width = 0;
    bool isHex = false;
};

bool isDigit(wchar_t c) noexcept {
    return c >= L'0' && c <= L'9';
}

/// Reads the place that begins with the "%" at `start`.
CPlace readPlace(const String& format, int start) noexcept {
    CPlace place;
    int i = start + 1;
    place.hasZeros = format[i] == L'0';
    for (int digits = 0; digits < 2 + (place.hasZeros ? 1 : 0) && isDigit(format[i]); ++digits, ++i)
        place.width = 10 * place.width + (format[i] - L'0');
    place.isHex = format[i] == L'x';
    if (place.isHex || format[i] == L'd')
        place.end = i + 1;
    return place;
}

String formatNumber(const CPlace& place, int64 value) {
    const bool isNegative = value < 0 && !place.isHex;
    const auto bits = static_cast<uint64>(value);
    char digits[20]; // those of 2^64 - 1
    const auto end =
        std::to_chars(digits, digits + sizeof digits, isNegative ? 0 - bits : bits, place.isHex ? 16 : 10);
    const String number(digits, static_cast<int>(end.ptr - digits));
    const int padding = std::max(0, place.width - number.getLength() - (isNegative ? 1 : 0));
    const String fill(std::wstring(static_cast<std::size_t>(padding), place.hasZeros ? L'0' : L' '));
    const String sign = isNegative ? "-" : "";
    return place.hasZeros ? sign + fill + number : fill + sign + number;
}

} // namespace

CStringFormat& CStringFormat::operator<<(int64 value) {
    int i = 0;
    while ((i = m_rest.Find(L'%', i)) >= 0) {
        if (m_rest[i + 1] == L'%') {
            i += 2;
            continue;
        }
        const CPlace place = readPlace(m_rest, i);
        if (place.end == 0) {
            ++i;
            continue;
        }
        String before = m_rest.Left(i);
        before.Replace("%%", "%");
        m_done += before + formatNumber(place, value);
        m_rest = m_rest.Mid(place.end);
        return *this;
    }
    return *this;
}

CStringFormat::operator String() const {
    String rest = m_rest;
    rest.Replace("%%", "%");
    return m_done + rest;
}

} // namespace lum
