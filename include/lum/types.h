#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <vector>

/// The foundation of the library: object model, text, buffers, streams, files, errors and logging.
namespace lum {

using int64 = std::int64_t;
using uint8 = std::uint8_t;
using uint16 = std::uint16_t;
using uint32 = std::uint32_t;
using uint64 = std::uint64_t;

/// The containers of the interfaces are the standard library's; the names tell their use.
template <class T>
using TArray = std::vector<T>;
template <class T>
using TList = std::list<T>;
template <class K, class V>
using TMap = std::map<K, V>;

} // namespace lum
