#include "foundation/lum/URIToPath.h"
#include "lum/CFileSystemError.h"
#include "lum/CURI.h"

#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>

namespace lum {

namespace {

[[noreturn]] void throwNoCurrentFolder(int error) {
    throw CFileSystemError(
        error == ENOENT ? CFileSystemError::Problem_NotFound : CFileSystemError::Problem_Other,
        CError("The current folder cannot be told", std::generic_category().message(error).c_str()));
}

} // namespace

String getCurrentWorkDirectoryAsString() {
    std::string folder(256, '\0');
    while (!::getcwd(folder.data(), folder.size())) {
        if (errno != ERANGE)
            throwNoCurrentFolder(errno);
        folder.resize(2 * folder.size());
    }
    folder.resize(folder.find('\0'));
    // Outside of the root that the process sees, Linux gives a text that is no path from the root.
    if (folder.front() != '/')
        throwNoCurrentFolder(ENOENT);
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
