#include "foundation/windows/CWindowsFile.h"

#include "foundation/lum/StreamHelpers.h"
#include "foundation/windows/SystemErrors.h"

#include <winioctl.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

namespace lum {

namespace {

/// What one call of the system transfers at most: servers and their drivers refuse calls of any size.
constexpr int transferLimit = 16 << 20;

/// Where locks lie. Windows keeps others from transferring what is locked, which is not what a lock is for
/// here: so the locks lie behind the last position that a file can have, one for each position.
constexpr uint64 lockBase = uint64(1) << 63;

/// What errors name: the file, and what was asked of it.
CProps makeTransferProps(const CURI& uri, int64 position, const char* countName, int count) {
    return makeStreamProps(uri).add("position", position).add(countName, count);
}

OVERLAPPED makePosition(uint64 position) noexcept {
    OVERLAPPED result = {};
    result.Offset = static_cast<DWORD>(position);
    result.OffsetHigh = static_cast<DWORD>(position >> 32);
    return result;
}

struct LockRange {
    OVERLAPPED position;
    DWORD lengthLow;
    DWORD lengthHigh;
};

LockRange makeLockRange(int64 start, int64 end) noexcept {
    const auto length = static_cast<uint64>(end - start);
    return {makePosition(lockBase + static_cast<uint64>(start)), static_cast<DWORD>(length),
            static_cast<DWORD>(length >> 32)};
}

/// What tells a file from all others of this computer while it is open.
struct FileID {
    uint64 volume = 0;
    std::array<unsigned char, 16> file{};

