#pragma once

#include "tessel/types.h"

#include <vector>

namespace tessel::benchmarks {

constexpr int grainSize = 65536;

/// Grains from this machine's own programs and documents, the same in every run on the same machine, as far
/// as there are any; else lines of numbers.
const std::vector<P<TBuffer<unsigned char>>>& getSampleGrains();

} // namespace tessel::benchmarks
