#include "descriptor/PackedText.h"

#include "foundation/lum/UTF8.h"

#include <algorithm>
#include <bit>

namespace tessel {

namespace {

using lum::String;
using lum::uint32;

constexpr std::string_view whiteSpace = " \t\n\v\f\r";

/// How many bytes a character takes behind its lead byte. Each holds 6 bits; the lead holds one bit less than
/// UTF-8's pattern leaves for every byte that follows, and none in the longest form.
int countTailBytes(uint32 character) noexcept {
    if (character < 0x80)
        return 0;
    for (int tail = 1; tail < 6; ++tail)
        if (character < uint32{1} << (6 * tail + 6 - tail))
            return tail;
    return 6;
}

/// Calls `visit(uint32)` for each character. What is no character counts as one, be it half of one or beyond
/// all.
template <class Visitor>
void forEachCharacter(std::wstring_view text, Visitor visit) {
    for (std::size_t position = 0; position < text.size();) {
        char32_t character = 0;
        if (lum::utf8::readCharacter(text, position, character))
            visit(static_cast<uint32>(character));
        else
            visit(static_cast<uint32>(text[position++]));
    }
}

void append(std::wstring& text, uint32 character) {
    if (lum::utf8::isScalarValue(character))
        lum::utf8::appendCharacter(text, character);
    else
        text += static_cast<wchar_t>(character);
}

} // namespace

std::string packText(const String& text) {
    std::size_t size = 0;
    forEachCharacter(text.getWideString(), [&size](uint32 character) {
        size += static_cast<std::size_t>(1 + countTailBytes(character));
    });
    std::string packed;
    packed.reserve(size);
    forEachCharacter(text.getWideString(), [&packed](uint32 character) {
        const int tail = countTailBytes(character);
        if (tail == 0) {
            packed += static_cast<char>(static_cast<unsigned char>(character));
            return;
        }
        const uint32 leadMark = (0xFFU << (7 - tail)) & 0xFFU;
        const uint32 leadBits = tail < 6 ? character >> (6 * tail) : 0;
        packed += static_cast<char>(static_cast<unsigned char>(leadMark | leadBits));
        for (int i = tail - 1; i >= 0; --i)
            packed += static_cast<char>(static_cast<unsigned char>(0x80U | ((character >> (6 * i)) & 0x3FU)));
    });
    return packed;
}

String unpackText(std::string_view packed) {
    std::wstring text;
    text.reserve(lum::utf8::countCharacters(packed));
    for (std::size_t i = 0; i < packed.size();) {
        const auto lead = static_cast<unsigned char>(packed[i++]);
        const int ones = std::countl_one(lead);
        uint32 character = ones == 0 ? lead : lead & (0x7FU >> ones);
        for (int tail = 1; tail < ones; ++tail)
            character = (character << 6) | (static_cast<unsigned char>(packed[i++]) & 0x3FU);
        append(text, character);
    }
    return String(std::move(text));
}

std::string packLatin1(std::string_view bytes) {
    const auto isLong = [](char c) { return static_cast<unsigned char>(c) >= 0x80; };
    std::string packed;
    packed.reserve(bytes.size() +
                   static_cast<std::size_t>(std::count_if(bytes.begin(), bytes.end(), isLong)));
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (isLong(c))
            packed += static_cast<char>(static_cast<unsigned char>(0xC0U | (byte >> 6)));
        packed += static_cast<char>(static_cast<unsigned char>(isLong(c) ? 0x80U | (byte & 0x3FU) : byte));
    }
    return packed;
}

std::string_view trimPackedTextLeft(std::string_view packed) noexcept {
    return packed.substr(std::min(packed.find_first_not_of(whiteSpace), packed.size()));
}

std::string_view trimPackedText(std::string_view packed) noexcept {
    const std::string_view rest = trimPackedTextLeft(packed);
    return rest.substr(0, rest.find_last_not_of(whiteSpace) + 1);
}

} // namespace tessel
