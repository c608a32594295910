#include "../System.h"

#include <malloc.h>

#include <windows.h>
#include <winioctl.h>

#include <algorithm>
#include <stdexcept>

namespace tessel::test {

using lum::int64;

std::size_t getBlockSize(void* block) noexcept {
    return ::_msize(block);
}

// Windows limits what all processes of a job commit, for good: too coarse for tests that come one after the
// other.

void limitAddressSpace(int64) {}
void unlimitAddressSpace() noexcept {}

namespace {

class CHandle {
public:
    explicit CHandle(const std::filesystem::path& path)
        : m_handle(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                 OPEN_EXISTING, 0, nullptr)) {
        if (m_handle == INVALID_HANDLE_VALUE)
            throw std::runtime_error("A file cannot be opened");
    }
    ~CHandle() { ::CloseHandle(m_handle); }
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;

    HANDLE get() const { return m_handle; }

private:
    HANDLE m_handle;
};

} // namespace

int64 getStoredSize(const std::filesystem::path& path) {
    FILE_STANDARD_INFO standard = {};
    FILE_COMPRESSION_INFO compression = {};
    const CHandle file(path);
    if (!::GetFileInformationByHandleEx(file.get(), FileStandardInfo, &standard, sizeof standard))
        throw std::runtime_error("The size of a file cannot be told");
    // Of files with holes only this tells what they take, where it is known.
    if (::GetFileInformationByHandleEx(file.get(), FileCompressionInfo, &compression, sizeof compression))
        return std::min(standard.AllocationSize.QuadPart, compression.CompressedFileSize.QuadPart);
    return standard.AllocationSize.QuadPart;
}

void setFileLength(const std::filesystem::path& path, int64 length) {
    FILE_END_OF_FILE_INFO information = {};
    information.EndOfFile.QuadPart = length;
    const CHandle file(path);
    if (!::SetFileInformationByHandle(file.get(), FileEndOfFileInfo, &information, sizeof information))
        throw std::runtime_error("The length of a file cannot be changed");
}

void allowHoles(const std::filesystem::path& path) {
    DWORD ignored = 0;
    const CHandle file(path);
    if (!::DeviceIoControl(file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &ignored, nullptr))
        throw std::runtime_error("This file system has no holes");
}

} // namespace tessel::test
