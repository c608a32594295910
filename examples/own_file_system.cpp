// Reads a whole disk through a file system that tells of each file and lets none be changed, the lock file
// included (so that the library warns on standard error and goes on without a lock):
//   tessel-example-own_file_system DISK
#include "tessel/tessel.h"

#include <algorithm>
#include <cstdio>

using namespace tessel;

namespace {

class CWatchedFileSystem : public CBase, public IFileSystem {
public:
    P<IIOStream> openFile(const CURI& uri, IIOStream::Access access) override {
        if (access != IIOStream::Access_Read)
            refuse(uri);
        P<IIOStream> stream = m_files->openFile(uri, access); // or a stream of one's own
        std::printf("%s\n", uri.getName().toUTF8Lossy().c_str());
        return stream;
    }
    bool fileExists(const CURI& uri) override { return m_files->fileExists(uri); }
    void deleteFile(const CURI& uri, bool) override { refuse(uri); }
    bool isFileOfStream(const CURI& uri, IIOStream& stream) override {
        return m_files->isFileOfStream(uri, stream);
    }
    CURI followLinks(const CURI& uri) override { return m_files->followLinks(uri); }

private:
    [[noreturn]] static void refuse(const CURI& uri) {
        throw CFileSystemError(
            CFileSystemError::Problem_ReadOnlyMedium,
            CError("Nothing is changed here.", "", -1, CProps().add("uri", uri.toString(true))));
    }

    P<IFileSystem> m_files{new CNativeFileSystem};
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    try {
        const CURI uri = nativePathToURI(String::fromUTF8(argv[1]));
        const P<IFileSystem> files(new CWatchedFileSystem);
        const P<CVMDKDisk> disk(
            new CVMDKDisk(files.get(), uri, IIOStream::Access_Read, "", -1, nullptr, nullptr));
        TBuffer<unsigned char> data(disk->getGrainSizeBytes());
        for (int64 left = disk->getSizeBytes(); left > 0; left -= data.getUsed()) {
            data.setUsed(std::min(left, data.getUsed()));
            disk->read(data.getData(), static_cast<int>(data.getUsed()));
        }
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
