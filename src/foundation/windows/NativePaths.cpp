#include "foundation/lum/URIToPath.h"
#include "foundation/windows/SystemErrors.h"
#include "foundation/windows/SystemPath.h"
#include "lum/CURI.h"

#include <string>

namespace lum {

String getCurrentWorkDirectoryAsString() {
    std::wstring folder(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetCurrentDirectoryW(static_cast<DWORD>(folder.size()), folder.data());
        if (length == 0) {
            const DWORD error = ::GetLastError();
            throw makeFileSystemError("The current folder cannot be told", error, CProps());
        }
        // Without enough room the length is what it takes, the terminating zero included.
        const bool fits = length < folder.size();
        folder.resize(length);
        if (fits)
            return fromSystemPath(folder);
    }
}

CURI nativePathToURI(const String& path) {
    return CURI(CWindowsPath(fromSystemPath(path.getWideString())), true);
}

String uriToNativePath(const CURI& uri) {
    return uriToPath<CWindowsPathTraits>(uri);
}

} // namespace lum
