#pragma once

#include <random>
#include <string_view>
#include <vector>

namespace tessel::test {

using Bytes = std::vector<unsigned char>;

inline Bytes makeZeros(int size) {
    return Bytes(static_cast<std::size_t>(size));
}

/// Nothing that could be compressed. The same for the same seed.
inline Bytes makeRandom(int size, unsigned seed) {
    std::mt19937 random(seed);
    Bytes bytes(static_cast<std::size_t>(size));
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

/// Words and numbers in lines.
inline Bytes makeText(int size, unsigned seed) {
    static constexpr std::string_view words[] = {"disk",   "grain",  "of", "the",    "table", "and",
                                                 "0x1000", "parent", "\n", "extent", "a",     "13"};
    std::mt19937 random(seed);
    Bytes bytes;
    while (bytes.size() < static_cast<std::size_t>(size)) {
        const std::string_view word = words[random() % std::size(words)];
        bytes.insert(bytes.end(), word.begin(), word.end());
        bytes.push_back(' ');
    }
    bytes.resize(static_cast<std::size_t>(size));
    return bytes;
}

} // namespace tessel::test
