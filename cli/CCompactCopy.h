#pragma once

#include "CProgress.h"
#include "CStagedFolder.h"
#include "DiskFiles.h"
#include "tessel/CVMDKDisk.h"

#include <filesystem>
#include <vector>

namespace tessel::cli {

/// A disk's files once more, in a folder of their own, without dead space and without grains of zeros that
/// hide nothing. Each of them can take the place of the file that it is made from, whether the others do or
/// not.
class CCompactCopy {
public:
    /// `disk` is open for writing, and so locked; `parent` may be null. Throws: CFailure for a disk whose
    /// files do not lie side by side, and when making the files fails.
    CCompactCopy(std::string name, CVMDKDisk* disk, CVMDKDisk* parent, IFileSystem* files,
                 const String& password);
    ~CCompactCopy();
    CCompactCopy(const CCompactCopy&) = delete;
    CCompactCopy& operator=(const CCompactCopy&) = delete;

    /// Copies what the disk itself holds; durable then. Throws: CFailure; CInterrupted.
    void copyGrains(CProgress& progress);
    /// Bytes of the disk's files, and of those that would take their place.
    int64 getOldSizeBytes() const;
    int64 getNewSizeBytes() const;
    /// Puts the files in their place, one after the other, and lets go of the disk. Throws: CFailure.
    /// Requires: nothing else of this object is called then.
    void replaceFiles();

private:
    class CCopier;

    struct UFile {
        std::filesystem::path name;
        bool wasThere;
    };

    void addExtents();
    void verifyExtentsAreOwn() const;
    void makeFiles();
    void makeExtent(const CURI& from, const CURI& to, CVMDKDescriptor* descriptor);
    [[noreturn]] void fail(const CError& error) const;
    template <class Action>
    void run(Action action) const {
        try {
            action();
        } catch (const CError& error) {
            fail(error);
        }
    }
    std::filesystem::path stagedPath(const UFile& file) const { return m_folder.getPath() / file.name; }
    std::filesystem::path placeOf(const UFile& file) const { return m_mainPath.parent_path() / file.name; }

    std::string m_name;
    P<CVMDKDisk> m_disk;
    P<CVMDKDisk> m_parent;
    P<IFileSystem> m_files;
    UMainFile m_main;
    std::filesystem::path m_mainPath;
    CStagedFolder m_folder;
    std::vector<UFile> m_extents;
    P<CVMDKDisk> m_copy;
};

} // namespace tessel::cli
