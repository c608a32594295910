#pragma once

#include "lum/IInStream.h"
#include "lum/TBuffer.h"

#include <initializer_list>
#include <iterator>
#include <ostream>
#include <string>
#include <string_view>

namespace tessel::test {

using Bytes = lum::TBuffer<unsigned char>;

inline Bytes bytesOf(std::string_view text) {
    return Bytes(reinterpret_cast<const unsigned char*>(text.data()), static_cast<lum::int64>(text.size()));
}

inline Bytes bytesOf(std::initializer_list<unsigned char> values) {
    return Bytes(std::data(values), static_cast<lum::int64>(values.size()));
}

/// `count` bytes of a pattern that differs from sector to sector and holds few zeros.
inline Bytes patternBytes(lum::int64 count, unsigned int seed = 1) {
    Bytes bytes(count);
    for (lum::int64 i = 0; i < count; ++i)
        bytes[i] = static_cast<unsigned char>((static_cast<lum::uint64>(i) * 7 + i / 251 + seed) & 0xFF);
    return bytes;
}

/// Bytes that do not repeat soon.
inline std::string patternText(int count, unsigned seed = 0) {
    std::string text;
    for (unsigned i = seed; text.size() < static_cast<std::size_t>(count); ++i)
        text += static_cast<char>((i * 2654435761u) >> 24);
    return text;
}

inline std::string textOf(const Bytes& bytes) {
    return std::string(reinterpret_cast<const char*>(bytes.getData()),
                       static_cast<std::size_t>(bytes.getUsed()));
}

/// A piece of a buffer.
inline Bytes slice(const Bytes& bytes, lum::int64 start, lum::int64 count) {
    return Bytes(bytes.getData() + start, count);
}

/// All that a stream holds; its position is the end afterwards.
inline Bytes readAll(lum::IInStream& stream) {
    Bytes bytes(stream.getLength());
    stream.seek(0);
    stream.read(bytes.getData(), static_cast<int>(bytes.getUsed()));
    return bytes;
}

} // namespace tessel::test

namespace lum {

/// For the messages of failed tests: size and the first bytes.
inline void PrintTo(const TBuffer<unsigned char>& bytes, std::ostream* out) {
    static constexpr const char* digits = "0123456789abcdef";
    *out << bytes.getUsed() << " bytes:";
    for (int64 i = 0; i < bytes.getUsed() && i < 128; ++i)
        *out << (i % 4 == 0 ? " " : "") << digits[bytes[i] >> 4] << digits[bytes[i] & 0xF];
}

} // namespace lum
