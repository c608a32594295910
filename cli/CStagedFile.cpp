#include "CStagedFile.h"

#include "Targets.h"

#include <utility>

namespace tessel::cli {

namespace fs = std::filesystem;

CStagedFile::CStagedFile(fs::path target, bool force)
    : m_target(std::move(target)), m_force(force), m_path(makeTemporaryName(folderOf(m_target))) {
    m_file.emplace(CRawFile::createNew(m_path, m_target));
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

} // namespace tessel::cli
