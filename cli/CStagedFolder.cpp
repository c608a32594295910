#include "CStagedFolder.h"

#include "Errors.h"
#include "Names.h"
#include "Targets.h"
#include "platform.h"

#include <optional>
#include <utility>

namespace tessel::cli {

namespace fs = std::filesystem;

/// A row of renamings that can be taken back.
class CStagedFolder::CRenamings {
public:
    CRenamings() = default;
    CRenamings(const CRenamings&) = delete;
    CRenamings& operator=(const CRenamings&) = delete;
    /// Takes back what was not kept. Returns the first file that could not get its old name again, or
    /// nothing.
    std::optional<fs::path> takeBack() noexcept {
        std::optional<fs::path> left;
        for (; !m_steps.empty(); m_steps.pop_back()) {
            const auto& [from, to] = m_steps.back();
            try {
                moveFile(to, from, false);
            } catch (const std::exception&) {
                left = to;
            }
        }
        return left;
    }

    void move(const fs::path& from, const fs::path& to, bool replace) {
        m_steps.reserve(m_steps.size() + 1);
        moveFile(from, to, replace);
        m_steps.emplace_back(from, to);
    }

private:
    std::vector<std::pair<fs::path, fs::path>> m_steps;
};

CStagedFolder::CStagedFolder(const fs::path& targetFolder)
    : m_targetFolder(targetFolder.empty() ? fs::path(".") : targetFolder) {
    const fs::path path = makeTemporaryName(m_targetFolder);
    std::error_code error;
    createPrivateFolder(path, error);
    if (!error) {
        m_path = path;
        fs::create_directory(getPath(), error);
    }
    if (!error)
        return;
    std::error_code ignored;
    fs::remove(path, ignored);
    throw CFailure(nameFromPath(m_targetFolder), "Cannot make a folder in it: " + describeSystemError(error));
}

CStagedFolder::~CStagedFolder() {
    std::error_code ignored;
    if (!m_path.empty())
        fs::remove_all(m_path, ignored);
}

void CStagedFolder::commit(const std::vector<fs::path>& names, const fs::path& mainFile,
                           const std::vector<fs::path>& obsolete, bool force, bool sync) {
    const bool isOneFile = names.size() == 1 && obsolete.empty();
    CRenamings renamings;
    try {
        rename(renamings, names, mainFile, obsolete, force, isOneFile);
    } catch (...) {
        if (const std::optional<fs::path> left = renamings.takeBack()) {
            // The only copy of something: it stays where it is.
            m_path.clear();
            tellWarning(nameFromPath(*left) +
                        ": This file could not be given its old name again and is kept here");
        }
        throw;
    }
    if (sync)
        syncFolder(m_targetFolder);
}

void CStagedFolder::rename(CRenamings& renamings, const std::vector<fs::path>& names,
                           const fs::path& mainFile, const std::vector<fs::path>& obsolete, bool force,
                           bool isOneFile) const {
    if (force && !isOneFile) {
        std::vector<fs::path> old = {mainFile};
        old.insert(old.end(), obsolete.begin(), obsolete.end());
        old.insert(old.end(), names.begin(), names.end());
        const fs::path side = m_path / "old";
        fs::create_directory(side);
        for (const fs::path& name : old)
            if (somethingExists(m_targetFolder / name))
                renamings.move(m_targetFolder / name, side / name, false);
    }
    for (const fs::path& name : names)
        if (name != mainFile)
            renamings.move(getPath() / name, m_targetFolder / name, false);
    renamings.move(getPath() / mainFile, m_targetFolder / mainFile, force && isOneFile);
}

} // namespace tessel::cli
