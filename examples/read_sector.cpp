// Tells a disk's size and shows its first sector:  tessel-example-read_sector DISK
#include "tessel/tessel.h"

#include <cstdio>

using namespace tessel;

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    try {
        const P<IFileSystem> files(new CNativeFileSystem);
        const CURI uri = nativePathToURI(String::fromUTF8(argv[1]));
        const P<CVMDKDisk> disk(
            new CVMDKDisk(files.get(), uri, IIOStream::Access_Read, "", -1, nullptr, nullptr));
        TBuffer<unsigned char> sector(vmdkSectorSize);
        disk->seek(0);
        disk->read(sector.getData(), static_cast<int>(sector.getUsed()));
        std::printf("%lld bytes\n%s\n", static_cast<long long>(disk->getSizeBytes()),
                    hexEncode(sector, false).toUTF8().c_str());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
