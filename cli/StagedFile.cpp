#include "StagedFile.h"

#include "Errors.h"
#include "Names.h"
#include "lum/CMTRand.h"
#include "lum/CMutexLock.h"
#include "lum/TextFunctions.h"

#include <algorithm>
#include <utility>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

fs::path folderOf(const fs::path& path) {
    const fs::path folder = path.parent_path();
    return folder.empty() ? fs::path(".") : folder;
}

/// A row of renamings that can be taken back.
class CRenamings {
public:
    CRenamings() = default;
    CRenamings(const CRenamings&) = delete;
    CRenamings& operator=(const CRenamings&) = delete;
    ~CRenamings() {
        std::error_code ignored;
        for (auto step = m_steps.rbegin(); step != m_steps.rend(); ++step)
            fs::rename(step->second, step->first, ignored);
    }

    void move(const fs::path& from, const fs::path& to, bool replace) {
        m_steps.reserve(m_steps.size() + 1);
        moveFile(from, to, replace);
        m_steps.emplace_back(from, to);
    }
    void keep() noexcept { m_steps.clear(); }

private:
    std::vector<std::pair<fs::path, fs::path>> m_steps;
};

} // namespace

fs::path resolveTarget(const std::string& name, bool force) {
    fs::path path = pathFromName(name);
    if (!path.has_filename())
        throw CFailure(name, "It is a folder, not a file");
    std::error_code error;
    if (!fs::is_directory(folderOf(path), error))
        throw CFailure(name, "There is no such folder: " + nameFromPath(folderOf(path)));
    if (!somethingExists(path))
        return path;
    const fs::file_status status = fs::status(path, error);
    if (status.type() == fs::file_type::directory)
        throw CFailure(name, "It is a folder, not a file");
    if (status.type() == fs::file_type::not_found)
        throw CFailure(name, "It is a link that leads nowhere");
    if (status.type() != fs::file_type::regular)
        throw CFailure(name, "Only a regular file can be replaced");
    if (!force)
        throw CFailure(name, "The file exists already (--force replaces it)");
    return fs::is_symlink(path, error) ? fs::canonical(path) : path;
}

fs::path makeTemporaryName(const fs::path& folder) {
    for (;;) {
        unsigned int number = 0;
        {
            const CMutexLock lock(CMTRand::getGlobalInstanceMutex());
            number = CMTRand::getGlobal()->rand32();
        }
        const fs::path path = folder / ("tessel-tmp-" + toHexString(number).toUTF8());
        if (!somethingExists(path))
            return path;
    }
}

// --- One file ---

CStagedFile::CStagedFile(fs::path target, bool force)
    : m_target(std::move(target)), m_force(force), m_path(makeTemporaryName(folderOf(m_target))) {
    m_file.emplace(CRawFile::createNew(m_path));
}

CStagedFile::~CStagedFile() {
    m_file.reset();
    std::error_code ignored;
    if (!m_path.empty())
        fs::remove(m_path, ignored);
}

void CStagedFile::commit(bool sync) {
    if (sync)
        m_file->sync();
    m_file->close();
    m_file.reset();
    moveFile(m_path, m_target, m_force);
    m_path.clear();
    if (sync)
        syncFolder(folderOf(m_target));
}

// --- A row of files ---

CStagedFolder::CStagedFolder(const fs::path& targetFolder)
    : m_targetFolder(targetFolder.empty() ? fs::path(".") : targetFolder) {
    const fs::path path = makeTemporaryName(m_targetFolder);
    std::error_code error;
    if (!fs::create_directory(path, error))
        throw CFailure(nameFromPath(m_targetFolder), "Cannot make a folder in it: " + error.message());
    m_path = path;
    fs::create_directory(getPath());
}

CStagedFolder::~CStagedFolder() {
    std::error_code ignored;
    fs::remove_all(m_path, ignored);
}

void CStagedFolder::commit(const std::vector<fs::path>& names, const fs::path& mainFile,
                           const std::vector<fs::path>& obsolete, bool force, bool sync) {
    const bool isOneFile = names.size() == 1 && obsolete.empty();
    CRenamings renamings;
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
    renamings.keep();
    if (sync)
        syncFolder(m_targetFolder);
}

} // namespace tessel::cli
