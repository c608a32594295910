#include "SampleGrains.h"
#include "sigil/CCipher_AES256CBC.h"

#include <benchmark/benchmark.h>

using namespace tessel;
using namespace tessel::benchmarks;

namespace {

void runCipher(benchmark::State& state, bool encrypts) {
    const P<sigil::ICipher> cipher(new sigil::CCipher_AES256CBC);
    TCryptBuffer<unsigned char> key(cipher->getKeySizeBytes());
    const TBuffer<unsigned char> iv(cipher->getBlockSizeBytes());
    const TBuffer<unsigned char>& grain = *getSampleGrains().front();
    TBuffer<unsigned char> out(grainSize);
    for (auto _ : state) {
        out.setUsed(0);
        if (encrypts)
            cipher->encrypt(grain.getData(), grainSize, key, iv, out, false);
        else
            cipher->decrypt(grain.getData(), grainSize, key, iv, out, false);
        benchmark::DoNotOptimize(out.getData());
    }
    state.SetBytesProcessed(static_cast<int64>(state.iterations()) * grainSize);
}

BENCHMARK_CAPTURE(runCipher, encrypt, true);
BENCHMARK_CAPTURE(runCipher, decrypt, false);

} // namespace
