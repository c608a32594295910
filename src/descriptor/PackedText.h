#pragma once

#include "lum/String.h"

namespace tessel {

/// Text as the lines of a descriptor keep it: about one byte for what is one byte in a file, where a String
/// takes four. It is UTF-8, carried on beyond what Unicode can encode, so that any String comes back as it
/// was.
std::string packText(const lum::String& text);
lum::String unpackText(std::string_view packed);

} // namespace tessel
