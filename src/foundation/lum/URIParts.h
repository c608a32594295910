#pragma once

#include "foundation/lum/PercentEncoding.h"

#include <string_view>

/// What stands in the parts of a URI, and the ways to write a part.
namespace lum::uripart {

// What each part holds without escapes: RFC 3986 sections 3.2 to 3.5.

constexpr bool isSubDelimiter(char32_t c) noexcept {
    return c < 0x80 && std::string_view("!$&'()*+,;=").find(static_cast<char>(c)) != std::string_view::npos;
}

constexpr bool isHostCharacter(char32_t c) noexcept {
    return percent::isUnreserved(c) || isSubDelimiter(c);
}

constexpr bool isUserInfoCharacter(char32_t c) noexcept {
    return isHostCharacter(c) || c == U':';
}

/// The characters of one name of a path.
constexpr bool isNameCharacter(char32_t c) noexcept {
    return isUserInfoCharacter(c) || c == U'@';
}

constexpr bool isPathCharacter(char32_t c) noexcept {
    return isNameCharacter(c) || c == U'/';
}

/// The characters of a query and of a fragment.
constexpr bool isQueryCharacter(char32_t c) noexcept {
    return isPathCharacter(c) || c == U'?';
}

/// An address in brackets (RFC 3986 section 3.2.2), which has no escapes.
bool isIPLiteral(const String& host) noexcept;

/// Letters outside ASCII stay as they are.
String toLowerAscii(const String& text);

/// The normal form of a part: escapes of the characters in `undone` are undone, what is not in `allowed`
/// is escaped, and all escapes have upper-case digits.
/// Requires: `allowed` has what `undone` has.
String normalize(const String& text, percent::CharacterClass undone, percent::CharacterClass allowed);
String normalizeHost(const String& host);

/// The part as people read it: without escapes but for what is no text or cannot be seen, be it escaped in
/// the part or not.
String toReadable(const String& text);

} // namespace lum::uripart
