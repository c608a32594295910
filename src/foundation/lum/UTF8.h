#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Conversion between UTF-8 (RFC 3629) and wide text. `Unit` is the wide text's character: with 16 bits
/// the text is UTF-16, with 32 bits it is UTF-32. The readers take text of any origin and never read
/// beyond its end.
namespace lum::utf8 {

constexpr char32_t replacementCharacter = 0xFFFD;

/// True for what Unicode can encode: up to 0x10FFFF without the surrogates.
constexpr bool isScalarValue(char32_t c) noexcept {
    return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF);
}

/// Reads the character at `position` and moves behind it. False, with `position` as it was, when no
/// well-formed sequence begins there.
/// Requires: position < bytes.size().
inline bool readCharacter(std::string_view bytes, std::size_t& position, char32_t& character) noexcept {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(bytes[i]); };
    const unsigned char lead = byteAt(position);
    std::size_t length = 0;
    char32_t smallest = 0; // anything below is an overlong form
    char32_t value = 0;
    if (lead < 0x80) {
        length = 1;
        value = lead;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2;
        smallest = 0x80;
        value = lead & 0x1F;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        smallest = 0x800;
        value = lead & 0x0F;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        smallest = 0x10000;
        value = lead & 0x07;
    } else {
        return false;
    }
    if (length > bytes.size() - position)
        return false;
    for (std::size_t i = 1; i < length; ++i) {
        const unsigned char next = byteAt(position + i);
        if ((next & 0xC0) != 0x80)
            return false;
        value = (value << 6) | (next & 0x3F);
    }
    if (value < smallest || !isScalarValue(value))
        return false;
    position += length;
    character = value;
    return true;
}

/// The same for wide text: false for a surrogate that is no pair and for a value above 0x10FFFF.
template <class Unit>
bool readCharacter(std::basic_string_view<Unit> text, std::size_t& position, char32_t& character) noexcept {
    auto value = static_cast<char32_t>(text[position]);
    std::size_t length = 1;
    if constexpr (sizeof(Unit) == 2) {
        if (value >= 0xD800 && value <= 0xDBFF && position + 1 < text.size()) {
            const auto low = static_cast<char32_t>(text[position + 1]);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                value = 0x10000 + ((value - 0xD800) << 10) + (low - 0xDC00);
                length = 2;
            }
        }
    }
    if (!isScalarValue(value))
        return false;
    position += length;
    character = value;
    return true;
}

/// Requires: isScalarValue(character).
inline void appendCharacter(std::string& bytes, char32_t character) {
    const auto put = [&](char32_t byte) { bytes += static_cast<char>(static_cast<unsigned char>(byte)); };
    const auto putTail = [&](int shift) { put(0x80 | ((character >> shift) & 0x3F)); };
    if (character < 0x80) {
        put(character);
    } else if (character < 0x800) {
        put(0xC0 | (character >> 6));
        putTail(0);
    } else if (character < 0x10000) {
        put(0xE0 | (character >> 12));
        putTail(6);
        putTail(0);
    } else {
        put(0xF0 | (character >> 18));
        putTail(12);
        putTail(6);
        putTail(0);
    }
}

/// Requires: isScalarValue(character).
template <class Unit>
void appendCharacter(std::basic_string<Unit>& text, char32_t character) {
    if constexpr (sizeof(Unit) == 2) {
        if (character > 0xFFFF) {
            text += static_cast<Unit>(0xD800 + ((character - 0x10000) >> 10));
            text += static_cast<Unit>(0xDC00 + ((character - 0x10000) & 0x3FF));
            return;
        }
    }
    text += static_cast<Unit>(character);
}

/// Adds to `target` what `source` says in its own encoding; one of the two is bytes of UTF-8. Returns
/// the position of the first unit that cannot be read, or the length of `source` when all is done.
template <class From, class To>
std::size_t convert(std::basic_string_view<From> source, std::basic_string<To>& target) {
    std::size_t position = 0;
    while (position < source.size()) {
        char32_t character = 0;
        if (!readCharacter(source, position, character))
            break;
        appendCharacter(target, character);
    }
    return position;
}

/// No fewer than what is needed for the bytes up to the first that cannot be read, in any wide text.
inline std::size_t countCharacters(std::string_view bytes) noexcept {
    std::size_t count = 0;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        count += (byte & 0xC0) == 0x80 ? 0 : byte >= 0xF0 ? 2 : 1;
    }
    return count;
}

/// Like convert(), with U+FFFD for each unit that cannot be read.
template <class From, class To>
void convertLossy(std::basic_string_view<From> source, std::basic_string<To>& target) {
    std::size_t position = 0;
    while ((position += convert(source.substr(position), target)) < source.size()) {
        appendCharacter(target, replacementCharacter);
        ++position;
    }
}

} // namespace lum::utf8
