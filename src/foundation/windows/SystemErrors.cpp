#include "foundation/windows/SystemErrors.h"

#include <algorithm>
#include <iterator>

namespace lum {

namespace {

using Problem = CFileSystemError::Problem;

/// ERROR_DISK_QUOTA_EXCEEDED, which not every compiler's headers have.
constexpr DWORD diskQuotaExceeded = 1295;

struct Meaning {
    DWORD systemError;
    Problem problem;
    const char* reason;
};

constexpr const char* notFound = "No such file or directory";
constexpr const char* denied = "Permission denied";
constexpr const char* inUse = "Another program uses it";
constexpr const char* noSpace = "No space left on device";
constexpr const char* notSupported = "Operation not supported";
constexpr const char* noMemory = "Cannot allocate memory";
constexpr const char* failed = "Input/output error";

constexpr Meaning meanings[] = {
    {ERROR_FILE_NOT_FOUND, Problem::Problem_NotFound, notFound},
    {ERROR_PATH_NOT_FOUND, Problem::Problem_NotFound, notFound},
    {ERROR_INVALID_NAME, Problem::Problem_NotFound, notFound},
    {ERROR_BAD_PATHNAME, Problem::Problem_NotFound, notFound},
    {ERROR_INVALID_DRIVE, Problem::Problem_NotFound, notFound},
    {ERROR_DIRECTORY, Problem::Problem_NotFound, "Not a directory"},
    {ERROR_BAD_NETPATH, Problem::Problem_NotFound, "The server is not found"},
    {ERROR_BAD_NET_NAME, Problem::Problem_NotFound, "The server has no such share"},
    {ERROR_FILENAME_EXCED_RANGE, Problem::Problem_Other, "File name too long"},
    {ERROR_CANT_RESOLVE_FILENAME, Problem::Problem_Other, "Too many levels of symbolic links"},
    {ERROR_TOO_MANY_OPEN_FILES, Problem::Problem_Other, "Too many open files"},
    {ERROR_FILE_EXISTS, Problem::Problem_AlreadyExists, "File exists"},
    {ERROR_ALREADY_EXISTS, Problem::Problem_AlreadyExists, "File exists"},
    {ERROR_ACCESS_DENIED, Problem::Problem_AccessDenied, denied},
    {ERROR_NETWORK_ACCESS_DENIED, Problem::Problem_AccessDenied, denied},
    {ERROR_PRIVILEGE_NOT_HELD, Problem::Problem_AccessDenied, denied},
    {ERROR_SHARING_VIOLATION, Problem::Problem_Locked, inUse},
    {ERROR_LOCK_VIOLATION, Problem::Problem_Locked, inUse},
    {ERROR_USER_MAPPED_FILE, Problem::Problem_Locked, inUse},
    {ERROR_BUSY, Problem::Problem_Locked, inUse},
    {ERROR_DISK_FULL, Problem::Problem_NoSpace, noSpace},
    {ERROR_HANDLE_DISK_FULL, Problem::Problem_NoSpace, noSpace},
    {diskQuotaExceeded, Problem::Problem_NoSpace, "Disk quota exceeded"},
    {ERROR_FILE_TOO_LARGE, Problem::Problem_NoSpace, "File too large"},
    {ERROR_WRITE_PROTECT, Problem::Problem_ReadOnlyMedium, "Read-only file system"},
    {ERROR_INVALID_FUNCTION, Problem::Problem_NotSupported, notSupported},
    {ERROR_NOT_SUPPORTED, Problem::Problem_NotSupported, notSupported},
    {ERROR_CALL_NOT_IMPLEMENTED, Problem::Problem_NotSupported, notSupported},
    {ERROR_INVALID_PARAMETER, Problem::Problem_NotSupported, "Invalid argument"},
    {ERROR_NOT_ENOUGH_MEMORY, Problem::Problem_Other, noMemory},
    {ERROR_OUTOFMEMORY, Problem::Problem_Other, noMemory},
    {ERROR_NO_SYSTEM_RESOURCES, Problem::Problem_Other, noMemory},
    {ERROR_NOT_READY, Problem::Problem_Other, "The device is not ready"},
    {ERROR_CRC, Problem::Problem_Other, failed},
    {ERROR_SEEK, Problem::Problem_Other, failed},
    {ERROR_SECTOR_NOT_FOUND, Problem::Problem_Other, failed},
    {ERROR_WRITE_FAULT, Problem::Problem_Other, failed},
    {ERROR_READ_FAULT, Problem::Problem_Other, failed},
    {ERROR_GEN_FAILURE, Problem::Problem_Other, failed},
    {ERROR_IO_DEVICE, Problem::Problem_Other, failed},
    {ERROR_FILE_CORRUPT, Problem::Problem_Other, "The file system is damaged"},
    {ERROR_DISK_CORRUPT, Problem::Problem_Other, "The file system is damaged"},
    {ERROR_NETNAME_DELETED, Problem::Problem_Other, "The server closed the connection"},
    {ERROR_UNEXP_NET_ERR, Problem::Problem_Other, "The server cannot be reached"},
};

/// Null for an error that has no words here.
const Meaning* findMeaning(DWORD systemError) noexcept {
    const auto* const found =
        std::find_if(std::begin(meanings), std::end(meanings),
                     [systemError](const Meaning& meaning) { return meaning.systemError == systemError; });
    return found == std::end(meanings) ? nullptr : found;
}

String describe(const char* tried, DWORD systemError) {
    const Meaning* const meaning = findMeaning(systemError);
    return String(tried) + ": " +
           (meaning ? String(meaning->reason) : "Windows error " + toDecimal(systemError));
}

Problem toProblem(DWORD systemError) noexcept {
    const Meaning* const meaning = findMeaning(systemError);
    return meaning ? meaning->problem : Problem::Problem_Other;
}

} // namespace

CFileSystemError makeFileSystemError(const char* tried, DWORD systemError, const CProps& props) {
    return CFileSystemError(toProblem(systemError),
                            CError(describe(tried, systemError), String(), -1, props));
}

CIOError makeIOError(CIOError::Code code, const char* tried, DWORD systemError, const CProps& props) {
    const bool noRoom = toProblem(systemError) == Problem::Problem_NoSpace;
    return CIOError(noRoom ? CIOError::Code_NoSpace : code, describe(tried, systemError), props);
}

bool leadsNowhere(DWORD systemError) noexcept {
    return systemError == ERROR_FILE_NOT_FOUND || systemError == ERROR_PATH_NOT_FOUND ||
           systemError == ERROR_INVALID_NAME || systemError == ERROR_BAD_PATHNAME ||
           systemError == ERROR_DIRECTORY;
}

} // namespace lum
