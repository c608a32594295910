#include "Disks.h"

#include "Confinement.h"
#include "DiskFiles.h"
#include "DiskSignature.h"
#include "Errors.h"
#include "Names.h"
#include "lum/CFileSystemError.h"
#include "lum/CNativeFileSystem.h"
#include "tessel/CVMDKParentDiskDataProvider.h"
#include "tessel/VMDKFileReference.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <optional>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

bool isSurelyNoDisk(const std::string& name) {
    std::array<unsigned char, diskSignatureSize> bytes{};
    std::ifstream file(pathFromName(name), std::ios::binary);
    file.read(reinterpret_cast<char*>(bytes.data()), bytes.size());
    return isSurelyNoVMDK(bytes.data(), static_cast<int>(file.gcount()));
}

bool leadsTo(const CURI& folder, const String& reference, const CURI& parent) {
    if (reference.Contains("\"") || reference.Contains("\n") || reference.Contains("\r"))
        return false;
    const CURI found = vmdkFileReferenceToURI(folder, reference);
    return found == parent || isSameFile(pathFromURI(found), pathFromURI(parent));
}

/// The first of the paths that is read as the parent.
String chooseReference(const std::string& childName, const std::string& parentName,
                       const std::vector<fs::path>& paths) {
    const CURI folder = uriFromName(childName).toNormalized().getParent();
    const CURI parent = uriFromName(parentName).toNormalized();
    return about(parentName, [&] {
        for (const fs::path& path : paths) {
            const std::u8string text = path.generic_u8string();
            if (text.empty())
                continue;
            String reference =
                String::fromUTF8(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()));
            if (leadsTo(folder, reference, parent))
                return reference;
        }
        throw CFailure(parentName, "Its name cannot be recorded in a child: it would be read as another one");
    });
}

} // namespace

void verifyMayBeDisk(const std::string& name) {
    verifyIsFile(name);
    std::error_code ignored;
    if (fs::is_regular_file(pathFromName(name), ignored) && fs::file_size(pathFromName(name), ignored) == 0)
        throw CFailure(name, "This is no VMDK disk: the file is empty");
    if (fs::is_regular_file(pathFromName(name), ignored) && isSurelyNoDisk(name))
        throw CFailure(name, "This is no VMDK disk: it begins with neither a sparse extent nor a descriptor");
}

P<CVMDKDisk> openDisk(const std::string& name, IIOStream::Access access, const String& password,
                      IFileSystem* files, int compressionLevel, CVMDKDisk* parent) {
    verifyMayBeDisk(name);
    verifyNames(name, files);
    const P<IFileSystem> confined = confine(files, name);
    return about(name, [&] {
        return CVMDKDisk::openRenamed(confined.get(), uriFromName(name), access, password, compressionLevel,
                                      nullptr, parent);
    });
}

void verifyNames(const std::string& name, IFileSystem* files) {
    const P<IFileSystem> confined = confine(files, name);
    std::optional<UMainFile> main;
    walkChain(name, [&](const UMainFile& file) {
        tellIfRenamed(confined.get(), file, main ? nameFromPath(pathFromURI(file.uri)) : name);
        if (!main)
            main = file;
        return true;
    });
    if (main)
        verifyFilesAreNotRenamed(name, *main);
}

P<CVMDKDescriptor> readDescriptor(const std::string& name) {
    verifyMayBeDisk(name);
    const P<IFileSystem> native(new CNativeFileSystem(false));
    const P<IFileSystem> files = confine(native.get(), name);
    return about(name, [&] { return readMainFile(files.get(), uriFromName(name)).descriptor; });
}

bool needsPassword(const std::string& name) {
    bool isEncrypted = false;
    walkChain(name, [&](const UMainFile& file) {
        isEncrypted = !file.descriptor->getLumEncryptionAlgorithm().isEmpty();
        return !isEncrypted;
    });
    return isEncrypted;
}

bool looksLikeVMDK(const unsigned char* bytes, int count) {
    return beginsLikeVMDK(bytes, count);
}

void verifyParentsAreThere(const std::string& name) {
    std::string missing;
    walkChain(name, [&](const UMainFile& file) {
        CURI parent;
        if (file.tryGetParent(parent) && isAllowedFor(name, parent) && !somethingExists(pathFromURI(parent)))
            missing = showPaths(parent.toString(true));
        return missing.empty();
    });
    if (!missing.empty())
        throw CFailure(name, explainMissingFile(name, missing));
}

TArray<P<CVMDKDisk>> openParents(const std::string& name, CVMDKDisk& disk, const String& password,
                                 IFileSystem* files) {
    // What a disk may name its parents may name, not what lies beside those.
    const P<IFileSystem> confined = confine(files, nameFromPath(pathFromURI(disk.getMainFileURI())));
    TArray<P<CVMDKDisk>> parents;
    P<CVMDKDisk> child(&disk);
    while (!child->getParentDiskMainURI().isEmpty()) {
        const std::string parentName = nameFromPath(pathFromURI(child->getParentDiskMainURI()));
        if (parents.size() >= static_cast<std::size_t>(CVMDKParentDiskDataProvider::maxChainLength))
            throw CFailure(parentName, "The chain of parents is too deep, or comes back to itself");
        const P<CVMDKDisk> parent = about(parentName, [&] {
            try {
                return CVMDKDisk::openRenamed(confined.get(), child->getParentDiskMainURI(),
                                              IIOStream::Access_Read, password, -1, nullptr, nullptr);
            } catch (const CFileSystemError& error) {
                if (error.getProblem() != CFileSystemError::Problem_NotFound)
                    throw;
                throw CFailure(name, explainError(error, name));
            }
        });
        if (parent->getDescriptor()->getContentID() != child->getDescriptor()->getParentContentID())
            throw CFailure(parentName, "This disk has changed since a child was made from it");
        parents.push_back(parent);
        child = parent;
    }
    return parents;
}

TArray<fs::path> listFilesOfChain(const std::string& name) {
    TArray<fs::path> paths = {pathFromName(name)};
    walkChain(name, [&](const UMainFile& file) {
        paths.push_back(pathFromURI(file.uri));
        for (const auto& extent : file.getExtents())
            paths.push_back(pathFromURI(file.findExtent(*extent)));
        return true;
    });
    return paths;
}

String makeParentReference(const std::string& childName, const std::string& parentName) {
    const fs::path parent = pathFromURI(uriFromName(parentName).toNormalized());
    const fs::path folder = pathFromURI(uriFromName(childName).toNormalized().getParent());
    // By names alone, as references are read; links on the way are not followed.
    return chooseReference(childName, parentName, {parent.lexically_relative(folder), parent});
}

String makeAbsoluteParentReference(const std::string& childName, const std::string& parentName) {
    return chooseReference(childName, parentName, {pathFromURI(uriFromName(parentName).toNormalized())});
}

void verifyRange(const std::string& name, int64 diskSize, int64 offset, int64 length) {
    if (offset > diskSize || length > diskSize - offset)
        throw CFailure(name, std::to_string(length) + " bytes from " + std::to_string(offset) +
                                 " on reach beyond the disk's end at " + std::to_string(diskSize));
}

} // namespace tessel::cli
