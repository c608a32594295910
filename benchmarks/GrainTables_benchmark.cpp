// Looking up where grains are, in a disk of 64 GiB of which every other table's first half is written.

#include "lum/CMemoryFileSystem.h"
#include "tessel/CVMDKDisk.h"

#include <benchmark/benchmark.h>

using namespace tessel;

namespace {

constexpr int64 diskSize = int64{64} << 30;
constexpr int64 grainSize = 65536;
constexpr int64 grainsPerTable = 512;

P<CVMDKDisk> makeDisk() {
    const P<CMemoryFileSystem> files(new CMemoryFileSystem);
    P<CVMDKDisk> disk = CVMDKDisk::create(files.get(), CURI(String("memory:/disk.vmdk")), diskSize, String(),
                                          true, 1, -1, "", 0xFFFFFFFF, false);
    TBuffer<unsigned char> grain(grainSize);
    grain[0] = 1;
    for (int64 table = 0; table < diskSize / grainSize / grainsPerTable; table += 2)
        for (int64 i = 0; i < grainsPerTable / 2; ++i) {
            disk->seek((table * grainsPerTable + i) * grainSize);
            disk->write(grain.getData(), grainSize);
        }
    disk->flushChanges();
    return disk;
}

CVMDKDisk& getDisk() {
    static const P<CVMDKDisk> disk = makeDisk();
    return *disk;
}

void findAllRuns(benchmark::State& state) {
    CVMDKDisk& disk = getDisk();
    int64 runs = 0;
    for (auto _ : state)
        for (int64 position = 0; position < diskSize; ++runs)
            position += disk.findGrainRun(position).sizeBytes;
    state.SetItemsProcessed(runs);
}

/// Grain by grain, as a program would that asks for each.
void askForEachGrain(benchmark::State& state) {
    CVMDKDisk& disk = getDisk();
    int64 asked = 0;
    for (auto _ : state)
        for (int64 position = 0; position < diskSize; position += grainSize, ++asked) {
            disk.seek(position);
            benchmark::DoNotOptimize(disk.isGrainWritten());
        }
    state.SetItemsProcessed(asked);
}

BENCHMARK(findAllRuns)->Unit(benchmark::kMillisecond);
BENCHMARK(askForEachGrain)->Unit(benchmark::kMillisecond);

} // namespace
