#include "foundation/lum/URIParts.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace lum::uripart {

namespace {

/// False for control characters, and for marks that break a line or turn the direction of writing, with
/// which a name could disguise what follows it.
bool isPrintable(char32_t c) noexcept {
    const bool isControl = c < 0x20 || (c >= 0x7F && c < 0xA0);
    const bool isBreak = c == 0x2028 || c == 0x2029;
    const bool isDirection = c == 0x61C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) ||
                             (c >= 0x2066 && c <= 0x2069);
    return !isControl && !isBreak && !isDirection;
}

wchar_t lowerAscii(wchar_t c) noexcept {
    return c >= L'A' && c <= L'Z' ? static_cast<wchar_t>(c + 0x20) : c;
}

wchar_t upperAscii(wchar_t c) noexcept {
    return c >= L'a' && c <= L'z' ? static_cast<wchar_t>(c - 0x20) : c;
}

} // namespace

bool isIPLiteral(const String& host) noexcept {
    const std::wstring& text = host.getWideString();
    const auto isAddressCharacter = [](wchar_t c) { return isUserInfoCharacter(static_cast<char32_t>(c)); };
    return text.size() > 2 && text.front() == L'[' && text.back() == L']' &&
           std::all_of(text.begin() + 1, text.end() - 1, isAddressCharacter);
}

String toLowerAscii(const String& text) {
    std::wstring result = text.getWideString();
    std::transform(result.begin(), result.end(), result.begin(), lowerAscii);
    return String(std::move(result));
}

String normalize(const String& text, percent::CharacterClass undone, percent::CharacterClass allowed) {
    std::wstring result;
    percent::forEachPiece(text, [&](const percent::CPiece& piece) {
        if (!piece.isEscaped)
            percent::appendUnescapedPiece(result, piece, allowed);
        else if (piece.isCharacter && undone(piece.character))
            utf8::appendCharacter(result, piece.character);
        else
            std::transform(piece.written.begin(), piece.written.end(), std::back_inserter(result),
                           upperAscii);
    });
    return String(std::move(result));
}

String normalizeHost(const String& host) {
    if (isIPLiteral(host))
        return toLowerAscii(host);
    std::wstring result;
    percent::forEachPiece(normalize(host, percent::isUnreserved, isHostCharacter),
                          [&](const percent::CPiece& piece) {
                              if (piece.isEscaped)
                                  result += piece.written;
                              else
                                  result += lowerAscii(piece.written.front());
                          });
    return String(std::move(result));
}

String toReadable(const String& text) {
    return percent::escape(percent::unescape(text, isPrintable), isPrintable);
}

} // namespace lum::uripart
