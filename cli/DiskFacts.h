#pragma once

#include "Disks.h"
#include "Output.h"

#include <string>
#include <vector>

// What a disk's descriptor and files tell of it, without its being opened.

namespace tessel::cli {

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
    // Of all its files together.
    int64 allocatedBytes = 0;
    int64 fileSizeBytes = 0;
    std::vector<UExtentFacts> extents;
};

/// None but descriptors and the header of the first file is read, and only of files that the disk may name.
/// No lock is taken. Throws: the library's errors; CFailure.
UDiskFacts collectDiskFacts(const std::string& name, IFileSystem* files);

/// The answer of `info --json`. `name`: the disk as the user calls it.
Json toJson(const std::string& name, const UDiskFacts& facts);

/// The same of a disk as it is now, for the answer of a verb that has made or changed it.
/// Throws: CFailure, which names the disk.
Json describeDisk(const std::string& name);

} // namespace tessel::cli
