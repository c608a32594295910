#include "lum/Numbers.h"

#include <benchmark/benchmark.h>

#include <vector>

namespace {

/// `size` bytes out of a memory of 64 MiB, so that they come from where it is slow, or the same ones each
/// time.
void testForZeros(benchmark::State& state, bool isCached) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::vector<unsigned char> memory(isCached ? size : std::size_t{64} << 20);
    std::size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(lum::isZeroMemory(memory.data() + at, size));
        at = (at + size) % memory.size();
    }
    state.SetBytesProcessed(static_cast<lum::int64>(state.iterations()) * state.range(0));
}

BENCHMARK_CAPTURE(testForZeros, cached, true)->Arg(4096)->Arg(65536);
BENCHMARK_CAPTURE(testForZeros, memory, false)->Arg(4096)->Arg(65536);

} // namespace
