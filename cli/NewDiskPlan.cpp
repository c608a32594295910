#include "NewDiskPlan.h"

#include "Errors.h"
#include "Names.h"
#include "lum/CMemoryFileSystem.h"
#include "lum/Numbers.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKEmptyMetadata.h"

#include <algorithm>
#include <map>

namespace tessel::cli {

namespace {

constexpr int64 singleFile = -1;
/// The metadata of a compressed extent are not only zeros, and take memory. Of larger ones they are reckoned.
constexpr int64 largestCompressed = int64{256} << 30;

int64 getLength(IFileSystem* files, const CURI& uri) {
    return files->openFile(uri, IIOStream::Access_Read)->getLength();
}

/// How much longer the metadata of a compressed extent of `sizeBytes` are than those of a smaller one, but
/// for less than a grain.
int64 reckonMoreMetadata(int64 sizeBytes, int64 smallerBytes, int64 grainSizeBytes) {
    const auto sectorsOf = [&](int64 bytes) {
        const int64 tables = divideRoundingUp(bytes / grainSizeBytes, vmdkGrainTableEntryCount);
        // Tables and slot sizes, each with its marker.
        constexpr int64 perTable = 2 * (vmdkGrainTableSectors + 1) + vmdkSlotSizeTableSectors + 1;
        return 3 * vmdkDirectorySectors(tables) + tables * perTable;
    };
    return (sectorsOf(sizeBytes) - sectorsOf(smallerBytes)) * vmdkSectorSize;
}

/// Lengths of empty extent files without a descriptor.
class CEmptyExtents {
public:
    CEmptyExtents(IFileSystem* files, const CURI& uri, bool compressed, int64 grainSizeBytes)
        : m_files(files), m_uri(uri), m_compressed(compressed), m_grainSize(grainSizeBytes) {}

    int64 getLengthFor(int64 sizeBytes) {
        const auto [found, isNew] = m_lengths.try_emplace(sizeBytes, 0);
        if (isNew) {
            const TBuffer<unsigned char> zeros(m_grainSize);
            createEmptyVMDKSparseExtentFile(m_files, m_uri, m_compressed, sizeBytes / m_grainSize,
                                            m_grainSize / vmdkSectorSize, zeros, nullptr, 0,
                                            TBuffer<unsigned char>());
            found->second = getLength(m_files, m_uri);
            m_files->deleteFile(m_uri, false);
        }
        return found->second;
    }

private:
    IFileSystem* m_files;
    CURI m_uri;
    bool m_compressed;
    int64 m_grainSize;
    std::map<int64, int64> m_lengths;
};

UNewDiskPlan planFiles(const CURI& uri, int64 sizeBytes, const UNewDiskKind& kind, bool onDemand) {
    const P<IFileSystem> files(new CMemoryFileSystem);
    const bool isSingle = kind.fileSizeLimit == singleFile;
    const bool isReckoned = isSingle && kind.isCompressed && sizeBytes > largestCompressed;
    // Of the files that a disk has in all, one is looked at.
    const P<CVMDKDisk> disk =
        CVMDKDisk::create(files.get(), uri, isReckoned ? largestCompressed : sizeBytes, "", kind.isCompressed,
                          -1, kind.fileSizeLimit, "", noContentID, !isSingle);
    const int64 grainSize = disk->getGrainSizeBytes();
    UNewDiskPlan plan{disk->getDescriptor()->getCreateType().toUTF8Lossy(),
                      disk->getSizeBytes(),
                      grainSize,
                      kind.isCompressed,
                      false,
                      onDemand,
                      disk->getMainFileURI() == disk->getFirstExtentFileURI() ? 0
                                                                              : getLength(files.get(), uri),
                      {}};
    CEmptyExtents empty(files.get(), uri.getParent() << String("empty"), kind.isCompressed, grainSize);
    for (const auto& [key, value] : disk->getExtentMap()) {
        const int64 size = key.sizeSectors * vmdkSectorSize;
        const int64 length =
            plan.extents.empty() ? getLength(files.get(), value.uri) : empty.getLengthFor(size);
        plan.extents.push_back({key.startSector * vmdkSectorSize, size, length});
    }
    if (isReckoned) {
        plan.sizeBytes = CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(sizeBytes);
        plan.extents.front().sizeBytes = plan.sizeBytes;
        plan.extents.front().emptyBytes += reckonMoreMetadata(plan.sizeBytes, largestCompressed, grainSize);
    }
    return plan;
}

} // namespace

std::size_t UNewDiskPlan::findExtent(int64 position) const {
    const auto behind =
        std::upper_bound(extents.begin(), extents.end(), position,
                         [](int64 wanted, const UExtent& extent) { return wanted < extent.position; });
    return static_cast<std::size_t>(behind - extents.begin()) - 1;
}

int64 UNewDiskPlan::addUp(const std::vector<int64>& storedBytes) const {
    int64 bytes = descriptorFileBytes;
    for (std::size_t i = 0; i < extents.size(); ++i)
        if (i == 0 || !isOnDemand || storedBytes[i] > 0)
            bytes += extents[i].emptyBytes + storedBytes[i];
    return bytes;
}

int64 UNewDiskPlan::countFiles(const std::vector<int64>& storedBytes) const {
    int64 count = descriptorFileBytes > 0 ? 1 : 0;
    for (std::size_t i = 0; i < extents.size(); ++i)
        if (i == 0 || !isOnDemand || storedBytes[i] > 0)
            ++count;
    return count;
}

int64 getEncryptedSlotBytes(int64 recordBytes) {
    constexpr int64 headSize = CVMDKDataPreparer::recordHeadSize;
    constexpr int64 blockSize = 16; // of AES
    return roundUp(headSize + roundUp(recordBytes - headSize, blockSize), vmdkSectorSize);
}

UNewDiskPlan planNewDisk(const std::string& name, int64 sizeBytes, const UCreateOptions& options,
                         bool encrypted, CVMDKDisk* parent) {
    const UNewDiskKind kind = chooseKindOfNewDisk(options, parent);
    const CURI uri = CURI(String("memory:/folder")) << uriFromName(name).getName();
    return about(name, [&] {
        try {
            UNewDiskPlan plan =
                planFiles(uri, parent ? parent->getSizeBytes() : sizeBytes, kind, options.onDemand);
            plan.isEncrypted = encrypted;
            return plan;
        } catch (const CError& error) {
            throwUsageErrorOfNewDisk(error, options);
            throw;
        }
    });
}

} // namespace tessel::cli
