#pragma once

#include <windows.h>

#include <utility>

namespace lum {

/// Owns a handle of the system's to a file; INVALID_HANDLE_VALUE is none.
class CFileHandle {
public:
    CFileHandle() noexcept = default;
    explicit CFileHandle(HANDLE handle) noexcept : m_handle(handle) {}
    CFileHandle(CFileHandle&& other) noexcept : m_handle(other.take()) {}
    CFileHandle& operator=(CFileHandle&& other) noexcept {
        std::swap(m_handle, other.m_handle);
        return *this;
    }
    ~CFileHandle() {
        if (isOpen())
            ::CloseHandle(m_handle);
    }

    HANDLE get() const noexcept { return m_handle; }
    bool isOpen() const noexcept { return m_handle != INVALID_HANDLE_VALUE; }
    /// Gives it to the caller, who closes it.
    HANDLE take() noexcept { return std::exchange(m_handle, INVALID_HANDLE_VALUE); }

private:
    HANDLE m_handle = INVALID_HANDLE_VALUE;
};

/// Opens what there is of this name. Whoever has it open, or wants to, is let be.
/// `path` is as toSystemPath gives it. Without success GetLastError() has the reason.
inline CFileHandle openExisting(const wchar_t* path, DWORD access, DWORD flags) noexcept {
    constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    // Whoever serves a name that turns out to be no file learns who asks, and cannot act in his place.
    constexpr DWORD guarded = SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
    return CFileHandle(
        ::CreateFileW(path, access, shareAll, nullptr, OPEN_EXISTING, flags | guarded, nullptr));
}

} // namespace lum
