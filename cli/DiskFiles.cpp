#include "DiskFiles.h"

#include "Confinement.h"
#include "DiskSignature.h"
#include "Disks.h"
#include "Errors.h"
#include "Names.h"
#include "lum/CNativeFileSystem.h"
#include "tessel/CVMDKDescriptorAccessor.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/VMDKFileReference.h"
#include "tessel/VMDKRenamedFile.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

/// The number that the name of an extent ends with, as in "disk-s00001.vmdk"; empty without one.
std::string findNumber(const std::string& name) {
    const std::string stem = nameFromPath(pathFromName(name).stem());
    const std::size_t start = stem.find_last_not_of("0123456789");
    const bool isNumbered = start != std::string::npos && start + 1 < stem.size() && start >= 1 &&
                            stem[start] == 's' && stem[start - 1] == '-';
    return isNumbered ? stem.substr(start + 1) : std::string();
}

std::string nameOf(const CURI& uri) {
    return uri.getName().toUTF8Lossy();
}

/// Whoever looks at files that nobody calls a disk shall not be warned of what an image holds in place of a
/// descriptor. Throws: CError.
void verifyMayBeMainFile(IIOStream& stream) {
    std::array<unsigned char, diskSignatureSize> bytes{};
    const auto count = static_cast<int>(std::min<int64>(stream.getLength(), diskSignatureSize));
    stream.read(bytes.data(), count);
    if (isSurelyNoVMDK(bytes.data(), count))
        throw CError("This is no VMDK disk: it begins with neither a sparse extent nor a descriptor");
}

/// At most so many names, in one line.
std::string list(const std::vector<std::string>& names) {
    constexpr std::size_t most = 5;
    std::string text;
    for (std::size_t i = 0; i < std::min(most, names.size()); ++i)
        text += (i > 0 ? ", " : "") + names[i];
    return names.size() > most ? text + " and " + std::to_string(names.size() - most) + " more" : text;
}

} // namespace

CURI UMainFile::findExtent(const CVMDKExtentInfo& extent) const {
    return isRenamed ? uri : vmdkFileReferenceToURI(uri.getParent(), extent.getFilename());
}

bool UMainFile::tryGetParent(CURI& parent) const {
    String reference;
    if (descriptor->getParentContentID() == noContentID || !descriptor->tryGetParentFileNameHint(reference))
        return false;
    parent = vmdkFileReferenceToURI(uri.getParent(), reference);
    return true;
}

TArray<P<CVMDKExtentInfo>> UMainFile::getExtents() const {
    TArray<P<CVMDKExtentInfo>> extents;
    descriptor->getExtentEntries(extents);
    std::erase_if(extents, [](const auto& extent) { return extent->getSizeSectors() == 0; });
    return extents;
}

UMainFile readMainFile(IFileSystem* files, const CURI& uri) {
    const P<IIOStream> stream = openVMDKFileStream(files, uri, IIOStream::Access_Read);
    verifyMayBeMainFile(*stream);
    const P<CVMDKDescriptorAccessor> accessor(
        new CVMDKDescriptorAccessor(stream.get(), IIOStream::Access_Read));
    UMainFile file{uri.toNormalized(), accessor->getDescriptor(), accessor->getEmbeddedInSparseExtentFile()};
    file.isRenamed = file.isEmbedded && isRenamedVMDKFile(*file.descriptor, file.uri);
    return file;
}

P<CVMDKSparseExtentHeader> readExtentHeader(IFileSystem* files, const CURI& uri) {
    const P<IIOStream> stream = openVMDKFileStream(files, uri, IIOStream::Access_Read);
    CDataInStream in(stream.get());
    P<CVMDKSparseExtentHeader> header(new CVMDKSparseExtentHeader);
    header->load(in);
    return header;
}

std::string makeExtentName(const std::string& mainFile, const std::string& oldName, std::size_t index) {
    std::string number = findNumber(oldName);
    if (number.empty()) {
        number = std::to_string(index);
        number.insert(0, number.size() < 5 ? 5 - number.size() : 0, '0');
    }
    const fs::path path = pathFromName(mainFile);
    return nameFromPath(path.stem()) + "-s" + number + nameFromPath(path.extension());
}

