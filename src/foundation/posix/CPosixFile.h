#pragma once

#include "foundation/lum/COpenFile.h"
#include "foundation/posix/CFileDescriptor.h"
#include "lum/IIOStream.h"

#include <string>

struct stat;

namespace lum {

/// An open file of a POSIX system: a regular file or a block device.
class CPosixFile : public COpenFile {
public:
    /// See openNativeFile. `path` is as the system takes it.
    CPosixFile(const std::string& path, const CURI& uri, IIOStream::Access access, bool waitForMedium);

    /// True when this file is what `status` tells of.
    bool isFileOf(const struct stat& status) const;

    int64 getLength() const override;
    int read(int64 position, void* buffer, int count) override;
    void write(int64 position, const void* data, int size) override;
    void setLength(int64 length) override;
    void flush() override;

protected:
    bool tryLock(int64 start, int64 end, bool exclusive) override;
    void unlock(int64 start, int64 end) noexcept override;
    void closeFile() override;

private:
    bool open(const char* path, IIOStream::Access access);
    void verifyKind();
    [[noreturn]] void throwOpenFailed(int systemError) const;
    void openFolderOf(const char* path);
    int syncFolder() noexcept;

    CFileDescriptor m_file;
    /// Where the file was made, until its name there is durable.
    CFileDescriptor m_folder;
    /// Why that folder could not be opened, for the flush that needs it; 0: it could, or nobody can.
    int m_folderError = 0;
    bool m_isBlockDevice = false;
    bool m_mayWrite;
    bool m_waitForMedium;
    /// The error that a flush met. The system may have dropped the data it could not write and tell
    /// only once, so that later flushes must not claim success.
    int m_flushError = 0;
};

} // namespace lum
