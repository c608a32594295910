// Makes a compressed disk of a raw image that comes from a pipe:  tessel-example-stream_in DISK SIZE_BYTES
// <image
#include "tessel/tessel.h"

#include <algorithm>
#include <cstdio>

using namespace tessel;

namespace {

// Reads until the buffer is full or the stream ends, and sets the used size to what came.
void readChunk(TBuffer<unsigned char>& chunk, int64 wanted) {
    chunk.setUsed(wanted);
    const std::size_t got = std::fread(chunk.getData(), 1, static_cast<std::size_t>(wanted), stdin);
    if (std::ferror(stdin))
        throw CError("Standard input cannot be read.");
    chunk.setUsed(static_cast<int64>(got));
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    try {
        const P<IFileSystem> files(new CNativeFileSystem);
        const CURI uri = nativePathToURI(String::fromUTF8(argv[1]));
        const int64 size = parseInt64(argv[2], true);
        const P<CVMDKDisk> disk =
            CVMDKDisk::create(files.get(), uri, size, "", true, -1, -1, "", 0xFFFFFFFF, false);

        // Pieces of whole grains: each grain is compressed once.
        TBuffer<unsigned char> chunk;
        for (int64 position = 0; position < size; position += chunk.getUsed()) {
            readChunk(chunk, std::min<int64>(16 * disk->getGrainSizeBytes(), size - position));
            if (chunk.isEmpty())
                break; // what follows a short image reads as zeros
            disk->seek(position);
            disk->write(chunk.getData(), static_cast<int>(chunk.getUsed()));
        }
        if (std::getchar() != EOF)
            throw CError("The image is longer than the disk.");
        disk->flushChanges();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