std::string findOtherOwner(IFileSystem* files, const fs::path& extent, const std::vector<fs::path>& own) {
    std::set<fs::path> mainFiles;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(extent.parent_path(), ignored)) {
        const auto isEntry = [&](const fs::path& path) { return isSameFile(entry.path(), path); };
        if (entry.is_regular_file(ignored) && hasExtension(nameFromPath(entry.path()), ".vmdk") &&
            std::none_of(own.begin(), own.end(), isEntry))
            mainFiles.insert(entry.path());
    }
    for (const fs::path& path : mainFiles) {
        try {
            const UMainFile file = readMainFile(files, uriFromPath(path));
            for (const auto& each : file.getExtents())
                if (isSameFile(pathFromURI(file.findExtent(*each)), extent))
                    return nameFromPath(path);
        } catch (const CError&) {   // NOLINT(bugprone-empty-catch): no disk, so no owner
        } catch (const CFailure&) { // NOLINT(bugprone-empty-catch): the same
        }
    }
    return std::string();
}

void tellIfRenamed(IFileSystem* files, const UMainFile& file, const std::string& name) {
    static std::set<std::string> told;
    if (!file.isRenamed)
        return;
    const String reference = file.getExtents().front()->getFilename();
    const CURI real = files->followLinks(file.uri);
    if (vmdkFileReferenceToURI(real.getParent(), reference) == real ||
        !told.insert(showPaths(file.uri.toString(true))).second)
        return;
    tellNote(name + ": The disk was renamed or copied by hand: its descriptor still names \"" +
             reference.toUTF8Lossy() + "\", which is not looked at (tessel rename " + name + " " + name +
             " puts it right)");
}

void walkChain(const std::string& name, const std::function<bool(const UMainFile& file)>& visit) {
    try {
        CURI uri = uriFromName(name).toNormalized();
        const P<IFileSystem> native(new CNativeFileSystem(false));
        const P<IFileSystem> files = confine(native.get(), name);
        for (int depth = 0; depth <= CVMDKParentDiskDataProvider::maxChainLength; ++depth) {
            const UMainFile file = readMainFile(files.get(), uri);
            if (!visit(file) || !file.tryGetParent(uri))
                return;
        }
    } catch (const CError&) {   // NOLINT(bugprone-empty-catch): whoever opens the disk is told what is wrong
    } catch (const CFailure&) { // NOLINT(bugprone-empty-catch): the same
    }
}

std::string explainMissingFile(const std::string& name, const std::string& missing) {
    const auto isIt = [&](const CURI& uri) { return showPaths(uri.toString(true)) == missing; };
    std::string explained;
    bool isParent = false;
    walkChain(name, [&](const UMainFile& main) {
        const std::string holder = isParent ? nameFromPath(pathFromURI(main.uri)) : name;
        CURI parent;
        if (main.tryGetParent(parent) && isIt(parent))
            explained = isParent ? "The parent of its parent " + holder + " is missing: " + missing +
                                       " (tessel rebase " + holder +
                                       " NEW_PARENT tells it where the parent is now)"
                                 : "Its parent is missing: " + missing + " (tessel rebase " + holder +
                                       " NEW_PARENT tells it where the parent is now)";
        const TArray<P<CVMDKExtentInfo>> extents = main.getExtents();
        if (std::any_of(extents.begin(), extents.end(),
                        [&](const auto& extent) { return isIt(main.findExtent(*extent)); }))
            explained = isParent ? "A file of its parent " + holder + " is missing: " + missing
                                 : "A file of the disk is missing: " + missing;
        isParent = true;
        return explained.empty();
    });
    return explained;
}

void verifyFilesAreNotRenamed(const std::string& name, const UMainFile& file) {
    if (file.isRenamed)
        return;
    const TArray<P<CVMDKExtentInfo>> extents = file.getExtents();
    const std::string mainName = nameOf(file.uri);
    std::vector<std::string> missing;
    for (std::size_t i = 0; i < extents.size(); ++i) {
        // Files that are made on demand need not be there, but for the first.
        if (i > 0 && file.descriptor->getLumCreateExtentFilesOnDemand())
            break;
        const CURI uri = file.findExtent(*extents[i]);
        const std::string extentName = nameOf(uri);
        const bool isMain = i == 0 && file.isEmbedded;
        // A file that is named after the main file is missing for another reason.
        if (extentName != (isMain ? mainName : makeExtentName(mainName, extentName, i)) &&
            isAllowedFor(name, uri) && !somethingExists(pathFromURI(uri)))
            missing.push_back(extentName);
    }
    if (!missing.empty())
        throw CFailure(name, "Files of the disk are missing: " + list(missing) +
                                 "; if it was renamed by hand, its files too, tessel rename " + name + " " +
                                 name + " puts it right");
}

} // namespace tessel::cli
