#pragma once

#include "foundation/lum/HexDigits.h"
#include "foundation/lum/UTF8.h"
#include "lum/String.h"

#include <string>
#include <string_view>

/// The escapes of a URI (RFC 3986 section 2.1): "%" and two hexadecimal digits stand for one byte of
/// UTF-8. A "%" that begins no escape stands for itself.
namespace lum::percent {

/// One character of a text with escapes, or one escaped byte that belongs to none.
struct CPiece {
    std::wstring_view written; ///< as it stands in the text
    char32_t character = utf8::replacementCharacter;
    bool isEscaped = false;
    bool isCharacter = false; ///< false for bytes that are no UTF-8 and for surrogates without a pair
};

/// True for a character that a part of a URI may hold.
using CharacterClass = bool (*)(char32_t) noexcept;

constexpr bool isAsciiLetter(char32_t c) noexcept {
    return (c >= U'a' && c <= U'z') || (c >= U'A' && c <= U'Z');
}

constexpr bool isAsciiDigit(char32_t c) noexcept {
    return c >= U'0' && c <= U'9';
}

/// Characters that mean the same with and without an escape (RFC 3986 section 2.3).
constexpr bool isUnreserved(char32_t c) noexcept {
    return isAsciiLetter(c) || isAsciiDigit(c) || c == U'-' || c == U'.' || c == U'_' || c == U'~';
}

/// True when an escape begins at `position`.
inline bool isEscapeAt(std::wstring_view text, std::size_t position) noexcept {
    return text.size() - position >= 3 && text[position] == L'%' && hexDigitValue(text[position + 1]) >= 0 &&
           hexDigitValue(text[position + 2]) >= 0;
}

/// Reads what begins at `position` and moves behind it.
/// Requires: position < text.size().
inline CPiece readPiece(std::wstring_view text, std::size_t& position) {
    CPiece piece;
    const std::size_t start = position;
    if (isEscapeAt(text, start)) {
        piece.isEscaped = true;
        std::string bytes; // no character has more than 4
        for (std::size_t i = start; bytes.size() < 4 && i < text.size() && isEscapeAt(text, i); i += 3)
            bytes += static_cast<char>(hexDigitValue(text[i + 1]) << 4 | hexDigitValue(text[i + 2]));
        std::size_t length = 0;
        piece.isCharacter = utf8::readCharacter(bytes, length, piece.character);
        position += 3 * (piece.isCharacter ? length : 1);
    } else {
        piece.isCharacter = utf8::readCharacter(text, position, piece.character);
        position += piece.isCharacter ? 0 : 1;
    }
    piece.written = text.substr(start, position - start);
    return piece;
}

/// Calls `visit(const CPiece&)` for each piece of the text.
template <class Visitor>
void forEachPiece(const String& text, Visitor visit) {
    const std::wstring_view all = text.getWideString();
    for (std::size_t position = 0; position < all.size();)
        visit(readPiece(all, position));
}

/// Adds the escapes of one character.
/// Requires: utf8::isScalarValue(character).
inline void appendEscaped(std::wstring& target, char32_t character) {
    std::string bytes;
    utf8::appendCharacter(bytes, character);
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        target += L'%';
        target += static_cast<wchar_t>(upperHexDigits[value >> 4]);
        target += static_cast<wchar_t>(upperHexDigits[value & 0xF]);
    }
}

/// Adds a piece that is no escape, as it is when `allowed` has it and else escaped. What is no character
/// becomes the escapes of U+FFFD.
inline void appendUnescapedPiece(std::wstring& target, const CPiece& piece, CharacterClass allowed) {
    if (piece.isCharacter && allowed(piece.character))
        target += piece.written;
    else
        appendEscaped(target, piece.character);
}

/// Undoes the escapes of the characters that are in `undone`; other escapes stay.
inline String unescape(const String& text, CharacterClass undone) {
    std::wstring result;
    forEachPiece(text, [&](const CPiece& piece) {
        if (piece.isEscaped && piece.isCharacter && undone(piece.character))
            utf8::appendCharacter(result, piece.character);
        else
            result += piece.written;
    });
    return String(std::move(result));
}

/// Undoes every escape that is part of a character.
inline String unescape(const String& text) {
    return unescape(text, [](char32_t) noexcept { return true; });
}

/// Escapes the characters that are not in `allowed`, a "%" that begins no escape included. Escapes that
/// are there stay.
inline String escape(const String& text, CharacterClass allowed) {
    std::wstring result;
    forEachPiece(text, [&](const CPiece& piece) {
        if (piece.isEscaped)
            result += piece.written;
        else
            appendUnescapedPiece(result, piece, allowed);
    });
    return String(std::move(result));
}

} // namespace lum::percent
