#include "SampleGrains.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

namespace tessel::benchmarks {

namespace {

namespace fs = std::filesystem;

constexpr int grainsPerFolder = 16;

void addGrains(const char* folder, std::vector<P<TBuffer<unsigned char>>>& grains) {
    std::error_code error;
    std::vector<fs::path> paths;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error))
        if (entry.is_regular_file(error) && !error)
            paths.push_back(entry.path());
    std::sort(paths.begin(), paths.end());
    int added = 0;
    for (auto path = paths.begin(); path != paths.end() && added < grainsPerFolder; ++path) {
        std::ifstream file(*path, std::ios::binary);
        P<TBuffer<unsigned char>> grain(new TBuffer<unsigned char>(grainSize));
        while (added < grainsPerFolder && file.read(reinterpret_cast<char*>(grain->getData()), grainSize)) {
            grains.push_back(grain);
            grain = new TBuffer<unsigned char>(grainSize);
            ++added;
        }
    }
}

P<TBuffer<unsigned char>> makeNumbers() {
    std::string text;
    for (int i = 0; text.size() < grainSize; ++i)
        text += std::to_string(i * 7919) + "\n";
    return new TBuffer<unsigned char>(reinterpret_cast<const unsigned char*>(text.data()), grainSize);
}

std::vector<P<TBuffer<unsigned char>>> makeGrains() {
    std::vector<P<TBuffer<unsigned char>>> grains;
    for (const char* folder :
         {"/usr/bin", "/usr/lib/x86_64-linux-gnu", "/usr/include", "/usr/share/perl/5.36.0"})
        addGrains(folder, grains);
    if (grains.empty())
        grains.push_back(makeNumbers());
    return grains;
}

} // namespace

const std::vector<P<TBuffer<unsigned char>>>& getSampleGrains() {
    static const std::vector<P<TBuffer<unsigned char>>> grains = makeGrains();
    return grains;
}

} // namespace tessel::benchmarks
