#pragma once

#include "CNewDisk.h"

#include <string>
#include <vector>

// How large the files of a new disk will be.

namespace tessel::cli {

struct UNewDiskPlan {
    /// A range of the disk that has a file of its own.
    struct UExtent {
        int64 position;   ///< bytes in the disk
        int64 sizeBytes;  ///< of the disk
        int64 emptyBytes; ///< length of the file in which nothing is stored
    };

    /// "monolithicSparse" and so on.
    std::string kind;
    int64 sizeBytes;
    int64 grainSizeBytes;
    bool isCompressed;
    bool isEncrypted;
    /// Files of extents behind the first are made when something is stored in them.
    bool isOnDemand;
    /// Length of a main file that is no extent; 0 when it is one.
    int64 descriptorFileBytes;
    std::vector<UExtent> extents;

    /// The extent that holds a byte of the disk.
    std::size_t findExtent(int64 position) const;
    /// The files' lengths when extent i stores grains in storedBytes[i] bytes.
    int64 addUp(const std::vector<int64>& storedBytes) const;
    /// How many files those are.
    int64 countFiles(const std::vector<int64>& storedBytes) const;
};

/// Bytes that a compressed grain's record takes in an encrypted file: behind the head, which stays plain,
/// whole blocks are ciphered.
int64 getEncryptedSlotBytes(int64 recordBytes);

/// What CNewDisk would make of the same arguments, found out without making any file. `parent` may be null.
/// Throws: CUsageError; CFailure about `name`.
UNewDiskPlan planNewDisk(const std::string& name, int64 sizeBytes, const UCreateOptions& options,
                         bool encrypted, CVMDKDisk* parent);

} // namespace tessel::cli
