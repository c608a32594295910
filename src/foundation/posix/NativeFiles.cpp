#include "foundation/lum/NativeFiles.h"

#include "foundation/lum/StreamHelpers.h"
#include "foundation/posix/CPosixFile.h"
#include "foundation/posix/SystemErrors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace lum {

namespace {

bool leadsNowhere(int systemError) noexcept {
    return systemError == ENOENT || systemError == ENOTDIR;
}

} // namespace

P<COpenFile> openNativeFile(const String& path, const CURI& uri, IIOStream::Access access,
                            bool waitForMedium) {
    return new CPosixFile(path.toUTF8(), uri, access, waitForMedium);
}

bool nativeFileExists(const String& path, const CURI& uri) {
    constexpr const char* tried = "Cannot look up file";
    const std::string systemPath = path.toUTF8();
    struct stat status = {};
    // A link that leads nowhere is something, too.
    if (::lstat(systemPath.c_str(), &status) == 0)
        return true;
    const int error = errno;
    if (leadsNowhere(error))
        return false;
    throw makeFileSystemError(tried, error, makeStreamProps(uri));
}

void deleteNativeFile(const String& path, const CURI& uri, bool ignoreMissing) {
    constexpr const char* tried = "Cannot delete file";
    const std::string systemPath = path.toUTF8();
    if (::unlink(systemPath.c_str()) == 0)
        return;
    const int error = errno;
    if (!ignoreMissing || !leadsNowhere(error))
        throw makeFileSystemError(tried, error, makeStreamProps(uri));
}

bool isNativeFileAt(const String& path, const CURI& uri, const COpenFile& file) {
    constexpr const char* tried = "Cannot look up file";
    const auto* const posixFile = dynamic_cast<const CPosixFile*>(&file);
    if (!posixFile)
        throwForeignStream("CNativeFileSystem::isFileOfStream", uri);
    const std::string systemPath = path.toUTF8();
    struct stat status = {};
    if (::stat(systemPath.c_str(), &status) == 0)
        return posixFile->isFileOf(status);
    const int error = errno;
    if (leadsNowhere(error))
        return false;
    throw makeFileSystemError(tried, error, makeStreamProps(uri));
}

} // namespace lum
