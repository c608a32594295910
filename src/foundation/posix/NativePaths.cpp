#include "foundation/lum/URIToPath.h"
#include "lum/CFileSystemError.h"
#include "lum/CURI.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace lum {

namespace {

CFileSystemError::Problem problemOf(int error) noexcept {
    switch (error) {
    case ENOENT:
        return CFileSystemError::Problem_NotFound;
    case EACCES:
        return CFileSystemError::Problem_AccessDenied;
    default:
        return CFileSystemError::Problem_Other;
    }
}

} // namespace

String getCurrentWorkDirectoryAsString() {
    std::string folder(256, '\0');
    while (!::getcwd(folder.data(), folder.size())) {
        const int error = errno;
        if (error != ERANGE)
            throw CFileSystemError(problemOf(error),
                                   CError("The current folder cannot be told",
                                          std::generic_category().message(error).c_str(), error));
        folder.resize(2 * folder.size());
    }
    folder.resize(folder.find('\0'));
    // Outside of the root that the process sees, Linux gives a text that is no path from the root.
    if (folder.front() != '/')
        throw CFileSystemError(CFileSystemError::Problem_NotFound,
                               CError("The current folder cannot be reached from the root"));
    try {
        return String::fromUTF8(folder);
    } catch (const CError& error) {
        throw CFileSystemError(
            CFileSystemError::Problem_Other,
            CError("The name of the current folder is not UTF-8", String(), -1, CProps(), &error));
    }
}

CURI nativePathToURI(const String& path) {
    return CURI(CUnixPath(path), true);
}

String uriToNativePath(const CURI& uri) {
    return uriToPath<CUnixPathTraits>(uri);
}

} // namespace lum
