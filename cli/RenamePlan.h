#pragma once

#include "DiskFiles.h"

#include <filesystem>
#include <string>
#include <vector>

namespace tessel::cli {

/// What has to be done so that a disk has another name. The plan for a disk whose renaming was interrupted is
/// what is still to be done.
struct URenamePlan {
    struct UMove {
        std::filesystem::path from; ///< the file as it is found; `to` where it has its name already
        std::filesystem::path to;
        /// A name by which another try finds the file, whatever name the main file has for it.
        std::filesystem::path interim;
        std::vector<std::filesystem::path> obsolete; ///< other names of the same file
    };

    /// As far as the disk may use them under its old and its new name.
    P<IFileSystem> oldFiles;
    P<IFileSystem> newFiles;
    UMainFile main;
    /// Of the main file. No folder in these paths is a link, so that a name has one spelling only.
    std::filesystem::path oldPath;
    std::filesystem::path newPath;
    /// The extents that have files of their own.
    std::vector<UMove> moves;
    P<CVMDKDescriptor> descriptor; ///< as it shall be
    /// As `descriptor`, with a reference to the parent that leads there from both folders; null where the
    /// reference stays.
    P<CVMDKDescriptor> between;
    bool isNewMainThere = false; ///< left by a renaming that was interrupted

    bool staysInPlace() const { return oldPath == newPath; }
};

/// Nothing is changed, and of the files that the disk names only those that it may name are looked at.
/// Throws: CFailure when a file has one of the new names, when it cannot be told which files are the disk's,
/// or when they cannot be moved.
URenamePlan makeRenamePlan(IFileSystem* files, const std::string& name, const std::string& newName);

} // namespace tessel::cli
