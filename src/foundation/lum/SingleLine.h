#pragma once

#include "lum/String.h"

namespace lum {

/// The text made fit to be part of one line on a terminal: line breaks and tabs become blanks, other
/// control characters, and those that change the direction of writing, become U+FFFD.
String toSingleLine(const String& text);

} // namespace lum
