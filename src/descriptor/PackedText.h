#pragma once

#include "lum/String.h"

namespace tessel {

/// Text as the lines of a descriptor keep it: about one byte for what is one byte in a file, where a String
/// takes four. It is UTF-8, carried on beyond what Unicode can encode, so that any String comes back as it
/// was.
std::string packText(const lum::String& text);
lum::String unpackText(std::string_view packed);
/// What Latin-1 is as packed text; UTF-8 is packed text as it is.
std::string packLatin1(std::string_view bytes);

/// Without the white space that String::trim removes, at both ends or at the left one.
std::string_view trimPackedText(std::string_view packed) noexcept;
std::string_view trimPackedTextLeft(std::string_view packed) noexcept;

} // namespace tessel
