#include "Confinement.h"
#include "DiskFiles.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "Output.h"
#include "Sizes.h"
#include "Verbs.h"
#include "lum/CFileSystemError.h"
#include "lum/CNativeFileSystem.h"
#include "platform.h"
#include "tessel/CVMDKSparseExtentHeader.h"
#include "tessel/VMDKFileReference.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

struct UInfo {
    std::string disk;
    bool json = false;
    CPasswords passwords;
};

struct UExtentFacts {
    std::string file;
    std::string access;
    std::string type;
    int64 startBytes = 0;
    int64 sizeBytes = 0;
    bool isOutside = false; ///< not a file that this disk may name; not looked at
    bool isThere = false;
    int64 fileSizeBytes = 0;
    int64 allocatedBytes = 0;
};

/// What a disk's descriptor and files tell of it. None but the header of its first file is read.
struct UDiskFacts {
    std::string kind;
    int64 sizeBytes = 0;
    int64 grainSizeBytes = -1; ///< -1: the file that tells is not there
    bool isCompressed = false;
    bool isEncrypted = false;
    bool isOnDemand = false;
    bool isDescriptorEmbedded = false;
    unsigned int contentID = 0;
    unsigned int parentContentID = noContentID;
    std::string parentReference;
    std::string parentFile;
    bool isParentOutside = false;
    bool isParentThere = false;
    int64 allocatedBytes = 0;
    std::vector<UExtentFacts> extents;
};

P<CVMDKSparseExtentHeader> readHeader(IFileSystem* files, const CURI& uri) {
    const P<IIOStream> stream = openVMDKFileStream(files, uri, IIOStream::Access_Read);
    CDataInStream in(stream.get());
    P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->load(in);
    return header;
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
        facts.fileSizeBytes = static_cast<int64>(fs::file_size(path));
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
    const P<CVMDKSparseExtentHeader> header = readHeader(files, uri);
    constexpr unsigned long long largest = INT64_MAX / vmdkSectorSize;
    facts.grainSizeBytes =
        static_cast<int64>(std::min(header->getGrainSizeSectors(), largest)) * vmdkSectorSize;
    facts.isCompressed = header->getCompressAlgorithm() != 0 ||
                         (header->getFlags() & CVMDKSparseExtentHeader::Flag_Compressed) != 0;
}

UDiskFacts collect(const std::string& name, IFileSystem* files) {
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
    if (!facts.isDescriptorEmbedded)
        facts.allocatedBytes = getAllocatedSize(pathFromURI(uri));

    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    for (const auto& extent : extents) {
        const CURI extentURI = file.findExtent(*extent);
        UExtentFacts found = collectExtent(*extent, extentURI, name);
        found.startBytes = facts.sizeBytes;
        facts.sizeBytes =
            found.sizeBytes > INT64_MAX - facts.sizeBytes ? INT64_MAX : facts.sizeBytes + found.sizeBytes;
        facts.allocatedBytes += found.allocatedBytes;
        if (found.isThere && found.type == "SPARSE" && facts.grainSizeBytes < 0)
            collectGrains(files, extentURI, facts);
        facts.extents.push_back(std::move(found));
    }
    return facts;
}

void tellAsJSON(const std::string& name, const UDiskFacts& facts) {
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
    writeJson(json);
}

constexpr const char* outsideNote = "  (outside the disk's folder, not looked at; --allow DIR)";

std::string describeExtent(const UExtentFacts& extent, bool isOnDemand) {
    std::string text = extent.file + "  " + extent.type + "  " + formatSize(extent.sizeBytes);
    if (extent.isThere)
        return text + "  (file: " + formatSize(extent.fileSizeBytes) + ")";
    if (extent.isOutside)
        return text + outsideNote;
    return text + (isOnDemand ? "  (no file yet)" : "  (FILE IS MISSING)");
}

void tellAsText(const std::string& name, const UDiskFacts& facts) {
    const auto yesNo = [](bool value) { return std::string(value ? "yes" : "no"); };
    CTable table;
    table.add("disk", name);
    table.add("kind", facts.kind);
    table.add("size", formatSizeExactly(facts.sizeBytes));
    table.add("allocated", formatSizeExactly(facts.allocatedBytes));
    table.add("grain size", facts.grainSizeBytes < 0 ? "unknown" : formatSizeExactly(facts.grainSizeBytes));
    table.add("content ID", toHexString(facts.contentID).toUTF8());
    table.add("compressed", yesNo(facts.isCompressed));
    table.add("encrypted", yesNo(facts.isEncrypted));
    table.add("on demand", yesNo(facts.isOnDemand));
    if (facts.parentContentID == noContentID) {
        table.add("parent", "none");
    } else {
        table.add("parent", facts.parentFile + (facts.isParentOutside ? outsideNote
                                                : facts.isParentThere ? ""
                                                                      : "  (FILE IS MISSING)"));
        table.add("parent's ID", toHexString(facts.parentContentID).toUTF8());
    }
    for (std::size_t i = 0; i < facts.extents.size(); ++i)
        table.add("extent " + std::to_string(i), describeExtent(facts.extents[i], facts.isOnDemand));
    table.write();
}

/// What was told is of use whether the disk can be opened or not; this says whether it can.
void verifyOpens(UInfo& verb, const UDiskFacts& facts, IFileSystem* native, IFileSystem* files) {
    verifyNames(verb.disk, native);
    for (const UExtentFacts& extent : facts.extents)
        if (!extent.isThere && !extent.isOutside && !facts.isOnDemand && extent.sizeBytes > 0)
            throw CFailure(verb.disk, "A file of the disk is missing: " + extent.file);
    if (facts.isEncrypted && !verb.passwords.isGivenForOpening())
        return;
    const String& password = verb.passwords.isGivenForOpening() ? verb.passwords.getForOpening(verb.disk)
                                                                : String::getEmptyString();
    about(verb.disk, [&] {
        try {
            CVMDKDisk::openRenamed(files, uriFromName(verb.disk), IIOStream::Access_Read, password, -1,
                                   nullptr, nullptr);
        } catch (const CFileSystemError& error) {
            if (error.getProblem() != CFileSystemError::Problem_Locked)
                throw;
            tellNote(verb.disk + ": The disk is in use; what is told here may be changing");
        }
    });
}

void tellInfo(UInfo& verb) {
    verifyMayBeDisk(verb.disk);
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const P<IFileSystem> files = confine(native.get(), verb.disk);
    const UDiskFacts facts = about(verb.disk, [&] { return collect(verb.disk, files.get()); });
    if (verb.json)
        tellAsJSON(verb.disk, facts);
    else
        tellAsText(verb.disk, facts);
    verifyOpens(verb, facts, native.get(), files.get());
}

} // namespace

void addInfoVerb(CLI::App& program, VerbAction& chosen) {
    const auto verb = std::make_shared<UInfo>();
    CLI::App* const app = program.add_subcommand("info", "Tell what a disk is and which files it has");
    app->footer("  tessel info disk.vmdk\n"
                "  tessel info disk.vmdk --json");
    app->add_option("DISK", verb->disk, "Main file of the disk")->required();
    app->add_flag("--json", verb->json, "Answer for programs");
    verb->passwords.addOpenOption(*app);
    app->callback([verb, &chosen] { chosen = [verb] { tellInfo(*verb); }; });
}

} // namespace tessel::cli
