#pragma once

#include "lum/TextFunctions.h"

namespace tessel::test {

/// The bytes that hexadecimal digits spell; blanks may stand between them.
inline lum::TBuffer<unsigned char> fromHex(const char* digits) {
    lum::String text(digits);
    text.Replace(" ", "");
    lum::TBuffer<unsigned char> bytes;
    lum::hexDecode(text, bytes);
    return bytes;
}

inline lum::String toHex(const void* bytes, lum::int64 size) {
    return lum::hexEncode(lum::TBuffer<unsigned char>(static_cast<const unsigned char*>(bytes), size), false);
}

} // namespace tessel::test
