// Any row of operations on a disk agrees with a row of bytes in memory, also after reopening.

#include "FuzzSupport.h"

#include <algorithm>
#include <vector>

using namespace fuzz;

namespace {

constexpr int64 grainSectors = 8;
constexpr int64 grainBytes = grainSectors * vmdkSectorSize;
constexpr int64 grainCount = 24;
constexpr int64 diskBytes = grainCount * grainBytes;

/// A disk of small grains, its only extent being its main file, beside its model.
class Model {
public:
    explicit Model(bool compressed, int level, int cacheLimit)
        : m_level(level), m_cacheLimit(cacheLimit), m_bytes(diskBytes) {
        const P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
        descriptor->setContentID(1);
        descriptor->setCreateType(compressed ? "streamOptimized" : "monolithicSparse");
        descriptor->addExtentEntry(
            new CVMDKExtentInfo("RW", grainCount * grainSectors, "SPARSE", "d.vmdk", -1));
        createEmptyVMDKSparseExtentFile(m_files.get(), m_uri, compressed, grainCount, grainSectors,
                                        TBuffer<unsigned char>(4096), descriptor.get(), 2,
                                        TBuffer<unsigned char>());
        reopen();
    }

    void reopen() {
        m_disk = nullptr;
        const P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(m_cacheLimit));
        m_disk = new CVMDKDisk(m_files.get(), m_uri, IIOStream::Access_ReadWrite, "", m_level, cache.get(),
                               nullptr);
        verify(0, diskBytes);
    }

    void write(int64 position, int64 size, unsigned seed) {
        size = std::min(size, diskBytes - position);
        for (int64 i = 0; i < size; ++i) // a byte of 0, runs, or noise
            m_bytes[static_cast<std::size_t>(position + i)] =
                static_cast<unsigned char>(seed < 64    ? 0
                                           : seed < 128 ? seed
                                                        : (seed * 2654435761U + i * 40503U) >> 7);
        m_disk->seek(position);
        m_disk->write(&m_bytes[static_cast<std::size_t>(position)], static_cast<int>(size));
    }

    void verify(int64 position, int64 size) {
        std::vector<unsigned char> read(static_cast<std::size_t>(std::min(size, diskBytes - position)));
        m_disk->seek(position);
        m_disk->read(read.data(), static_cast<int>(read.size()));
        REQUIRE(std::equal(read.begin(), read.end(), m_bytes.begin() + position));
    }

    void copyGrain(int64 from, int64 to) {
        TBuffer<unsigned char> prepared;
        m_disk->seek(from * grainBytes);
        m_disk->readPreparedGrainData(prepared);
        m_disk->seek(to * grainBytes);
        m_disk->writePreparedGrainData(prepared);
        std::copy_n(m_bytes.begin() + from * grainBytes, grainBytes, m_bytes.begin() + to * grainBytes);
    }

    void flush() { m_disk->flushChanges(); }
    void queryGrain(int64 grain) {
        m_disk->seek(grain * grainBytes);
        if (!m_disk->isGrainWritten())
            REQUIRE(std::all_of(m_bytes.begin() + grain * grainBytes,
                                m_bytes.begin() + (grain + 1) * grainBytes,
                                [](unsigned char c) { return c == 0; }));
        const UVMDKGrainRun run = m_disk->findGrainRun(grain * grainBytes);
        REQUIRE(run.sizeBytes >= grainBytes);
    }
    void verifySpace() {
        const P<CVMDKSpaceInfo> info = m_disk->gatherSpaceInfo();
        const int64 length = m_files->openFile(m_uri, IIOStream::Access_Read)->getLength();
        REQUIRE(info->getHeaderSize() + info->getPayloadSizeInFile() + info->getDeadSpaceSize() == length);
    }

private:
    P<CMemoryFileSystem> m_files{new CMemoryFileSystem};
    CURI m_uri{String("mem:///d.vmdk")};
    int m_level;
    int m_cacheLimit;
    std::vector<unsigned char> m_bytes;
    P<CVMDKDisk> m_disk;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
    silenceLog();
    Input input(data, size);
    const unsigned kind = input.takeByte();
    Model model(kind % 2 != 0, static_cast<int>(kind / 2 % 10), static_cast<int>(kind / 20 % 3));
    for (int steps = 0; !input.isEmpty() && steps < 60; ++steps) {
        const unsigned operation = input.takeByte();
        const int64 grain = input.takeByte() % grainCount;
        const int64 position = std::min<int64>(grain * grainBytes + input.takeByte() * 16, diskBytes - 1);
        switch (operation % 8) {
        case 0:
        case 1:
        case 2:
            model.write(position, input.takeNumber() % 20000, input.takeByte());
            break;
        case 3:
            model.verify(position, input.takeNumber() % 20000);
            break;
        case 4:
            model.flush();
            break;
        case 5:
            model.copyGrain(grain, input.takeByte() % grainCount);
            break;
        case 6:
            model.queryGrain(grain);
            break;
        default:
            model.reopen();
            break;
        }
    }
    model.verify(0, diskBytes);
    model.flush();
    model.verifySpace();
    model.reopen();
    return 0;
}
