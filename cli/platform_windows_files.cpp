#include "Errors.h"
#include "Names.h"
#include "platform.h"
#include "platform_windows.h"

#include <winioctl.h>

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <utility>

namespace tessel::cli {

namespace fs = std::filesystem;

namespace {

constexpr DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

/// Whoever serves a name that turns out to be no file learns who asks, and cannot act in his place.
constexpr DWORD guarded = SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION;

/// Paths that are longer need the prefix; the folders among them leave room for a short name.
constexpr std::size_t longestPlainPath = 240;

HANDLE handleOf(std::intptr_t handle) noexcept {
    return reinterpret_cast<HANDLE>(handle);
}

/// Closed at the end of its scope.
class CHandle {
public:
    explicit CHandle(HANDLE handle) noexcept : m_handle(handle) {}
    CHandle(const CHandle&) = delete;
    CHandle& operator=(const CHandle&) = delete;
    ~CHandle() {
        const DWORD error = ::GetLastError();
        if (isOpen())
            ::CloseHandle(m_handle);
        ::SetLastError(error);
    }

    bool isOpen() const noexcept { return m_handle != INVALID_HANDLE_VALUE; }
    HANDLE get() const noexcept { return m_handle; }

private:
    HANDLE m_handle;
};

/// Anything that has a name, folders too. With `followLinks` false a link is opened itself.
HANDLE open(const fs::path& path, DWORD access, bool followLinks) {
    return ::CreateFileW(
        windows::toLongPath(path).c_str(), access, shareAll, nullptr, OPEN_EXISTING,
        FILE_FLAG_BACKUP_SEMANTICS | guarded | (followLinks ? 0 : FILE_FLAG_OPEN_REPARSE_POINT), nullptr);
}

// --- Drives ---

/// Drives have no size that the calls for files could tell.
bool isDrive(HANDLE handle, int64& length) noexcept {
    LARGE_INTEGER size = {};
    if (::GetFileSizeEx(handle, &size)) {
        length = size.QuadPart;
        return false;
    }
    const DWORD error = ::GetLastError();
    GET_LENGTH_INFORMATION info = {};
    DWORD returned = 0;
    const bool isTold = ::DeviceIoControl(handle, IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &info, sizeof info,
                                          &returned, nullptr);
    length = isTold ? info.Length.QuadPart : -1;
    if (!isTold)
        ::SetLastError(error);
    return isTold;
}

int64 getSectorSize(HANDLE drive) noexcept {
    DISK_GEOMETRY geometry = {};
    DWORD returned = 0;
    const bool isTold = ::DeviceIoControl(drive, IOCTL_DISK_GET_DRIVE_GEOMETRY, nullptr, 0, &geometry,
                                          sizeof geometry, &returned, nullptr);
    return isTold && geometry.BytesPerSector > 0 ? static_cast<int64>(geometry.BytesPerSector) : 4096;
}

/// Returns the number of bytes that were read; 0 at the end and, with an error of the system, -1.
int64 readAt(HANDLE handle, int64 position, void* buffer, int64 count) noexcept {
    OVERLAPPED at = {};
    at.Offset = static_cast<DWORD>(position & 0xFFFFFFFF);
    at.OffsetHigh = static_cast<DWORD>(position >> 32);
    DWORD got = 0;
    if (::ReadFile(handle, buffer, static_cast<DWORD>(count), &got, &at))
        return got;
    return ::GetLastError() == ERROR_HANDLE_EOF ? 0 : -1;
}

/// Drives are read by whole sectors only. As readAt.
int64 readAtFromDrive(HANDLE drive, int64 position, void* buffer, int64 count) {
    const int64 sector = getSectorSize(drive);
    if (position % sector == 0 && count % sector == 0)
        return readAt(drive, position, buffer, count);
    const int64 start = position / sector * sector;
    const int64 end = (position + count + sector - 1) / sector * sector;
    std::vector<char> whole(static_cast<std::size_t>(end - start));
    const int64 got = readAt(drive, start, whole.data(), end - start);
    if (got < 0)
        return got;
    const int64 usable = std::min(got - (position - start), count);
    if (usable <= 0)
        return 0;
    std::memcpy(buffer, whole.data() + (position - start), static_cast<std::size_t>(usable));
    return usable;
}

// --- Permissions ---

/// Volumes without access control lists have nothing to give and nothing to take.
bool knowsNoLists(DWORD error) noexcept {
    return error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED;
}

/// Empty when it cannot be told.
std::vector<char> readSecurity(const fs::path& path, SECURITY_INFORMATION what) {
    const std::wstring name = windows::toLongPath(path);
    DWORD size = 0;
    ::GetFileSecurityW(name.c_str(), what, nullptr, 0, &size);
    std::vector<char> descriptor(size);
    if (size == 0 || !::GetFileSecurityW(name.c_str(), what, descriptor.data(), size, &size))
        descriptor.clear();
    return descriptor;
}

/// The owner is given where this user may. The list is taken letter by letter, inherited entries included,
/// since what the folder gives may let others in.
bool tryGiveAccess(HANDLE handle, const fs::path& from) {
    std::vector<char> owner = readSecurity(from, OWNER_SECURITY_INFORMATION);
    const CHandle forOwner(::ReOpenFile(handle, WRITE_OWNER, shareAll, FILE_FLAG_BACKUP_SEMANTICS));
    if (!owner.empty() && forOwner.isOpen())
        ::SetKernelObjectSecurity(forOwner.get(), OWNER_SECURITY_INFORMATION, owner.data());

    std::vector<char> list = readSecurity(from, DACL_SECURITY_INFORMATION);
    if (list.empty())
        return knowsNoLists(::GetLastError());
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    DWORD revision = 0;
    if (::GetSecurityDescriptorControl(list.data(), &control, &revision) &&
        (control & SE_DACL_AUTO_INHERITED))
        ::SetSecurityDescriptorControl(list.data(), SE_DACL_AUTO_INHERIT_REQ, SE_DACL_AUTO_INHERIT_REQ);
    return ::SetKernelObjectSecurity(handle, DACL_SECURITY_INFORMATION, list.data()) ||
           knowsNoLists(::GetLastError());
}

// --- Names ---

/// Names that belong to devices in every folder, whatever extension they have.
bool isDeviceName(const std::wstring& name) {
    std::wstring stem = name.substr(0, name.find_first_of(L"."));
    while (stem.ends_with(L' '))
        stem.pop_back();
    std::transform(stem.begin(), stem.end(), stem.begin(), [](wchar_t c) { return std::towlower(c); });
    const bool isPort = stem.size() == 4 && (stem.starts_with(L"com") || stem.starts_with(L"lpt"));
    return stem == L"con" || stem == L"prn" || stem == L"aux" || stem == L"nul" || stem == L"conin$" ||
           stem == L"conout$" || (isPort && std::iswdigit(stem.back()));
}

/// Throws: CFailure for a name that the system takes for another one, as which it would be looked up, while
/// the library takes it as it stands.
void verifyIsNoDisguise(const fs::path& path, const std::string& name) {
    if (isDriveName(path))
        return;
    const std::wstring& whole = path.native();
    const bool isPrefixed = whole.starts_with(L"\\\\?\\");
    bool isFirst = true;
    for (const fs::path& part : fs::path(isPrefixed ? whole.substr(4) : whole)) {
        const std::wstring& text = part.native();
        const bool isDrive = std::exchange(isFirst, false) && text.size() == 2 && text.ends_with(L':');
        if (text == L"." || text == L".." || isDrive)
            continue;
        if (text.ends_with(L'.') || text.ends_with(L' ') || text.find(L':') != std::wstring::npos ||
            isDeviceName(text))
            throw CFailure(name, "This name cannot be used: Windows takes it for another one");
    }
}

struct UIdentity {
    uint64 volume = 0;
    FILE_ID_128 file = {};
    DWORD names = 0;
};

/// False for whatever is no regular file.
bool tryIdentify(const fs::path& path, UIdentity& identity) {
    const CHandle file(open(path, FILE_READ_ATTRIBUTES, false));
    BY_HANDLE_FILE_INFORMATION info = {};
    if (!file.isOpen() || ::GetFileType(file.get()) != FILE_TYPE_DISK ||
        !::GetFileInformationByHandle(file.get(), &info))
        return false;
    FILE_ID_INFO wide = {};
    if (::GetFileInformationByHandleEx(file.get(), FileIdInfo, &wide, sizeof wide)) {
        identity.volume = wide.VolumeSerialNumber;
        identity.file = wide.FileId;
    } else {
        identity.volume = info.dwVolumeSerialNumber;
        const uint64 index = static_cast<uint64>(info.nFileIndexHigh) << 32 | info.nFileIndexLow;
        std::memcpy(identity.file.Identifier, &index, sizeof index);
    }
    identity.names = info.nNumberOfLinks;
    return (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 && !isLink(path);
}

bool areSame(const UIdentity& a, const UIdentity& b) noexcept {
    return a.volume == b.volume && std::memcmp(&a.file, &b.file, sizeof a.file) == 0;
}

/// Programs that look at every new file keep it from being moved for a moment.
bool tryMove(const std::wstring& from, const std::wstring& to, DWORD flags) noexcept {
    constexpr int mostTries = 20;
    for (int i = 1;; ++i) {
        if (::MoveFileExW(from.c_str(), to.c_str(), flags))
            return true;
        if (::GetLastError() != ERROR_SHARING_VIOLATION || i == mostTries)
            return false;
        ::Sleep(50);
    }
}

/// What takes the place of a file that is open, though shared for that. The old file goes when it is closed.
bool tryReplaceOpenFile(const fs::path& from, const fs::path& to) {
    const std::wstring old = windows::toLongPath(to);
    if (const DWORD attributes = ::GetFileAttributesW(old.c_str());
        attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        ::SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    // Beside it, where it is found should it be left there.
    fs::path aside = to;
    aside += L".tessel-old";
    if (!tryMove(old, windows::toLongPath(aside), 0))
        return false;
    if (!tryMove(windows::toLongPath(from), old, 0)) {
        const DWORD error = ::GetLastError();
        tryMove(windows::toLongPath(aside), old, 0);
        ::SetLastError(error);
        return false;
    }
    ::SetFileAttributesW(windows::toLongPath(aside).c_str(), FILE_ATTRIBUTE_NORMAL);
    ::DeleteFileW(windows::toLongPath(aside).c_str());
    return true;
}

} // namespace

std::wstring windows::toLongPath(const fs::path& path) {
    const std::wstring& name = path.native();
    const bool isPlain = !name.starts_with(L"\\\\?\\") && !name.starts_with(L"\\\\.\\");
    if (!isPlain)
        return name;
    const DWORD room = ::GetFullPathNameW(name.c_str(), 0, nullptr, nullptr);
    std::wstring full(room, L'\0');
    full.resize(::GetFullPathNameW(name.c_str(), room, full.data(), nullptr));
    if (full.size() < longestPlainPath || full.starts_with(L"\\\\.\\"))
        return name;
    return full.starts_with(L"\\\\") ? L"\\\\?\\UNC" + full.substr(1) : L"\\\\?\\" + full;
}

fs::path toSystemPath(const std::string& name) {
    fs::path path = windows::toUTF16(name);
    verifyIsNoDisguise(path, name);
    return path;
}

std::string fromSystemPath(const fs::path& path) {
    return windows::toUTF8(path.native());
}

bool isDriveName(const fs::path& path) {
    std::wstring name = path.native();
    std::transform(name.begin(), name.end(), name.begin(),
                   [](wchar_t c) { return c == L'/' ? L'\\' : static_cast<wchar_t>(std::towlower(c)); });
    if (name.starts_with(L"\\\\?\\"))
        name[2] = L'.';
    const bool isVolume = name.size() == 6 && name.starts_with(L"\\\\.\\") && name[5] == L':';
    return isVolume || name.starts_with(L"\\\\.\\physicaldrive") || name.starts_with(L"\\\\.\\cdrom");
}

bool isLink(const fs::path& path) noexcept {
    try {
        const CHandle file(open(path, FILE_READ_ATTRIBUTES, false));
        FILE_ATTRIBUTE_TAG_INFO info = {};
        return file.isOpen() &&
               ::GetFileInformationByHandleEx(file.get(), FileAttributeTagInfo, &info, sizeof info) &&
               (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) &&
               (info.ReparseTag == IO_REPARSE_TAG_SYMLINK || info.ReparseTag == IO_REPARSE_TAG_MOUNT_POINT);
    } catch (const std::exception&) {
        return false;
    }
}

fs::path followLinks(const fs::path& path, std::error_code& error) {
    error.clear();
    const CHandle file(open(path, FILE_READ_ATTRIBUTES, true));
    std::wstring name(file.isOpen() ? ::GetFinalPathNameByHandleW(file.get(), nullptr, 0, 0) : 0, L'\0');
    if (!name.empty())
        name.resize(::GetFinalPathNameByHandleW(file.get(), name.data(), static_cast<DWORD>(name.size()), 0));
    if (name.empty()) {
        error.assign(static_cast<int>(::GetLastError()), std::system_category());
        return fs::path();
    }
    // The prefix is for paths of any length; toLongPath gives it back to those.
    if (name.starts_with(L"\\\\?\\UNC\\"))
        return L"\\" + name.substr(7);
    return name.starts_with(L"\\\\?\\") && name.size() > 5 && name[5] == L':' ? name.substr(4) : name;
}

void createPrivateFolder(const fs::path& path, std::error_code& error) {
    // Lists are inherited: what is made in it has the one that it would have beside it.
    error.clear();
    if (!::CreateDirectoryW(windows::toLongPath(path).c_str(), nullptr))
        error.assign(static_cast<int>(::GetLastError()), std::system_category());
}

void CRawFile::fail(const char* tried) const {
    const DWORD error = ::GetLastError();
    throw CFailure(nameFromPath(m_path), std::string(tried) + ": " + windows::describe(error));
}

CRawFile CRawFile::openForReading(const fs::path& path) {
    const std::wstring name = windows::toLongPath(path);
    const HANDLE handle = ::CreateFileW(name.c_str(), GENERIC_READ, shareAll, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL | guarded, nullptr);
    const DWORD error = ::GetLastError();
    CRawFile file(path, reinterpret_cast<std::intptr_t>(handle));
    if (handle == INVALID_HANDLE_VALUE) {
        ::SetLastError(error);
        file.fail("Cannot open file");
    }
    if (::GetFileType(handle) != FILE_TYPE_DISK)
        throw CFailure(nameFromPath(path), "Cannot open file: Not a regular file");
    // Of a volume also what lies behind its file system; for others this means nothing.
    DWORD returned = 0;
    ::DeviceIoControl(handle, FSCTL_ALLOW_EXTENDED_DASD_IO, nullptr, 0, nullptr, 0, &returned, nullptr);
    return file;
}

CRawFile CRawFile::createNew(const fs::path& path, const fs::path& shownAs) {
    const std::wstring name = windows::toLongPath(path);
    const auto create = [&](DWORD rights) {
        return ::CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE | rights, FILE_SHARE_READ, nullptr,
                             CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    };
    // To give it permissions takes a right that some file systems never give.
    HANDLE handle = create(READ_CONTROL | WRITE_DAC);
    if (handle == INVALID_HANDLE_VALUE && ::GetLastError() == ERROR_ACCESS_DENIED)
        handle = create(0);
    const DWORD error = ::GetLastError();
    CRawFile file(shownAs, reinterpret_cast<std::intptr_t>(handle));
    if (handle == INVALID_HANDLE_VALUE) {
        ::SetLastError(error);
        file.fail("Cannot make file");
    }
    // What is never written stays a hole. Where the file system has no holes, it is written by the system.
    DWORD returned = 0;
    ::DeviceIoControl(handle, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &returned, nullptr);
    return file;
}

CRawFile::CRawFile(CRawFile&& other) noexcept : m_path(std::move(other.m_path)), m_handle(other.m_handle) {
    other.m_handle = -1;
}

CRawFile::~CRawFile() {
    if (m_handle != -1)
        ::CloseHandle(handleOf(m_handle));
}

int64 CRawFile::getLength() const {
    int64 length = 0;
    if (!isDrive(handleOf(m_handle), length) && length < 0)
        fail("Cannot find the length of the file");
    return length;
}

CRawFile::URegion CRawFile::findData(int64 position, int64 length) const {
    // What other files have on the medium says nothing of what they hold.
    BY_HANDLE_FILE_INFORMATION info = {};
    constexpr DWORD elsewhere = FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_OFFLINE;
    if (!::GetFileInformationByHandle(handleOf(m_handle), &info) ||
        (info.dwFileAttributes & FILE_ATTRIBUTE_SPARSE_FILE) == 0 || (info.dwFileAttributes & elsewhere) != 0)
        return {position, length};
    FILE_ALLOCATED_RANGE_BUFFER asked = {};
    asked.FileOffset.QuadPart = position;
    asked.Length.QuadPart = length - position;
    FILE_ALLOCATED_RANGE_BUFFER found = {};
    DWORD returned = 0;
    // One region is enough, so that more of them are no failure.
    const bool isTold = ::DeviceIoControl(handleOf(m_handle), FSCTL_QUERY_ALLOCATED_RANGES, &asked,
                                          sizeof asked, &found, sizeof found, &returned, nullptr) ||
                        ::GetLastError() == ERROR_MORE_DATA;
    if (!isTold)
        return {position, length};
    if (returned < sizeof found)
        return {length, length};
    const int64 start = std::clamp<int64>(found.FileOffset.QuadPart, position, length);
    return {start, std::clamp<int64>(found.FileOffset.QuadPart + found.Length.QuadPart, start, length)};
}

void CRawFile::read(int64 position, void* buffer, int count) const {
    const HANDLE handle = handleOf(m_handle);
    int64 done = 0;
    while (done < count) {
        auto* const rest = static_cast<char*>(buffer) + done;
        int64 got = readAt(handle, position + done, rest, count - done);
        int64 length = 0;
        if (got < 0 && ::GetLastError() == ERROR_INVALID_PARAMETER && isDrive(handle, length))
            got = readAtFromDrive(handle, position + done, rest, count - done);
        if (got == 0)
            throw CFailure(nameFromPath(m_path), "The file became shorter while it was read");
        if (got < 0)
            fail("Cannot read from file");
        done += got;
    }
}

void CRawFile::write(int64 position, const void* data, int size) {
    int done = 0;
    while (done < size) {
        OVERLAPPED at = {};
        at.Offset = static_cast<DWORD>((position + done) & 0xFFFFFFFF);
        at.OffsetHigh = static_cast<DWORD>((position + done) >> 32);
        DWORD put = 0;
        ::SetLastError(ERROR_WRITE_FAULT);
        if (!::WriteFile(handleOf(m_handle), static_cast<const char*>(data) + done,
                         static_cast<DWORD>(size - done), &put, &at) ||
            put == 0)
            fail("Cannot write to file");
        done += static_cast<int>(put);
    }
}

void CRawFile::setLength(int64 length) {
    FILE_END_OF_FILE_INFO end = {};
    end.EndOfFile.QuadPart = length;
    if (!::SetFileInformationByHandle(handleOf(m_handle), FileEndOfFileInfo, &end, sizeof end))
        fail("Cannot set the length of the file");
}

void CRawFile::copyAccessFrom(const fs::path& path) {
    if (!tryGiveAccess(handleOf(m_handle), path))
        fail("Cannot set the permissions of the file");
}

void CRawFile::sync() {
    if (!::FlushFileBuffers(handleOf(m_handle)))
        fail("Cannot flush file");
}

void CRawFile::close() {
    const HANDLE handle = handleOf(m_handle);
    m_handle = -1;
    if (!::CloseHandle(handle))
        fail("Cannot close file");
}

void copyAccess(const fs::path& from, const fs::path& to) {
    const CHandle file(open(to, READ_CONTROL | WRITE_DAC, false));
    if (file.isOpen() && tryGiveAccess(file.get(), from))
        return;
    const DWORD error = ::GetLastError();
    throw CFailure(nameFromPath(to), "Cannot set the permissions of the file: " + windows::describe(error));
}

int64 getAllocatedSize(const fs::path& path) {
    DWORD high = 0;
    ::SetLastError(ERROR_SUCCESS);
    const DWORD low = ::GetCompressedFileSizeW(windows::toLongPath(path).c_str(), &high);
    const DWORD error = ::GetLastError();
    if (low == INVALID_FILE_SIZE && error != ERROR_SUCCESS)
        throw CFailure(nameFromPath(path), "Cannot look up file: " + windows::describe(error));
    return static_cast<int64>(static_cast<uint64>(high) << 32 | low);
}

void moveFile(const fs::path& from, const fs::path& to, bool replace) {
    const DWORD flags = MOVEFILE_WRITE_THROUGH | (replace ? DWORD(MOVEFILE_REPLACE_EXISTING) : 0);
    if (tryMove(windows::toLongPath(from), windows::toLongPath(to), flags))
        return;
    DWORD error = ::GetLastError();
    if (replace && (error == ERROR_ACCESS_DENIED || error == ERROR_SHARING_VIOLATION)) {
        if (tryReplaceOpenFile(from, to))
            return;
        error = ::GetLastError();
    }
    throw CFailure(nameFromPath(to),
                   error == ERROR_FILE_EXISTS || error == ERROR_ALREADY_EXISTS
                       ? "The file was made by somebody else in the meantime"
                       : "Cannot give the finished file its name: " + windows::describe(error));
}

bool areNamesOfOneFile(const fs::path& a, const fs::path& b) {
    UIdentity first;
    UIdentity second;
    // One name of which there are two spellings shows in the number of names.
    return tryIdentify(a, first) && tryIdentify(b, second) && areSame(first, second) && first.names >= 2;
}

bool areNamesOfTwoFiles(const fs::path& a, const fs::path& b) {
    UIdentity first;
    UIdentity second;
    return tryIdentify(a, first) && tryIdentify(b, second) && !areSame(first, second);
}

void syncFolder(const fs::path& folder) {
    const CHandle handle(open(folder, FILE_READ_ATTRIBUTES, true));
    if (!handle.isOpen())
        throw CFailure(nameFromPath(folder), "Cannot flush folder: " + windows::describe(::GetLastError()));
    // File systems keep names in a journal, in the order in which they were given; few let a folder be
    // flushed, and only for whom may write to it.
    const CHandle writable(open(folder, GENERIC_WRITE, true));
    if (writable.isOpen())
        ::FlushFileBuffers(writable.get());
}

} // namespace tessel::cli
