#pragma once

#include "lum/CURI.h"

#include <filesystem>

namespace tessel::test {

/// A new, empty folder of the test's own, which goes with all that is in it when the object goes.
class CTemporaryFolder {
public:
    CTemporaryFolder();
    ~CTemporaryFolder();
    CTemporaryFolder(const CTemporaryFolder&) = delete;
    CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

    const std::filesystem::path& getPath() const noexcept { return m_path; }
    std::filesystem::path getPath(const char* name) const { return m_path / name; }

    lum::CURI getURI() const;
    lum::CURI getURI(const char* name) const;

private:
    std::filesystem::path m_path;
};

} // namespace tessel::test
