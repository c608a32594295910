#pragma once

#include "lum/IIOStream.h"
#include "lum/LittleEndian.h"
#include "lum/TBuffer.h"

#include <bit>

namespace tessel {

/// Reads or writes an array of little-endian numbers at a sector: the whole used part of `numbers`.
template <class T>
void readTable(lum::IIOStream& stream, lum::int64 posSectors, lum::TBuffer<T>& numbers) {
    static_assert(std::endian::native == std::endian::little, "tables are kept as they are on disk");
    stream.seek(posSectors * 512);
    stream.read(numbers.getData(), static_cast<int>(numbers.getUsed() * static_cast<lum::int64>(sizeof(T))));
}

template <class T>
void writeTable(lum::IIOStream& stream, lum::int64 posSectors, const lum::TBuffer<T>& numbers) {
    stream.seek(posSectors * 512);
    stream.write(numbers.getData(), static_cast<int>(numbers.getUsed() * static_cast<lum::int64>(sizeof(T))));
}

} // namespace tessel
