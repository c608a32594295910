// Makes a disk of 64 MiB, writes to its first sector, and tells errors apart:
//   tessel-example-create_disk DISK
#include "tessel/tessel.h"

#include <cstdio>
#include <cstring>

using namespace tessel;

namespace {

void createDisk(const CURI& uri) {
    const P<IFileSystem> files(new CNativeFileSystem);
    // create() replaces what is there: whoever minds asks first.
    if (files->fileExists(uri))
        throw CFileSystemError(CFileSystemError::Problem_AlreadyExists, CError("There is a file already."));

    const int64 size = 64 * 1024 * 1024;
    const P<CVMDKDisk> disk =
        CVMDKDisk::create(files.get(), uri, size, "", true, -1, -1, "", 0xFFFFFFFF, false);
    const char text[] = "Hello, disk!\n";
    disk->seek(0);
    disk->write(text, static_cast<int>(std::strlen(text)));
    // What was written may still be in memory. From here on it survives even a loss of power, or an error
    // has been thrown; a destructor could only log it.
    disk->flushChanges();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    try {
        createDisk(nativePathToURI(String::fromUTF8(argv[1])));
        return 0;
    } catch (const CFileSystemError& error) { // files that cannot be opened, locked or deleted
        switch (error.getProblem()) {
        case CFileSystemError::Problem_NotFound:
            std::fprintf(stderr, "There is no such folder\n");
            return 3;
        case CFileSystemError::Problem_Locked:
            std::fprintf(stderr, "Somebody else is using the disk\n");
            return 4;
        default:
            std::fprintf(stderr, "%s\n", error.what());
            return 5;
        }
    } catch (const CIOError& error) { // reading and writing; getCode() says more
        const bool isFull = error.getCode() == CIOError::Code_NoSpace;
        std::fprintf(stderr, "%s\n",
                     isFull ? "The medium is full" : describeError(error).toUTF8Lossy().c_str());
        return 6;
    } catch (const std::exception& error) { // whatever else: message, parameters and causes in one line
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
