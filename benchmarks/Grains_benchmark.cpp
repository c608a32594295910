// Compressors, and the preparer that makes grain records of what they give.

#include "SampleGrains.h"
#include "tessel/CVMDKCompressor.h"
#include "tessel/CVMDKDataPreparer.h"

#include <benchmark/benchmark.h>

using namespace tessel;
using namespace tessel::benchmarks;

namespace {

void compressGrain(benchmark::State& state) {
    const P<CVMDKCompressor> compressor(new CVMDKCompressor(static_cast<int>(state.range(0))));
    state.SetLabel(compressor->getInternalDesc().toUTF8());
    TBuffer<unsigned char> out(compressor->getCompressedSizeUpperBound(grainSize));
    int64 compressed = 0;
    std::size_t next = 0;
    for (auto _ : state) {
        const TBuffer<unsigned char>& grain = *getSampleGrains()[next++ % getSampleGrains().size()];
        compressed += compressor->compressSingleStep(grain.getData(), grainSize, out.getData(),
                                                     static_cast<int>(out.getUsed()));
    }
    const auto bytes = static_cast<int64>(state.iterations()) * grainSize;
    state.SetBytesProcessed(bytes);
    state.counters["ratio"] = static_cast<double>(compressed) / static_cast<double>(bytes);
}

void prepareGrain(benchmark::State& state) {
    const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(128, true, static_cast<int>(state.range(0))));
    const P<TBuffer<unsigned char>> record(new TBuffer<unsigned char>);
    int64 grain = 0;
    for (auto _ : state) {
        const auto& plain = getSampleGrains()[static_cast<std::size_t>(grain) % getSampleGrains().size()];
        benchmark::DoNotOptimize(preparer->prepareGrainData(plain.get(), grain++, record.get()));
    }
    state.SetBytesProcessed(grain * grainSize);
}

void unprepareGrain(benchmark::State& state) {
    const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(128, true, static_cast<int>(state.range(0))));
    std::vector<P<TBuffer<unsigned char>>> records;
    for (const auto& plain : getSampleGrains()) {
        const P<TBuffer<unsigned char>> record(new TBuffer<unsigned char>);
        records.push_back(preparer->prepareGrainData(plain.get(), 0, record.get()));
    }
    const P<TBuffer<unsigned char>> out(new TBuffer<unsigned char>);
    std::size_t next = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(
            preparer->unprepareGrainData(records[next++ % records.size()].get(), out.get()));
    state.SetBytesProcessed(static_cast<int64>(state.iterations()) * grainSize);
}

BENCHMARK(compressGrain)->DenseRange(0, 9);
BENCHMARK(prepareGrain)->Arg(1)->Arg(6);
BENCHMARK(unprepareGrain)->Arg(1)->Arg(6);

} // namespace
