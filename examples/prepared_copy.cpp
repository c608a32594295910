// Copies a disk into a new one of the same kind. Grains pass as they are stored where that is possible, so
// that nothing is inflated and compressed anew:  tessel-example-prepared_copy SOURCE TARGET
#include "tessel/tessel.h"

#include <algorithm>
#include <cstdio>

using namespace tessel;

namespace {

void copyRun(CVMDKDisk& source, CVMDKDisk& target, const UVMDKGrainRun& run, TBuffer<unsigned char>& data) {
    const int64 grainSize = target.getGrainSizeBytes();
    const bool alike = run.isStoredAlike && source.getGrainSizeBytes() == grainSize;
    const int64 end = run.position + run.sizeBytes;
    for (int64 position = run.position; position < end; position = source.getPosition()) {
        const int64 size = std::min(grainSize - position % grainSize, end - position);
        source.seek(position);
        target.seek(position);
        if (alike && size == grainSize) {
            source.readPreparedGrainData(data);
            target.writePreparedGrainData(data);
        } else {
            data.setUsed(size);
            source.read(data.getData(), static_cast<int>(size));
            target.write(data.getData(), static_cast<int>(size));
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    try {
        const P<IFileSystem> files(new CNativeFileSystem);
        const CURI from = nativePathToURI(String::fromUTF8(argv[1]));
        const CURI to = nativePathToURI(String::fromUTF8(argv[2]));
        const P<CVMDKDisk> source(
            new CVMDKDisk(files.get(), from, IIOStream::Access_Read, "", -1, nullptr, nullptr));
        const int64 size = source->getSizeBytes();
        const P<CVMDKDisk> target = CVMDKDisk::create(files.get(), to, size, "", source->getCompressed(), -1,
                                                      -1, "", 0xFFFFFFFF, false);
        TBuffer<unsigned char> data;
        for (int64 position = 0; position < size;) {
            const UVMDKGrainRun run = source->findGrainRun(position);
            if (run.layer != UVMDKGrainRun::nowhere) // nobody wrote the rest: it reads as zeros
                copyRun(*source, *target, run, data);
            position = run.position + run.sizeBytes;
        }
        target->flushChanges();
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
