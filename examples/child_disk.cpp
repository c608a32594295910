// Makes a child of a disk in the same folder, changes its first sector, and tells which disk holds what:
//   tessel-example-child_disk PARENT CHILD
#include "tessel/tessel.h"

#include <cstdio>

using namespace tessel;

int main(int argc, char** argv) {
    if (argc != 3)
        return 2;
    try {
        const P<IFileSystem> files(new CNativeFileSystem);
        const CURI parentURI = nativePathToURI(String::fromUTF8(argv[1]));
        const CURI childURI = nativePathToURI(String::fromUTF8(argv[2]));

        const P<CVMDKDisk> parent(
            new CVMDKDisk(files.get(), parentURI, IIOStream::Access_Read, "", -1, nullptr, nullptr));
        const int64 size = parent->getSizeBytes();
        const bool compressed = parent->getCompressed();
        // The child notes this number. When somebody writes to the parent it changes, and the child refuses.
        const unsigned int contentID = parent->getDescriptor()->getContentID();

        // The parent is named as it is seen from the child's folder.
        P<CVMDKDisk> child = CVMDKDisk::create(files.get(), childURI, size, "", compressed, -1, -1,
                                               parentURI.getName(), contentID, false);
        TBuffer<unsigned char> sector(vmdkSectorSize);
        sector.fill('c');
        child->seek(0);
        child->write(sector.getData(), static_cast<int>(sector.getUsed()));
        child->flushChanges();

        // Layer 0 is the child, 1 its parent, and so on.
        for (int64 position = 0; position < size;) {
            const UVMDKGrainRun run = child->findGrainRun(position);
            if (run.layer != UVMDKGrainRun::nowhere)
                std::printf("%lld %lld %d\n", static_cast<long long>(run.position),
                            static_cast<long long>(run.sizeBytes), run.layer);
            position = run.position + run.sizeBytes;
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
