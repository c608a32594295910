#include "foundation/posix/SystemErrors.h"

#include <cerrno>
#include <cstring>

namespace lum {

namespace {

String describe(const char* tried, int systemError) {
#if defined(__GLIBC__)
    // Neither translated nor shared between threads.
    const char* const reason = strerrordesc_np(systemError);
#else
    const char* const reason = std::strerror(systemError);
#endif
    return String(tried) + ": " + (reason ? String(reason) : "Error " + toDecimal(systemError));
}

bool isLackOfSpace(int systemError) noexcept {
    return systemError == ENOSPC || systemError == EDQUOT || systemError == EFBIG;
}

CFileSystemError::Problem toProblem(int systemError) noexcept {
    switch (systemError) {
    case ENOENT:
    case ENOTDIR:
        return CFileSystemError::Problem_NotFound;
    case EEXIST:
        return CFileSystemError::Problem_AlreadyExists;
    case EACCES:
    case EPERM:
        return CFileSystemError::Problem_AccessDenied;
    case EAGAIN: // another process has a lease on the file
    case EBUSY:
    case ETXTBSY:
        return CFileSystemError::Problem_Locked;
    case EINVAL:
    case ENOLCK:
    case ENOSYS:
    case EOPNOTSUPP:
        return CFileSystemError::Problem_NotSupported;
    case EROFS:
        return CFileSystemError::Problem_ReadOnlyMedium;
    case EISDIR:
    case ENXIO: // a socket
        return CFileSystemError::Problem_NotAFile;
    default:
        return isLackOfSpace(systemError) ? CFileSystemError::Problem_NoSpace
                                          : CFileSystemError::Problem_Other;
    }
}

} // namespace

CFileSystemError makeFileSystemError(const char* tried, int systemError, const CProps& props) {
    return CFileSystemError(toProblem(systemError),
                            CError(describe(tried, systemError), String(), -1, props));
}

CIOError makeIOError(CIOError::Code code, const char* tried, int systemError, const CProps& props) {
    return CIOError(isLackOfSpace(systemError) ? CIOError::Code_NoSpace : code, describe(tried, systemError),
                    props);
}

} // namespace lum
