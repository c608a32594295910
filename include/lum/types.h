#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <vector>

/// The foundation of the library: object model, text, buffers, streams, files, errors and logging.
namespace lum {

/// A signed number of 64 bits.
using int64 = std::int64_t;
/// An unsigned number of 8 bits.
using uint8 = std::uint8_t;
/// An unsigned number of 16 bits.
using uint16 = std::uint16_t;
/// An unsigned number of 32 bits.
using uint32 = std::uint32_t;
/// An unsigned number of 64 bits.
using uint64 = std::uint64_t;

/// The containers of the interfaces are the standard library's; the names tell their use.
template <class T>
using TArray = std::vector<T>;
/// A row whose elements stay where they are.
template <class T>
using TList = std::list<T>;
/// A map, in the order of its keys.
template <class K, class V>
using TMap = std::map<K, V>;

} // namespace lum
