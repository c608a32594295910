#include "foundation/lum/NativeFiles.h"

#include "foundation/lum/StreamHelpers.h"
#include "foundation/posix/CPosixFile.h"
#include "foundation/posix/SystemErrors.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace lum {

namespace {

namespace fs = std::filesystem;

constexpr const char* triedToFollow = "Cannot follow links";

bool isMissing(const std::error_code& error) noexcept {
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

/// The path with the links of those folders followed that are there. What others delete between two looks at
/// it is looked for again: then it is missing, or somebody has made it anew.
fs::path findRealPath(const fs::path& path, std::error_code& error) {
    constexpr int mostTries = 1000;
    fs::path real;
    for (int i = 0; i < mostTries; ++i) {
        real = fs::weakly_canonical(path, error);
        if (!isMissing(error))
            break;
    }
    return real;
}

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

String followNativeLinks(const String& path, const CURI& uri) {
    constexpr int mostLinks = 40; // as the system itself
    std::error_code error;
    fs::path file = fs::absolute(path.toUTF8(), error);
    // A link that leads to nothing yet must be followed too: creating the file would create what it names.
    for (int links = 0; !error && fs::is_symlink(fs::symlink_status(file, error)); ++links) {
        if (links == mostLinks)
            throw makeFileSystemError(triedToFollow, ELOOP, makeStreamProps(uri));
        const fs::path target = fs::read_symlink(file, error);
        if (!error)
            file = file.parent_path() / target;
    }
    if (isMissing(error))
        error.clear(); // what is missing holds no links
    if (!error)
        file = findRealPath(file, error);
    if (error)
        throw makeFileSystemError(triedToFollow, error.value(), makeStreamProps(uri));
    return String::fromUTF8(file.string());
}

} // namespace lum
