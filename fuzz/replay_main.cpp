// Feeds committed inputs to a fuzzing surface without a fuzzer, so that the ordinary tests cover them.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    in.exceptions(std::ios::badbit | std::ios::failbit);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());

    // The name comes first: should this input end the process, it is the last one named.
    std::printf("%s (%zu bytes)\n", file.string().c_str(), input.size());
    std::fflush(stdout);
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

} // namespace

/// Replays every file of the folders given. Fails when there is none: an empty run proves nothing.
int main(int argc, char** argv) {
    try {
        std::size_t count = 0;
        for (int i = 1; i < argc; ++i) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
                if (entry.is_regular_file()) {
                    replay(entry.path());
                    ++count;
                }
            }
        }
        std::printf("%zu inputs replayed\n", count);
        return count == 0 ? 1 : 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "replay: %s\n", e.what());
        return 1;
    }
}
