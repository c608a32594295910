#pragma once

#include "lum/CURI.h"

#include <ostream>

// GoogleTest finds these by the namespace of their argument.
namespace lum {

inline void PrintTo(const String& text, std::ostream* out) {
    *out << '"' << text.toUTF8Lossy() << '"';
}

inline void PrintTo(const CURI& uri, std::ostream* out) {
    *out << '<' << uri.toString(false).toUTF8Lossy() << '>';
}

} // namespace lum