    friend bool operator==(const FileID&, const FileID&) = default;
};

/// The two halves are told by file systems that number their files with 64 bits and know no more.
std::optional<FileID> getShortFileID(HANDLE file) noexcept {
    BY_HANDLE_FILE_INFORMATION information = {};
    if (!::GetFileInformationByHandle(file, &information))
        return std::nullopt;
    FileID id;
    id.volume = information.dwVolumeSerialNumber;
    std::memcpy(id.file.data(), &information.nFileIndexLow, sizeof(DWORD));
    std::memcpy(id.file.data() + sizeof(DWORD), &information.nFileIndexHigh, sizeof(DWORD));
    return id;
}

std::optional<FileID> getLongFileID(HANDLE file) noexcept {
    FILE_ID_INFO information = {};
    if (!::GetFileInformationByHandleEx(file, FileIdInfo, &information, sizeof(information)))
        return std::nullopt;
    FileID id;
    id.volume = information.VolumeSerialNumber;
    static_assert(sizeof(information.FileId) == sizeof(id.file));
    std::memcpy(id.file.data(), &information.FileId, sizeof(information.FileId));
    return id;
}

bool isFolder(const std::wstring& path) noexcept {
    const DWORD attributes = ::GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

} // namespace

CWindowsFile::CWindowsFile(const std::wstring& path, const CURI& uri, IIOStream::Access access,
                           bool waitForMedium)
    : COpenFile(uri), m_mayWrite(access == IIOStream::Access_ReadWrite), m_waitForMedium(waitForMedium) {
    open(path, access);
    verifyKind();
    if (m_mayWrite && getLength() == 0)
        allowHoles();
}

void CWindowsFile::open(const std::wstring& path, IIOStream::Access access) {
    const DWORD mode = access == IIOStream::Access_ReadWrite ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
    // What ends with a separator can only be a folder.
    DWORD error = ERROR_PATH_NOT_FOUND;
    if (!path.ends_with(L'\\')) {
        constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        const DWORD disposition = m_mayWrite ? OPEN_ALWAYS : OPEN_EXISTING;
        // Programs that look at every new file keep it to themselves for a moment. Whoever serves a name that
        // turns out to be no file learns who asks, and cannot act in his place.
        constexpr DWORD flags = FILE_ATTRIBUTE_NORMAL | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;
        constexpr int mostTries = 20;
        for (int i = 1;; ++i) {
            m_file = CFileHandle(
                ::CreateFileW(path.c_str(), mode, shareAll, nullptr, disposition, flags, nullptr));
            error = m_file.isOpen() ? DWORD(ERROR_SUCCESS) : ::GetLastError();
            if (error != ERROR_SHARING_VIOLATION || i == mostTries)
                break;
            ::Sleep(50);
        }
    }
    if (m_file.isOpen())
        return;
    // The system calls that a lack of rights.
    if (isFolder(path))
        throwNotAFile("Cannot open file: Is a directory");
    throwOpenFailed(error);
}

/// Refuses what is no file: a console, a pipe, a printer.
void CWindowsFile::verifyKind() {
    if (::GetFileType(m_file.get()) != FILE_TYPE_DISK)
        throwNotAFile("Cannot open file: Not a regular file");
}

/// Lets what nobody writes take no room. Only a new file is made so, and file systems that cannot do without.
void CWindowsFile::allowHoles() noexcept {
    DWORD ignored = 0;
    ::DeviceIoControl(m_file.get(), FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &ignored, nullptr);
}

void CWindowsFile::throwOpenFailed(DWORD systemError) const {
    throw makeFileSystemError("Cannot open file", systemError, makeStreamProps(getURI()));
}

void CWindowsFile::throwNotAFile(const char* message) const {
    throw CFileSystemError(CFileSystemError::Problem_NotAFile,
                           CError(message, String(), -1, makeStreamProps(getURI())));
}

bool CWindowsFile::isFileOf(const CFileHandle& other) const {
    // File systems with files numbered by 128 bits tell that only to those who ask for it.
    std::optional<FileID> ours = getLongFileID(m_file.get());
    std::optional<FileID> theirs = getLongFileID(other.get());
    if (!ours || !theirs) {
        ours = getShortFileID(m_file.get());
        theirs = ours ? getShortFileID(other.get()) : std::nullopt;
    }
    if (!ours || !theirs) {
        const DWORD error = ::GetLastError();
        throw makeFileSystemError("Cannot look up file", error, makeStreamProps(getURI()));
    }
    return *ours == *theirs;
}

int64 CWindowsFile::getLength() const {
    LARGE_INTEGER length = {};
    if (!::GetFileSizeEx(m_file.get(), &length)) {
        const DWORD error = ::GetLastError();
        throw makeIOError(CIOError::Code_ReadFailed, "Cannot find the length of the file", error,
                          makeStreamProps(getURI()));
    }
    return length.QuadPart;
}

int CWindowsFile::read(int64 position, void* buffer, int count) {
    int done = 0;
    while (done < count) {
        OVERLAPPED where = makePosition(static_cast<uint64>(position + done));
        DWORD got = 0;
        if (!::ReadFile(m_file.get(), static_cast<char*>(buffer) + done,
                        static_cast<DWORD>(std::min(count - done, transferLimit)), &got, &where)) {
            const DWORD error = ::GetLastError();
            if (error == ERROR_HANDLE_EOF)
                break;
            throw makeIOError(CIOError::Code_ReadFailed, "Cannot read from file", error,
                              makeTransferProps(getURI(), position, "bytesToRead", count));
        }
        if (got == 0)
            break;
        done += static_cast<int>(got);
    }
    return done;
}

void CWindowsFile::write(int64 position, const void* data, int size) {
    int done = 0;
    while (done < size) {
        OVERLAPPED where = makePosition(static_cast<uint64>(position + done));
        DWORD put = 0;
        const BOOL succeeded =
            ::WriteFile(m_file.get(), static_cast<const char*>(data) + done,
                        static_cast<DWORD>(std::min(size - done, transferLimit)), &put, &where);
        if (!succeeded || put == 0) {
            // A system that takes nothing and gives no reason would keep us here for ever.
            const DWORD error = succeeded ? DWORD(ERROR_WRITE_FAULT) : ::GetLastError();
            throw makeIOError(CIOError::Code_WriteFailed, "Cannot write to file", error,
                              makeTransferProps(getURI(), position, "bytesToWrite", size));
        }
        done += static_cast<int>(put);
    }
}

void CWindowsFile::setLength(int64 length) {
    FILE_END_OF_FILE_INFO information = {};
    information.EndOfFile.QuadPart = length;
    if (!::SetFileInformationByHandle(m_file.get(), FileEndOfFileInfo, &information, sizeof(information))) {
        const DWORD error = ::GetLastError();
        throw makeIOError(CIOError::Code_WriteFailed, "Cannot change the length of the file", error,
                          makeStreamProps(getURI()).add("length", length));
    }
}

void CWindowsFile::flush() {
    if (!m_waitForMedium)
        return;
    // The name of a new file goes along, since the file system's journal does.
    if (m_flushError == ERROR_SUCCESS && !::FlushFileBuffers(m_file.get()))
        m_flushError = ::GetLastError();
    if (m_flushError != ERROR_SUCCESS)
        throw makeIOError(CIOError::Code_WriteFailed, "Cannot flush file", m_flushError,
                          makeStreamProps(getURI()));
}

bool CWindowsFile::tryLock(int64 start, int64 end, bool exclusive) {
    // Locks belong to the open file: two users in one process exclude each other.
    LockRange range = makeLockRange(start, end);
    const DWORD flags = LOCKFILE_FAIL_IMMEDIATELY | (exclusive ? DWORD(LOCKFILE_EXCLUSIVE_LOCK) : 0);
    if (::LockFileEx(m_file.get(), flags, 0, range.lengthLow, range.lengthHigh, &range.position))
        return true;
    const DWORD error = ::GetLastError();
    if (error == ERROR_LOCK_VIOLATION || error == ERROR_IO_PENDING)
        return false;
    throw makeFileSystemError("Cannot lock file", error,
                              makeStreamProps(getURI()).add("start", start).add("length", end - start));
}

void CWindowsFile::unlock(int64 start, int64 end) noexcept {
    LockRange range = makeLockRange(start, end);
    // It fails only when the system has forgotten the lock (a server that was restarted).
    ::UnlockFileEx(m_file.get(), 0, range.lengthLow, range.lengthHigh, &range.position);
}

void CWindowsFile::closeFile() {
    const DWORD error = ::CloseHandle(m_file.take()) ? DWORD(ERROR_SUCCESS) : ::GetLastError();
    if (error != ERROR_SUCCESS && m_mayWrite)
        throw makeIOError(CIOError::Code_WriteFailed, "Cannot close file", error, makeStreamProps(getURI()));
}

} // namespace lum
