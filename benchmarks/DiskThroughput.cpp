// Moves a whole disk through the library in one thread, in pieces of 1 MiB: what embedding programs do.
//
//   disk-throughput write RAW DISK [plain|compressed] [PASSWORD]   makes DISK and writes RAW's bytes to it
//   disk-throughput read DISK RAW [PASSWORD]                       writes DISK's bytes to RAW
//   disk-throughput random DISK COUNT                              reads COUNT times 4 KiB from anywhere in
//   DISK
//
// Nothing waits for the medium, as with cp.

#include "tessel/tessel.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

namespace {

using namespace tessel;

constexpr int pieceSize = 1 << 20;
constexpr unsigned int noParent = 0xFFFFFFFF;

CURI toURI(const char* path) {
    return nativePathToURI(String::fromUTF8(path));
}

void writeDisk(const char* rawPath, const char* diskPath, bool compressed, const String& password) {
    const P<CNativeFileSystem> files(new CNativeFileSystem(false));
    const P<IIOStream> raw = files->openFile(toURI(rawPath), IIOStream::Access_Read);
    const int64 size = raw->getLength();
    const P<CVMDKDisk> disk = CVMDKDisk::create(files.get(), toURI(diskPath), size, password, compressed, 1,
                                                -1, "", noParent, false);
    std::vector<char> piece(pieceSize);
    for (int64 left = size; left > 0;) {
        const auto count = static_cast<int>(std::min<int64>(left, pieceSize));
        raw->read(piece.data(), count);
        disk->write(piece.data(), count);
        left -= count;
    }
    disk->flushChanges();
}

void readDisk(const char* diskPath, const char* rawPath, const String& password) {
    const P<CNativeFileSystem> files(new CNativeFileSystem(false));
    const P<CVMDKDisk> disk(
        new CVMDKDisk(files.get(), toURI(diskPath), IIOStream::Access_Read, password, 1, nullptr, nullptr));
    const P<IIOStream> raw = files->openFile(toURI(rawPath), IIOStream::Access_ReadWrite);
    std::vector<char> piece(pieceSize);
    for (int64 left = disk->getSizeBytes(); left > 0;) {
        const auto count = static_cast<int>(std::min<int64>(left, pieceSize));
        disk->read(piece.data(), count);
        raw->write(piece.data(), count);
        left -= count;
    }
    raw->flush();
}

void readAtRandom(const char* diskPath, int count) {
    constexpr int size = 4096;
    const P<CNativeFileSystem> files(new CNativeFileSystem(false));
    const P<CVMDKDisk> disk(
        new CVMDKDisk(files.get(), toURI(diskPath), IIOStream::Access_Read, String(), 1, nullptr, nullptr));
    std::mt19937_64 random(1);
    std::uniform_int_distribution<int64> places(0, disk->getSizeBytes() / size - 1);
    std::vector<char> bytes(size);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < count; ++i) {
        disk->seek(places(random) * size);
        disk->read(bytes.data(), size);
    }
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::printf("%d requests in %.6f seconds\n", count, seconds.count());
}

} // namespace

int main(int argc, char** argv) {
    try {
        if (argc >= 4 && std::strcmp(argv[1], "write") == 0) {
            const bool compressed = argc >= 5 && std::strcmp(argv[4], "compressed") == 0;
            writeDisk(argv[2], argv[3], compressed, argc >= 6 ? String::fromUTF8(argv[5]) : String());
            return 0;
        }
        if (argc >= 4 && std::strcmp(argv[1], "read") == 0) {
            readDisk(argv[2], argv[3], argc >= 5 ? String::fromUTF8(argv[4]) : String());
            return 0;
        }
        if (argc == 4 && std::strcmp(argv[1], "random") == 0) {
            readAtRandom(argv[2], std::atoi(argv[3]));
            return 0;
        }
        std::fprintf(stderr, "usage: disk-throughput write RAW DISK [plain|compressed] [PASSWORD]\n"
                             "       disk-throughput read DISK RAW [PASSWORD]\n"
                             "       disk-throughput random DISK COUNT\n");
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "disk-throughput: %s\n", describeError(error).toUTF8Lossy().c_str());
        return 1;
    }
}
