// Compressors, and the preparer that makes grain records of what they give.

#include "SampleGrains.h"
#include "tessel/CVMDKCompressor.h"
#include "tessel/CVMDKDataPreparer.h"

#include <benchmark/benchmark.h>

using namespace tessel;
using namespace tessel::benchmarks;

namespace {

/// Every iteration takes all sample grains, so that each has the same part in the result.
void countBytes(benchmark::State& state) {
    state.SetBytesProcessed(static_cast<int64>(state.iterations()) *
                            static_cast<int64>(getSampleGrains().size()) * grainSize);
}

void compressGrains(benchmark::State& state) {
    const P<CVMDKCompressor> compressor(new CVMDKCompressor(static_cast<int>(state.range(0))));
    state.SetLabel(compressor->getInternalDesc().toUTF8());
    TBuffer<unsigned char> out(compressor->getCompressedSizeUpperBound(grainSize));
    int64 compressed = 0;
    for (auto _ : state)
        for (const auto& grain : getSampleGrains())
            compressed += compressor->compressSingleStep(grain->getData(), grainSize, out.getData(),
                                                         static_cast<int>(out.getUsed()));
    countBytes(state);
    state.counters["ratio"] = benchmark::Counter(
        static_cast<double>(compressed) / static_cast<double>(getSampleGrains().size() * grainSize),
        benchmark::Counter::kAvgIterations);
}

void prepareGrains(benchmark::State& state) {
    const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(128, true, static_cast<int>(state.range(0))));
    const P<TBuffer<unsigned char>> record(new TBuffer<unsigned char>);
    for (auto _ : state)
        for (const auto& grain : getSampleGrains())
            benchmark::DoNotOptimize(preparer->prepareGrainData(grain.get(), 1, record.get()));
    countBytes(state);
}

void unprepareGrains(benchmark::State& state) {
    const P<CVMDKDataPreparer> preparer(new CVMDKDataPreparer(128, true, static_cast<int>(state.range(0))));
    std::vector<P<TBuffer<unsigned char>>> records;
    for (const auto& grain : getSampleGrains()) {
        const P<TBuffer<unsigned char>> record(new TBuffer<unsigned char>);
        records.push_back(preparer->prepareGrainData(grain.get(), 0, record.get()));
    }
    const P<TBuffer<unsigned char>> out(new TBuffer<unsigned char>);
    for (auto _ : state)
        for (const auto& record : records)
            benchmark::DoNotOptimize(preparer->unprepareGrainData(record.get(), out.get()));
    countBytes(state);
}

BENCHMARK(compressGrains)->DenseRange(0, 9)->Unit(benchmark::kMillisecond);
BENCHMARK(prepareGrains)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);
BENCHMARK(unprepareGrains)->Arg(1)->Arg(6)->Unit(benchmark::kMillisecond);

} // namespace
