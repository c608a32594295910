#pragma once

#include "lum/IFileSystem.h"
#include "tessel/CVMDKDescriptor.h"
#include "tessel/CVMDKSparseExtentHeader.h"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

// Which files a disk has, also one whose main file was renamed or copied by hand.

namespace tessel::cli {

/// A disk's main file, as far as it tells without anything else being opened.
struct UMainFile {
    CURI uri; ///< in normal form
    P<CVMDKDescriptor> descriptor;
    bool isEmbedded = false; ///< the descriptor is in the first extent
    bool isRenamed = false;  ///< it is the disk's only extent, though the descriptor names another file

    /// Where an extent is: as the disk is opened, not always as the descriptor says.
    CURI findExtent(const CVMDKExtentInfo& extent) const;
    /// Where the parent should be. False, with `parent` as it was, for a disk without one.
    bool tryGetParent(CURI& parent) const;
    /// The extents that take a place in the disk.
    TArray<P<CVMDKExtentInfo>> getExtents() const;
};

/// No lock is taken. Throws: the library's errors, and for what is surely no disk CError.
UMainFile readMainFile(IFileSystem* files, const CURI& uri);

/// Calls `visit` with the main file of a disk and of its parents, nearest first, as far as the disk may name
/// them, until it returns false or there is none that can be read.
void walkChain(const std::string& name, const std::function<bool(const UMainFile& file)>& visit);

/// The header that an extent begins with. Throws: the library's errors.
P<CVMDKSparseExtentHeader> readExtentHeader(IFileSystem* files, const CURI& uri);

/// The name that an extent has beside a main file of the name `mainFile`: its number, which `oldName` ends
/// with or which is `index`, behind that name, as in disk-s00001.vmdk.
std::string makeExtentName(const std::string& mainFile, const std::string& oldName, std::size_t index);

/// The first disk beside the file, by name, that has it as an extent and is none of `own`; empty without one.
std::string findOtherOwner(IFileSystem* files, const std::filesystem::path& extent,
                           const std::vector<std::filesystem::path>& own);

/// Tells, once for each file, that a disk is taken for what it is and not for what its descriptor says.
/// `files` follows links: a name that leads to the file that the descriptor names is no other name.
void tellIfRenamed(IFileSystem* files, const UMainFile& file, const std::string& name);

/// What it means for a disk that a file of its own or of a parent is not there, and what helps; empty when
/// none of them names that file, or they cannot be read. `missing`: its path as showPaths() has it.
std::string explainMissingFile(const std::string& name, const std::string& missing);

/// Throws: CFailure when files of a disk are missing because it was renamed by hand: it names them, and the
/// verb that mends it. Whatever else is wrong with a disk, whoever opens it is told.
void verifyFilesAreNotRenamed(const std::string& name, const UMainFile& file);

} // namespace tessel::cli
