#pragma once

#include "Bytes.h"

#include <algorithm>

namespace tessel::test {

/// Sets bytes at an offset.
inline void put(Bytes& bytes, lum::int64 offset, std::initializer_list<unsigned char> values) {
    std::copy(values.begin(), values.end(), bytes.getData() + offset);
}

/// Sets the bytes from `begin` up to, not including, `end`.
inline void fillRange(Bytes& bytes, lum::int64 begin, lum::int64 end, unsigned char value) {
    std::fill(bytes.getData() + begin, bytes.getData() + end, value);
}

/// The header sector of a sparse extent, put together byte by byte. Each byte of a number tells its field
/// (first digit) and its place in it (second digit); flags: line-end test, redundant directory,
/// compressed, markers, and some that mean nothing. The reserved tail holds a pattern.
inline Bytes makeHeaderSector() {
    Bytes sector = patternBytes(512, 0x55);
    put(sector, 0, {0x4B, 0x44, 0x4D, 0x56});                          // magic number
    put(sector, 4, {0x01, 0x02, 0x03, 0x04});                          // version
    put(sector, 8, {0x03, 0x14, 0x03, 0xA0});                          // flags
    put(sector, 12, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18}); // capacity
    put(sector, 20, {0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28}); // grain size
    put(sector, 28, {0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38}); // descriptor offset
    put(sector, 36, {0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48}); // descriptor size
    put(sector, 44, {0x51, 0x52, 0x53, 0x54});                         // grain table entry count
    put(sector, 48, {0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68}); // redundant directory
    put(sector, 56, {0x71, 0x72, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78}); // directory
    put(sector, 64, {0x81, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88}); // overhead
    put(sector, 72, {0x01});                                           // unclean shutdown
    put(sector, 73, {0x0A, 0x20, 0x0D, 0x0A});                         // line-end test
    put(sector, 77, {0x91, 0x92});                                     // compress algorithm
    return sector;
}

/// The same in the layout with the encryption extension; key hash and what is left of the reserved tail
/// hold a pattern.
inline Bytes makeEncryptedHeaderSector(int keyHashSize) {
    Bytes sector = makeHeaderSector();
    put(sector, 0, {0x45, 0x4B, 0x64, 0x05});
    put(sector, 79, {0xA1, 0xA2}); // encryption algorithm
    put(sector, 81, {0xB1, 0xB2}); // key hash algorithm
    put(sector, 83,
        {static_cast<unsigned char>(keyHashSize & 0xFF), static_cast<unsigned char>(keyHashSize >> 8)});
    return sector;
}

} // namespace tessel::test
