#include "tessel/CVMDKDescriptor.h"

#include <benchmark/benchmark.h>

#include <string>

using namespace tessel;

namespace {

std::string makeDescriptor(int extents) {
    std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                       "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n\n# Extent description\n";
    for (int i = 0; i < extents; ++i)
        text += "RW 4192256 SPARSE \"disk-s" + std::to_string(10000 + i) + ".vmdk\"\n";
    return text + "\n# The Disk Data Base\n#DDB\n\nddb.adapterType = \"lsilogic\"\n";
}

void parseDescriptor(benchmark::State& state) {
    const std::string bytes = makeDescriptor(static_cast<int>(state.range(0)));
    const TBuffer<unsigned char> text(reinterpret_cast<const unsigned char*>(bytes.data()),
                                      static_cast<int64>(bytes.size()));
    for (auto _ : state) {
        const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(text));
        TArray<P<CVMDKExtentInfo>> extents;
        descriptor->getExtentEntries(extents);
        benchmark::DoNotOptimize(extents.data());
    }
    state.SetItemsProcessed(static_cast<int64>(state.iterations()) * state.range(0));
}

BENCHMARK(parseDescriptor)->Arg(1)->Arg(100)->Arg(10000);

} // namespace
