#pragma once

#include "platform.h"

#include <filesystem>
#include <optional>
#include <string>

// Targets that appear under their names only when they are complete. Until then they stand in a place of
// their own in the same folder, and whatever ends the program early removes that.

namespace tessel::cli {

/// What the target of a name is: a symbolic link's file in place of the link.
/// Throws: CFailure when the folder is missing, something that is no regular file has the name, or, without
/// `force`, anything has it.
std::filesystem::path resolveTarget(const std::string& name, bool force);

/// A name in `folder` that nothing has.
std::filesystem::path makeTemporaryName(const std::filesystem::path& folder);

/// One file.
class CStagedFile {
public:
    /// `target` from resolveTarget.
    CStagedFile(std::filesystem::path target, bool force);
    /// Removes the file unless it was committed.
    ~CStagedFile();
    CStagedFile(const CStagedFile&) = delete;
    CStagedFile& operator=(const CStagedFile&) = delete;

    CRawFile& getFile() { return *m_file; }
    /// Closes the file and gives it its name. With `sync` both are durable then.
    void commit(bool sync);

private:
    std::filesystem::path m_target;
    bool m_force;
    std::filesystem::path m_path;
    std::optional<CRawFile> m_file;
};

/// A row of files that belong together, in a folder of their own until they are complete.
class CStagedFolder {
public:
    explicit CStagedFolder(const std::filesystem::path& targetFolder);
    ~CStagedFolder();
    CStagedFolder(const CStagedFolder&) = delete;
    CStagedFolder& operator=(const CStagedFolder&) = delete;

    /// Where the files are made, under the names that they will have.
    std::filesystem::path getPath() const { return m_path / "new"; }

    /// Gives the files their names in the target folder, `mainFile` last; files that had the names, and those
    /// of `obsolete`, give way, the main file first, so that no mixture of old and new ever stands under its
    /// name. When that fails, everything is as before. With `sync` the names are durable.
    /// Throws: CFailure; without `force` also when a file has one of the names.
    void commit(const std::vector<std::filesystem::path>& names, const std::filesystem::path& mainFile,
                const std::vector<std::filesystem::path>& obsolete, bool force, bool sync);

private:
    std::filesystem::path m_targetFolder;
    std::filesystem::path m_path;
};

} // namespace tessel::cli
