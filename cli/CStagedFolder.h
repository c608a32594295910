#pragma once

#include <filesystem>
#include <vector>

namespace tessel::cli {

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
    /// name. When that fails, everything is as before; a file that cannot get its old name again stays in the
    /// folder, and that is told. With `sync` the names are durable.
    /// Throws: CFailure; without `force` also when a file has one of the names.
    void commit(const std::vector<std::filesystem::path>& names, const std::filesystem::path& mainFile,
                const std::vector<std::filesystem::path>& obsolete, bool force, bool sync);

private:
    class CRenamings;

    void rename(CRenamings& renamings, const std::vector<std::filesystem::path>& names,
                const std::filesystem::path& mainFile, const std::vector<std::filesystem::path>& obsolete,
                bool force, bool isOneFile) const;

    std::filesystem::path m_targetFolder;
    std::filesystem::path m_path;
};

} // namespace tessel::cli
