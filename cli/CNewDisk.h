#pragma once

#include "CStagedFolder.h"
#include "Disks.h"
#include "lum/CLockFile.h"

#include <memory>
#include <vector>

namespace CLI {
class App;
} // namespace CLI

namespace tessel::cli {

/// The options of a verb that makes a disk.
struct UCreateOptions {
    bool compressed = false;
    int level = -1;
    std::string split;
    bool onDemand = false;
    std::string parent;
    bool force = false;

    void addTo(CLI::App& verb);
    /// The same without --force, for a verb that only needs to know what would be made.
    void addKindTo(CLI::App& verb);
    /// True when an option is given that only a VMDK can follow.
    bool asksForVMDK() const;
};

/// What the library makes of the options.
struct UNewDiskKind {
    bool isCompressed;
    int64 fileSizeLimit; ///< -1: a single file
};

/// `parent` is that of the new disk, or null. Throws: CUsageError for options that do not go together.
UNewDiskKind chooseKindOfNewDisk(const UCreateOptions& options, CVMDKDisk* parent);
/// Throws: CUsageError for an error of CVMDKDisk::create that is about options; returns for others.
void throwUsageErrorOfNewDisk(const CError& error, const UCreateOptions& options);

/// A disk that is being made. Its files appear under their names when it is committed; an older disk of the
/// name stays until then. Others are kept from using the disk as long as this lives.
class CNewDisk {
public:
    /// `sizeBytes` is that of the disk; with a parent it is not asked for, since a child has its parent's.
    /// `inUse`: files that must not be replaced; those of the parent are none of them.
    /// Throws: CFailure; CUsageError for options that do not go together.
    CNewDisk(const std::string& name, int64 sizeBytes, const UCreateOptions& options, CPasswords& passwords,
             TArray<std::filesystem::path> inUse, bool sync);
    ~CNewDisk();
    CNewDisk(const CNewDisk&) = delete;
    CNewDisk& operator=(const CNewDisk&) = delete;

    CVMDKDisk& getDisk() { return *m_disk; }
    /// Null for a disk without one.
    CVMDKDisk* getParent() { return m_parent.get(); }
    /// The parent opened once more, so that others can read it while the disk is written. Null without one.
    const P<CVMDKDisk>& getParentAside() const { return m_parentAside; }
    /// Runs `action` on the disk. Throws: CFailure, which names it as the user does, in place of the
    /// library's errors.
    template <class Action>
    void run(Action action) {
        try {
            action();
        } catch (const CError& error) {
            fail(error);
        }
    }
    /// Flushes the disk and lets it appear.
    void commit();

private:
    [[noreturn]] void fail(const CError& error) const;
    void openParent(const std::string& name, const String& password, const String& ownPassword);
    void create(int64 sizeBytes, const UCreateOptions& options, const String& password);
    void createFiles(int64 sizeBytes, const UCreateOptions& options, const String& password, bool compressed,
                     int64 limit);
    bool isInUse(const std::filesystem::path& path) const;
    void verifyNames() const;
    std::filesystem::path folder() const { return m_target.parent_path(); }

    std::string m_name;
    bool m_force;
    bool m_sync;
    std::filesystem::path m_target;
    P<IFileSystem> m_files;
    P<CLockFile> m_lock;
    P<CVMDKDisk> m_parent;
    P<CVMDKDisk> m_parentAside;
    std::unique_ptr<CStagedFolder> m_folder;
    P<CVMDKDisk> m_disk;
    /// All names of the disk's files, the main file first, also of files that are made on demand.
    std::vector<std::filesystem::path> m_names;
    /// What must not be replaced.
    TArray<std::filesystem::path> m_inUse;
};

} // namespace tessel::cli
