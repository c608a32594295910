// Creating a disk: its kind, the sizes of its extents, its descriptor, its files.

#include "disk/DiskKeys.h"
#include "lum/CInvalidArgError.h"
#include "lum/CMTRand.h"
#include "lum/CMutexLock.h"
#include "lum/CStringFormat.h"
#include "lum/Numbers.h"
#include "tessel/CVMDKDisk.h"
#include "tessel/CVMDKGrainDirectory.h"
#include "tessel/VMDKEmptyExtentFile.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel {

namespace {

const char* const method = "CVMDKDisk::create";

constexpr unsigned int noContentID = 0xFFFFFFFF;
constexpr int64 maxFileSize = 2199023255552; // 2 TiB: what 32-bit sector numbers reach
constexpr int64 grainBytes = 65536;
constexpr int64 grainSectors = grainBytes / vmdkSectorSize;
constexpr int64 tableEntries = 512;
constexpr int64 worstExtentLineBytes = 48; // beside the file name
constexpr int64 worstExtentCount = 32768;
constexpr int64 descriptorSlackBytes = 32768;
constexpr int64 singleFile = -1;

constexpr int64 roundDownToGrain(int64 bytes) {
    return bytes / grainBytes * grainBytes;
}

/// How a disk is cut into extents.
struct UDiskPlan {
    int64 sectors = 0;
    int64 grains = 0;
    bool descriptorEmbedded = false;
    String createType;
    int64 grainsPerExtent = 0;
    int64 descriptorSectors = 0;
};

/// Metadata that an extent of `fileBytes` can need at worst, without a descriptor.
int64 calcWorstMetadataBytes(int64 fileBytes, bool compressed) {
    const int64 grains = fileBytes / grainBytes;
    const int64 tables = (grains + tableEntries - 1) / tableEntries;
    const int64 directorySectors = (4 * tables + vmdkSectorSize - 1) / vmdkSectorSize;
    // Directory and tables twice, and the header.
    int64 bytes = (directorySectors + 4 * tables) * 1024 + 512;
    if (compressed) // the markers of the stream form
        bytes += (4 * tables + 3 + directorySectors + tables) * 512;
    return bytes;
}

UDiskPlan planDisk(int64 sizeBytes, bool compressed, int64 maxFileSizeBytes, const String& mainFileName) {
    if (maxFileSizeBytes < singleFile)
        throw CInvalidArgError(method,
                               "Invalid VMDK file size limit: " + toDecimal(maxFileSizeBytes) +
                                   " bytes (allowed: -1 for a single file, or 0 and above).",
                               CProps().add("maxFileSizeBytes", maxFileSizeBytes));
    constexpr int64 largestSize = INT64_MAX / grainBytes * grainBytes;
    if (sizeBytes > largestSize)
        throw CInvalidArgError(method,
                               "Invalid VMDK disk size: " + toDecimal(sizeBytes) + " bytes (at most " +
                                   toDecimal(largestSize) + ").",
                               CProps().add("sizeBytes", sizeBytes));
    const int64 limit = std::min(maxFileSizeBytes, maxFileSize);
    const int64 size = CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(sizeBytes);
    if (size > maxFileSize && limit == singleFile)
        throw CInvalidArgError(
            method,
            "Invalid VMDK disk size for single unsplittable disk file: " + toDecimal(size) + " bytes.",
            CProps().add("sizeBytes", size));
    UDiskPlan plan;
    plan.sectors = size / vmdkSectorSize;
    plan.grains = size / grainBytes;
    plan.descriptorEmbedded = limit == singleFile || compressed;
    plan.createType = compressed            ? "streamOptimized"
                      : limit == singleFile ? "monolithicSparse"
                                            : "twoGbMaxExtentSparse";

    // No extent file may outgrow the target, even when its grains do not compress and are placed twice.
    int64 targetFileBytes = 0;
    if (limit == singleFile)
        targetFileBytes = (size + 1048576) * 10; // at most 2 TiB, so this fits
    else
        targetFileBytes = compressed ? (limit - 1) / 2 : limit - 1;
    const auto nameBytes = static_cast<int64>(mainFileName.toUTF8().size());
    const int64 worstLineBytes = nameBytes + worstExtentLineBytes;
    const int64 worstDescriptorBytes = worstLineBytes * worstExtentCount + descriptorSlackBytes;
    int64 overheadBytes = calcWorstMetadataBytes(targetFileBytes, compressed);
    if (plan.descriptorEmbedded)
        overheadBytes += worstDescriptorBytes;
    overheadBytes = (overheadBytes + grainBytes - 1) / grainBytes * grainBytes;
    if (compressed) // the slot size directory
        overheadBytes += (targetFileBytes / grainBytes + 3) * 512;
    const int64 payloadBytes = roundDownToGrain(targetFileBytes - overheadBytes);
    if (payloadBytes < grainBytes)
        throw CError("Internal error: calculated VMDK maxExtentPayloadBytes is less than grain size: " +
                     toDecimal(payloadBytes));
    // Far above every ceiling below there is no need to tell how far.
    constexpr int64 farTooMuch = INT64_MAX / 4;
    int64 linesBytes = 0;
    if (!tryMultiply(worstLineBytes, size / payloadBytes + 1, linesBytes) || linesBytes > farTooMuch)
        linesBytes = farTooMuch;
    plan.descriptorSectors = (linesBytes + descriptorSlackBytes + vmdkSectorSize - 1) / vmdkSectorSize;
    const int64 descriptorBytes = plan.descriptorSectors * vmdkSectorSize;
    if (descriptorBytes > worstDescriptorBytes)
        throw CError("Internal error: calculated VMDK descriptor size exceeds estimated worst case "
                     "descriptor size (calculated: " +
                     toDecimal(descriptorBytes) + ", worstCase: " + toDecimal(worstDescriptorBytes) + ")");
    if (descriptorBytes > CVMDKDescriptorAccessor::maxDescriptorSize)
        throw CInvalidArgError(
            method,
            "The VMDK descriptor would be too big to be read again: " + toDecimal(descriptorBytes) +
                " bytes (at most " + toDecimal(CVMDKDescriptorAccessor::maxDescriptorSize) +
                "). Choose a shorter name or a larger file size limit.",
            CProps().add("descriptorSize", descriptorBytes));
    plan.grainsPerExtent = payloadBytes / grainBytes;
    return plan;
}

unsigned int makeContentID() {
    const CMutexLock lock(CMTRand::getGlobalInstanceMutex());
    unsigned int id = 0;
    do {
        id = CMTRand::getGlobal()->rand32();
    } while (id == 0 || id == noContentID); // these mean something else
    return id;
}

TArray<P<CVMDKExtentInfo>> planExtents(const UDiskPlan& plan, const CURI& mainFileURI) {
    TArray<P<CVMDKExtentInfo>> extents;
    for (int64 placed = 0; placed < plan.grains;) {
        const auto index = static_cast<int64>(extents.size());
        const int64 grains = std::min(plan.grainsPerExtent, plan.grains - placed);
        const String number = CStringFormat("%05d") << index;
        const String name = index == 0 && plan.descriptorEmbedded
                                ? mainFileURI.getName()
                                : mainFileURI.getTitle() + "-s" + number + mainFileURI.getExtension();
        extents.emplace_back(new CVMDKExtentInfo("RW", grains * grainSectors, "SPARSE", name, -1));
        placed += grains;
    }
    return extents;
}

/// A name that a reader of the descriptor would take for another file must not be used.
void verifyNamesReadBack(const CURI& mainFileURI, const TArray<P<CVMDKExtentInfo>>& extents) {
    if (mainFileURI.getName().isEmpty())
        throw CInvalidArgError(method, "The URI of the VMDK disk names no file.",
                               CProps().add("uri", mainFileURI.toString(true)));
    const CURI folder = mainFileURI.getParent();
    const String zero(std::wstring(1, L'\0'));
    for (const auto& extent : extents) {
        const String name = extent->getFilename();
        const P<CVMDKExtentInfo> readBack = CVMDKExtentInfo::tryParseDescriptorLine(extent->toString());
        const bool staysOneLine = !name.Contains("\n") && !name.Contains("\r") && !name.Contains(zero);
        if (name.Contains(":") || name.Contains("\\") || !staysOneLine || !readBack ||
            readBack->getFilename() != name ||
            vmdkFileReferenceToURI(folder, name) != (folder << name).toNormalized())
            throw CInvalidArgError(method,
                                   "The name '" + name +
                                       "' cannot be used for a VMDK file: it may not hold quotes, colons, "
                                       "slashes, backslashes or line breaks.",
                                   CProps().add("name", name));
    }
}

void verifyParent(const CURI& mainFileURI, const CURI& folder, const String& parentRelPath,
                  const TArray<P<CVMDKExtentInfo>>& extents) {
    if (parentRelPath.isEmpty())
        return;
    const CURI parent = vmdkFileReferenceToURI(folder, parentRelPath);
    bool isOwnFile = parent == mainFileURI.toNormalized();
    for (const auto& extent : extents)
        isOwnFile = isOwnFile || parent == (folder << extent->getFilename()).toNormalized();
    if (isOwnFile)
        throw CInvalidArgError(method, "A VMDK disk cannot be its own parent: '" + parentRelPath + "'.",
                               CProps().add("parentRelPath", parentRelPath));
}

P<CVMDKDescriptor> makeDescriptor(const UDiskPlan& plan, const TArray<P<CVMDKExtentInfo>>& extents,
                                  const String& password, const String& parentRelPath,
                                  unsigned int parentContentID, bool createExtentFilesOnDemand,
                                  TBuffer<unsigned char>& keyHash) {
    P<CVMDKDescriptor> descriptor(new CVMDKDescriptor);
    descriptor->addGenericLine("# Disk DescriptorFile", true);
    descriptor->setVersion(1);
    descriptor->setEncodingUTF8();
    descriptor->setContentID(makeContentID());
    if (!parentRelPath.isEmpty())
        descriptor->setParentFileNameHint(parentRelPath);
    descriptor->setParentContentID(parentContentID);
    descriptor->setCreateType(plan.createType);
    if (createExtentFilesOnDemand)
        descriptor->setLumCreateExtentFilesOnDemand(true);
    if (!password.isEmpty())
        keyHash = addDiskKeys(*descriptor, password);
    descriptor->addGenericLine("", false);
    descriptor->addGenericLine("# Extent description", false);
    for (const auto& extent : extents)
        descriptor->addExtentEntry(extent.get());
    descriptor->addGenericLine("", false);
    descriptor->addGenericLine("# The Disk Data Base", false);
    descriptor->addGenericLine("#DDB", false);
    descriptor->setAdapterType("lsilogic");
    descriptor->setGeometrySectors(63);
    descriptor->setGeometryHeads(255);
    descriptor->setGeometryCylinders(divideRoundingUp(plan.sectors, 63 * 255));
    return descriptor;
}

/// Known before the old disk is touched. Names have their room; a long path of the parent may not.
void verifyDescriptorFits(const CVMDKDescriptor& descriptor, int64 sizeBytes) {
    const auto needed = static_cast<int64>(descriptor.toString().toUTF8().size());
    if (needed > sizeBytes)
        throw CInvalidArgError(method,
                               "The VMDK descriptor has no room for its settings: " + toDecimal(needed) +
                                   " bytes (at most " + toDecimal(sizeBytes) + ").",
                               CProps().add("descriptorSize", needed));
}

/// Empties the file first, which one flush makes durable: its removal may reach the medium at any time.
void removeOldMainFile(IFileSystem* fileSystem, const CURI& uri) {
    if (!fileSystem->fileExists(uri))
        return;
    const P<IIOStream> stream = openVMDKFileStream(fileSystem, uri, IIOStream::Access_ReadWrite);
    stream->setLength(0);
    stream->flush();
    stream->close();
    fileSystem->deleteFile(uri, true);
}

void writeDescriptorFile(IFileSystem* fileSystem, const CURI& uri, CVMDKDescriptor& descriptor,
                         int64 sizeBytes, const TBuffer<unsigned char>& zeros) {
    const P<IIOStream> stream = openVMDKFileStream(fileSystem, uri, IIOStream::Access_ReadWrite);
    stream->flush(); // of a new file: makes durable that the old files are gone
    descriptor.store(*stream, static_cast<int>(sizeBytes), zeros);
    stream->setLength(sizeBytes);
    stream->flush();
    stream->close();
}

} // namespace

