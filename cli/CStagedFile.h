#pragma once

#include "platform.h"

#include <filesystem>
#include <optional>

namespace tessel::cli {

/// A file that appears under its name only when it is complete.
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

} // namespace tessel::cli
