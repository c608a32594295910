#pragma once

#include "CPasswords.h"
#include "tessel/CVMDKDisk.h"

#include <filesystem>

// Opening disks, and what can be told of them without opening them.

namespace tessel::cli {

/// Throws: CFailure when there is no such file, or it is surely no disk: a raw image, say.
void verifyMayBeDisk(const std::string& name);

/// Opens a disk, which reaches `files` as far as confine() lets it. Throws: CFailure, which names it.
P<CVMDKDisk> openDisk(const std::string& name, IIOStream::Access access, const String& password,
                      IFileSystem* files, int compressionLevel = -1, CVMDKDisk* parent = nullptr);

/// Tells of a disk and its parents that were renamed or copied by hand. Throws: CFailure when files of the
/// disk are missing for that reason. openDisk() does this.
void verifyNames(const std::string& name, IFileSystem* files);

/// The descriptor of a disk's main file. No lock is taken, nothing else is opened. Throws: CFailure.
P<CVMDKDescriptor> readDescriptor(const std::string& name);

/// Whether a disk or one of its parents is encrypted, as far as that can be told.
bool needsPassword(const std::string& name);

/// Whether the first bytes of a file are those of a VMDK: a sparse extent or a text descriptor.
bool looksLikeVMDK(const unsigned char* bytes, int count);

/// Throws: CFailure when a parent of a disk, or a parent's parent, is missing where it should be. What else
/// may be wrong with them, whoever opens them is told.
void verifyParentsAreThere(const std::string& name);

/// The parents of an open disk, which the user calls `name`, nearest first, opened for reading once more by
/// themselves, as far as `disk` may name files. Throws: CFailure when one cannot be opened or has changed.
TArray<P<CVMDKDisk>> openParents(const std::string& name, CVMDKDisk& disk, const String& password,
                                 IFileSystem* files);

/// The files of a disk and of its parents, or of a raw image, as far as they can be told without opening more
/// than descriptors.
TArray<std::filesystem::path> listFilesOfChain(const std::string& name);

/// The reference by which a child in the folder of `childName` records its parent: relative where that leads
/// to the parent, else absolute. Throws: CFailure when no reference does.
String makeParentReference(const std::string& childName, const std::string& parentName);

/// The same, never relative.
String makeAbsoluteParentReference(const std::string& childName, const std::string& parentName);

/// Throws: CFailure when the range does not lie within a disk of this size.
void verifyRange(const std::string& name, int64 diskSize, int64 offset, int64 length);

/// Without a parent.
constexpr unsigned int noContentID = 0xFFFFFFFF;

} // namespace tessel::cli