P<CVMDKDisk> CVMDKDisk::create(IFileSystem* fileSystem, const CURI& mainFileURI, int64 sizeBytes,
                               const String& password, bool compressed, int compressionLevel,
                               int64 maxFileSizeBytes, const String& parentRelPath,
                               unsigned int parentContentID, bool createExtentFilesOnDemand) {
    if (parentRelPath.isEmpty() != (parentContentID == noContentID))
        throw CInvalidArgError(method,
                               "sParentRelPath and parentContentID must either both be specified or both "
                               "have the default values.",
                               CProps()
                                   .add("parentRelPath", parentRelPath)
                                   .add("parentContentID", toHexString(parentContentID)));
    const CVMDKCompressor levelCheck(compressed ? compressionLevel : -1); // refuses a level that is none
    const CURI folder = mainFileURI.getParent();
    const UDiskPlan plan = planDisk(sizeBytes, compressed, maxFileSizeBytes, mainFileURI.getName());
    const TArray<P<CVMDKExtentInfo>> extents = planExtents(plan, mainFileURI);
    verifyNamesReadBack(mainFileURI, extents);
    verifyParent(mainFileURI, folder, parentRelPath, extents);
    TBuffer<unsigned char> keyHash;
    const P<CVMDKDescriptor> descriptor = makeDescriptor(plan, extents, password, parentRelPath,
                                                         parentContentID, createExtentFilesOnDemand, keyHash);
    const int64 descriptorBytes = plan.descriptorSectors * vmdkSectorSize;
    verifyDescriptorFits(*descriptor, descriptorBytes);
    const TBuffer<unsigned char> zeros(std::max(descriptorBytes, grainBytes));
    {
        // Nobody may have the old disk open while its files go.
        const CURI lockURI = folder << (mainFileURI.getName() + ".lock");
        const P<CLockFile> lock(
            new CLockFile(fileSystem, lockURI, CLockFile::LockType_Exclusive, false, true));
        // All of the old extents, those that are made later included, go before the new descriptor is
        // there: it must never name what it was not made for. Nor may the old descriptor outlive them.
        removeOldMainFile(fileSystem, mainFileURI);
        for (const auto& extent : extents)
            fileSystem->deleteFile(folder << extent->getFilename(), true);
        if (!plan.descriptorEmbedded)
            writeDescriptorFile(fileSystem, mainFileURI, *descriptor, descriptorBytes, zeros);
        const std::size_t madeNow = createExtentFilesOnDemand ? 1 : extents.size();
        for (std::size_t i = 0; i < madeNow; ++i)
            createEmptyVMDKSparseExtentFile(fileSystem, folder << extents[i]->getFilename(), compressed,
                                            extents[i]->getSizeSectors() / grainSectors, grainSectors, zeros,
                                            i == 0 && plan.descriptorEmbedded ? descriptor.get() : nullptr,
                                            plan.descriptorSectors, keyHash);
    }
    return new CVMDKDisk(fileSystem, mainFileURI, IIOStream::Access_ReadWrite, password, compressionLevel,
                         nullptr, nullptr);
}

} // namespace tessel
