#pragma once

#include "foundation/lum/COpenFile.h"
#include "foundation/windows/CFileHandle.h"
#include "lum/IIOStream.h"

#include <string>

namespace lum {

/// An open file of Windows. Others may open, rename and delete it meanwhile, as on other systems.
class CWindowsFile : public COpenFile {
public:
    /// See openNativeFile. `path` is as toSystemPath gives it.
    CWindowsFile(const std::wstring& path, const CURI& uri, IIOStream::Access access, bool waitForMedium);

    /// True when `other` is open on this file, too.
    bool isFileOf(const CFileHandle& other) const;

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
    void open(const std::wstring& path, IIOStream::Access access);
    void verifyKind();
    void allowHoles() noexcept;
    [[noreturn]] void throwOpenFailed(DWORD systemError) const;
    [[noreturn]] void throwNotAFile(const char* message) const;

    CFileHandle m_file;
    bool m_mayWrite;
    bool m_waitForMedium;
    /// The error that a flush met. The system may have dropped the data it could not write and tell
    /// only once, so that later flushes must not claim success.
    DWORD m_flushError = ERROR_SUCCESS;
};

} // namespace lum
