#include "foundation/lum/NativeFiles.h"

#include "foundation/lum/StreamHelpers.h"
#include "foundation/windows/CWindowsFile.h"
#include "foundation/windows/FileRemoval.h"
#include "foundation/windows/SystemErrors.h"
#include "foundation/windows/SystemPath.h"

namespace lum {

P<COpenFile> openNativeFile(const String& path, const CURI& uri, IIOStream::Access access,
                            bool waitForMedium) {
    return new CWindowsFile(toSystemPath(path), uri, access, waitForMedium);
}

bool nativeFileExists(const String& path, const CURI& uri) {
    // A link that leads nowhere is something, too: its own attributes are asked for.
    if (::GetFileAttributesW(toSystemPath(path).c_str()) != INVALID_FILE_ATTRIBUTES)
        return true;
    const DWORD error = ::GetLastError();
    if (leadsNowhere(error))
        return false;
    if (error == ERROR_SHARING_VIOLATION) // only what is there can be in use
        return true;
    throw makeFileSystemError("Cannot look up file", error, makeStreamProps(uri));
}

void deleteNativeFile(const String& path, const CURI& uri, bool ignoreMissing) {
    const std::wstring systemPath = toSystemPath(path);
    const DWORD error = removeFile(systemPath);
    if (error == ERROR_SUCCESS || (ignoreMissing && leadsNowhere(error)))
        return;
    const DWORD attributes = ::GetFileAttributesW(systemPath.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        throw CFileSystemError(
            CFileSystemError::Problem_NotAFile,
            CError("Cannot delete file: Is a directory", String(), -1, makeStreamProps(uri)));
    throw makeFileSystemError("Cannot delete file", error, makeStreamProps(uri));
}

bool isNativeFileAt(const String& path, const CURI& uri, const COpenFile& file) {
    const auto* const windowsFile = dynamic_cast<const CWindowsFile*>(&file);
    if (!windowsFile)
        throwForeignStream("CNativeFileSystem::isFileOfStream", uri);
    const CFileHandle named =
        openExisting(toSystemPath(path).c_str(), FILE_READ_ATTRIBUTES, FILE_FLAG_BACKUP_SEMANTICS);
    if (named.isOpen())
        return windowsFile->isFileOf(named);
    const DWORD error = ::GetLastError();
    if (leadsNowhere(error))
        return false;
    throw makeFileSystemError("Cannot look up file", error, makeStreamProps(uri));
}

} // namespace lum
