#include "foundation/lum/SingleLine.h"

namespace lum {

namespace {

bool isBreakOrTab(wchar_t c) noexcept {
    return (c >= L'\t' && c <= L'\r') || c == L'\x85' || c == L'\x2028' || c == L'\x2029';
}

bool isControl(wchar_t c) noexcept {
    return static_cast<char32_t>(c) < U' ' || (c >= L'\x7f' && c <= L'\x9f');
}

/// Marks that reorder what follows them, with which a file's name could disguise the rest of a line.
bool isDirectional(wchar_t c) noexcept {
    return c == L'\x200e' || c == L'\x200f' || c == L'\x61c' || (c >= L'\x202a' && c <= L'\x202e') ||
           (c >= L'\x2066' && c <= L'\x2069');
}

} // namespace

String toSingleLine(const String& text) {
    std::wstring line = text.getWideString();
    for (wchar_t& c : line) {
        if (isBreakOrTab(c))
            c = L' ';
        else if (isControl(c) || isDirectional(c))
            c = L'\xfffd';
    }
    return String(std::move(line));
}

} // namespace lum
