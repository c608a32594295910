#include "DiskFacts.h"

#include "Confinement.h"
#include "DiskFiles.h"
#include "Errors.h"
#include "Names.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

int64 getFileSize(const fs::path& path) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(path, error);
    if (error)
        throw CFailure(nameFromPath(path), "Cannot look up file: " + describeSystemError(error));
    return static_cast<int64>(size);
}

/// A disk may name a large file as often as it likes.
void addUp(int64& sum, int64 bytes) {
    sum = bytes > INT64_MAX - sum ? INT64_MAX : sum + bytes;
}

UExtentFacts collectExtent(const CVMDKExtentInfo& extent, const CURI& uri, const std::string& disk) {
    UExtentFacts facts;
    facts.access = extent.getAccess().toUTF8Lossy();
    facts.type = extent.getType().toUTF8Lossy();
    facts.sizeBytes =
        std::clamp<int64>(extent.getSizeSectors(), 0, INT64_MAX / vmdkSectorSize) * vmdkSectorSize;
    facts.file = showPaths(uri.toString(true));
    facts.isOutside = !isAllowedFor(disk, uri);
    if (facts.isOutside)
        return facts;
    const fs::path path = pathFromURI(uri);
    facts.file = nameFromPath(path);
    facts.isThere = fs::is_regular_file(path);
    if (facts.isThere) {
        facts.fileSizeBytes = getFileSize(path);
        facts.allocatedBytes = getAllocatedSize(path);
    }
    return facts;
}

void collectParent(const CVMDKDescriptor& descriptor, const CURI& folder, const std::string& disk,
                   UDiskFacts& facts) {
    facts.parentContentID = descriptor.getParentContentID();
    String reference;
    if (facts.parentContentID == noContentID || !descriptor.tryGetParentFileNameHint(reference))
        return;
    facts.parentReference = reference.toUTF8Lossy();
    const CURI uri = vmdkFileReferenceToURI(folder, reference);
    facts.parentFile = showPaths(uri.toString(true));
    facts.isParentOutside = !isAllowedFor(disk, uri);
    if (facts.isParentOutside)
        return;
    const fs::path path = pathFromURI(uri);
    facts.parentFile = nameFromPath(path);
    facts.isParentThere = fs::is_regular_file(path);
}

void collectGrains(IFileSystem* files, const CURI& uri, UDiskFacts& facts) {
    const P<CVMDKSparseExtentHeader> header = readExtentHeader(files, uri);
    constexpr unsigned long long largest = INT64_MAX / vmdkSectorSize;
    facts.grainSizeBytes =
        static_cast<int64>(std::min(header->getGrainSizeSectors(), largest)) * vmdkSectorSize;
    facts.isCompressed = header->getCompressAlgorithm() != 0 ||
                         (header->getFlags() & CVMDKSparseExtentHeader::Flag_Compressed) != 0;
}

} // namespace

UDiskFacts collectDiskFacts(const std::string& name, IFileSystem* files) {
    const CURI uri = uriFromName(name);
    const UMainFile file = readMainFile(files, uri);
    const P<CVMDKDescriptor> descriptor = file.descriptor;
    const CURI folder = uri.getParent();
    UDiskFacts facts;
    facts.kind = descriptor->getCreateType().toUTF8Lossy();
    facts.isDescriptorEmbedded = file.isEmbedded;
    facts.contentID = descriptor->getContentID();
    facts.isEncrypted = !descriptor->getLumEncryptionAlgorithm().isEmpty();
    facts.isOnDemand = descriptor->getLumCreateExtentFilesOnDemand();
    collectParent(*descriptor, folder, name, facts);
    if (!facts.isDescriptorEmbedded) {
        facts.allocatedBytes = getAllocatedSize(pathFromURI(uri));
        facts.fileSizeBytes = getFileSize(pathFromURI(uri));
    }

    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    for (const auto& extent : extents) {
        const CURI extentURI = file.findExtent(*extent);
        UExtentFacts found = collectExtent(*extent, extentURI, name);
        found.startBytes = facts.sizeBytes;
        addUp(facts.sizeBytes, found.sizeBytes);
        addUp(facts.allocatedBytes, found.allocatedBytes);
        addUp(facts.fileSizeBytes, found.fileSizeBytes);
        if (found.isThere && found.type == "SPARSE" && facts.grainSizeBytes < 0)
            collectGrains(files, extentURI, facts);
        facts.extents.push_back(std::move(found));
    }
    return facts;
}

Json toJson(const std::string& name, const UDiskFacts& facts) {
    Json json;
    json["file"] = name;
    json["kind"] = facts.kind;
    json["sizeBytes"] = facts.sizeBytes;
    json["grainSizeBytes"] = facts.grainSizeBytes < 0 ? Json(nullptr) : Json(facts.grainSizeBytes);
    json["contentID"] = toHexString(facts.contentID).toUTF8();
    json["compressed"] = facts.isCompressed;
    json["encrypted"] = facts.isEncrypted;
    json["onDemand"] = facts.isOnDemand;
    json["descriptorEmbedded"] = facts.isDescriptorEmbedded;
    json["allocatedBytes"] = facts.allocatedBytes;
    json["fileSizeBytes"] = facts.fileSizeBytes;
    json["parent"] = nullptr;
    if (facts.parentContentID != noContentID)
        json["parent"] = Json({{"reference", facts.parentReference},
                               {"file", facts.parentFile},
                               {"contentID", toHexString(facts.parentContentID).toUTF8()},
                               {"outside", facts.isParentOutside},
                               {"exists", facts.isParentThere}});
    json["extents"] = Json::array();
    for (const UExtentFacts& extent : facts.extents)
        json["extents"].push_back(
            {{"file", extent.file},
             {"access", extent.access},
             {"type", extent.type},
             {"startBytes", extent.startBytes},
             {"sizeBytes", extent.sizeBytes},
             {"outside", extent.isOutside},
             {"exists", extent.isThere},
             {"fileSizeBytes", extent.isThere ? Json(extent.fileSizeBytes) : Json(nullptr)},
             {"allocatedBytes", extent.isThere ? Json(extent.allocatedBytes) : Json(nullptr)}});
    return json;
}

Json describeDisk(const std::string& name) {
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const P<IFileSystem> files = confine(native.get(), name);
    return toJson(name, about(name, [&] { return collectDiskFacts(name, files.get()); }));
}

} // namespace tessel::cli
